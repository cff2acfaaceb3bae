// Alert reporting on the control connection: the <GETALERTS> reply and the log dumps of the
// rule and alert lists.
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>

#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_expdef.h"
#include "alerts/rtal_io.h"
#include "alerts/rtal_rules.h"

int rtal_getalert_action(int socket, const char* owner) {
    if (rtal::verbose()) rtdc_logf("%-18s <ALERTS> sending tag\n", "VORNRTA-I-TAG:");
    if (!rtal::write_text(socket, "<ALERTS>\n")) {
        rtdc_logf("%-18s <ALERTS> tag send failed: %s\n", "VORNRTA-I-TAGFAIL:", strerror(errno));
        return -1;
    }
    if (rtal::verbose()) rtdc_logf("%-18s <ALERTS> tag sent\n", "VORNRTA-I-TAG:");
    {
        // Held across the writes: the evaluator waits to append while a slow console reads,
        // which the send timeout on the connection bounds.
        std::lock_guard<std::mutex> lock(alert_mutex);
        ListItem* item = Alert_list ? Alert_list->first : nullptr;
        while (item) {
            ListItem* next = item->next;
            auto* alert = static_cast<ExceptionObject*>(item->data);
            if (!alert || !rtal::owner_matches(*alert, owner)) {
                item = next;
                continue;
            }
            char when[64] = "";
            struct tm tmv;
            if (localtime_r(&alert->raised, &tmv))
                strftime(when, sizeof when, "%d-%b-%Y %H:%M", &tmv);
            // Large enough that four %f of any double never cut the line's own newline.
            char line[2048];
            snprintf(line, sizeof line, "%s::%s::%s::%f::%f::%f::%f::%s::%s\n", alert->exp_name,
                     alert->metric ? alert->metric->description : alert->name, alert->condition,
                     alert->limit, alert->ave, alert->min, alert->max, when, alert->descript);
            if (verbose_flag.load(std::memory_order_relaxed) >= 0)
                rtdc_logf("VORN-I-ALRTSENT: Alert SENT\n%s\n", line);
            if (!rtal::write_text(socket, line)) {
                // This alert and every later one stay queued for the next request.
                rtdc_logf("VORNRTA-E-WRITE: write socket failed: <ALERT>: %s\n", strerror(errno));
                return -1;
            }
            RemoveItem(Alert_list, item);
            rtal_alert_collected(alert->console);
            rtal_free_alert(alert);
            item = next;
        }
    }
    if (!rtal::write_text(socket, "</ALERTS>\n")) {
        rtdc_logf("VORNRTA-E-WRITE: write socket failed </ALERT>: %s\n", strerror(errno));
        return -1;
    }
    if (rtal::verbose()) rtdc_logf("%-18s </ALERTS> tag sent\n", "VORNRTA-I-TAG:");
    return 1;
}

void log_alert_list(int verbose) {
    if (!verbose) return;
    rtdc_logf("%-18s ---- ALERTS LIST ----\n", "VORNRTA-I-TAGMON:");
    {
        std::lock_guard<std::mutex> lock(alert_mutex);
        for (ListItem* item = Alert_list ? Alert_list->first : nullptr; item; item = item->next) {
            auto* alert = static_cast<ExceptionObject*>(item->data);
            if (!alert) continue;
            rtdc_logf("%-18s : %s, %s,\n\t\t\t\t%s, %s\n", "VORNRTA-I-ALERT:", alert->owner,
                      alert->exp_name, alert->metric ? alert->metric->description : alert->name,
                      alert->descript);
            rtdc_logf("%-18s : %s, %s,\n\t\t\t\tlimit: %f, ave: %f, min: %f max: %f\n",
                      "VORNRTA-I-ALERT1:", alert->exp_name, alert->condition, alert->limit,
                      alert->ave, alert->min, alert->max);
        }
    }
    rtdc_logf("%-18s ---- END ALERTS LIST ----\n", "VORNRTA-I-TAGMON:");
}

void log_expdef_list(int verbose) {
    if (!verbose) return;
    rtdc_logf("%-18s ---- EXECEPTION DEFINITION LIST ----\n", "VORNRTA-I-TAGMON:");
    {
        std::lock_guard<std::mutex> lock(expdef_mutex);
        for (ListItem* item = Expdef_list ? Expdef_list->first : nullptr; item; item = item->next) {
            auto* rule = static_cast<ExceptionObject*>(item->data);
            if (!rule) continue;
            // The bound path rather than rule->metric: the node may have left the tree, and
            // this runs on a request thread without tree_mutex.
            rtdc_logf("%-18s  %s, %s,\n\t\t\t\t%s, limit: %f, duration: %d\n",
                      "VORNRTA-I-EXPDEF:", rule->exp_name,
                      rule->bound[0] ? rule->bound : rule->name, rule->condition, rule->limit,
                      rule->duration);
        }
    }
    rtdc_logf("%-18s ---- END EXECEPTION DEFINITION LIST ----\n", "VORNRTA-I-TAGMON:");
}

int rtal_checksock(int /*socket*/) {
    return 1;
}
