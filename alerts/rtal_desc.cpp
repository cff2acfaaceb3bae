// The <DESC> reply: one line per leaf of the metric tree, which also starts alerting.
#include <cerrno>
#include <cstring>

#include "packet/rtdc_state.h"
#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_io.h"

void sendMetricsHeader(treeNode* leaf, void* socket, void* /*unused*/) {
    int* fd = static_cast<int*>(socket);
    if (!leaf || !leaf->data || !fd) return;
    // After one failed write the console is gone or stuck; trying every remaining leaf would
    // hold tree_mutex for a send timeout per leaf and fill the log with one line each.
    if (*fd < 0) return;
    const MetricDescription* m = leaf->data;
    char line[512];
    snprintf(line, sizeof line, "%s::%s::%d,%s,%d\n", m->description, m->text,
             static_cast<int>(m->attr), m->unit, static_cast<int>(m->alertable));
    if (rtal::verbose()) rtdc_logf("VORNRTA-I-SND_HEADER: %s", line);
    if (!rtal::write_text(*fd, line)) {
        rtdc_logf("VORNRTA-W-SNDFAIL: sendMetricHeader: write socket failed: %s\n",
                  strerror(errno));
        *fd = -1;
    }
}

void rtal_desc_action(int socket) {
    if (start_rtal.load(std::memory_order_relaxed) == 0) {
        // A console that asks for descriptions before any data still needs the snapshot
        // structures the tree points into.
        if (start_rtdc.load(std::memory_order_relaxed) == 0) {
            set_data_startup_flags(socket);
            setup_snapshot(1);
        }
        start_rtal.store(1, std::memory_order_relaxed);
    }
    if (rtal::verbose()) rtdc_logf("%-18s <HEADER>, sending tag  \n", "VORNRTA-I-TAG:");
    if (!rtal::write_text(socket, "<HEADER>\n")) {
        rtdc_logf("%-18s <HEADER>, ERROR sending tag  \n", "VORNRTA-E-SEND:");
        return;
    }
    int walk_fd = socket;
    Traverse_Tree_for_leaves(Metric_Tree, sendMetricsHeader, &walk_fd);
    if (rtal::verbose()) RTDCAppendLog("</HEADER>\n");
    if (!rtal::write_text(socket, "</HEADER>\n"))
        rtdc_logf("%-18s </HEADER>, Error sending tag: %s \n", "VORNRTA-I-TAG:", strerror(errno));
}
