#include "alerts/rtal_state.h"

std::atomic<int> start_rtal{0};
std::atomic<int> rtal_intvl{120};
std::atomic<int> rtal_counter{60};
std::atomic<int> no_alerts{0};

std::mutex tree_mutex;
std::mutex expdef_mutex;
std::mutex alert_mutex;
std::mutex event_mutex;
