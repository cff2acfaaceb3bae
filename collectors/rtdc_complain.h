// A failure that repeats every scan is logged at its 1st, 10th, 100th, ... occurrence, so a
// missing kernel file cannot fill the log directory.
#pragma once

#include "agent/rtdc_log.h"

class Complaint {
  public:
    void fail(const char* text) {
        if (++count_ == next_) {
            RTDCAppendLog(text);
            next_ = next_ < 1000000000 ? next_ * 10 : next_;
        }
    }
    void ok() {
        count_ = 0;
        next_ = 1;
    }

  private:
    long count_ = 0;
    long next_ = 1;
};
