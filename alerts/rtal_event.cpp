// Events: text lines a client hands in with <EVENT>, kept in a fixed store and given
// verbatim, once, to the first console that asks with <EVENT_GET_ALERTS>; and the event
// definition file left by <EVENT_DEF> for other programs on the host.
#include "alerts/rtal_event.h"

#include <cerrno>
#include <cstring>
#include <mutex>

#include "agent/rtdc_lineread.h"
#include "alerts/rtal_state.h"
#include "agent/rtdc_log.h"
#include "alerts/rtal_io.h"
#include "alerts/rtal_rules.h"
#include "control/rta_cmdline.h"
#include "control/rta_files.h"

char eventlist[kMaxEvents][512];
int no_events = 0;
int max_events = kMaxEvents;

List* Evntdef_list = nullptr;
List* Event_Alert_list = nullptr;

namespace {

// The definition file is written from whatever a peer sends; a runaway or hostile client
// must not fill the disk the log and settings live on.
constexpr long kMaxEventDefBytes = 1L << 20;

const rtal::RuleReader kEventReader = {
    "VORNRTA-I-EVENT:    parse new list\n",
    "VORNRTA-I-EVENT:    read: ",
    "</EVENT>",
    {"parse evntdef : exp_name\n", "parse evntdef : name\n", "parse evntdef : condition\n",
     "parse Evntdef : limit\n", "parse expdef : duration hrs\n", "parse expdef : duration mins\n",
     "parse expdef : descript\n"},
    "VORNRTA-I-EVNTDEF:   Finished Processing <EVENT>\n",
    false,
};

}  // namespace

int handle_event_request(FILE* stream, int /*fd*/, const char* /*client*/) {
    // Held for the whole read; the request's deadline ends a client that stops sending or
    // trickles, so the store is never held for long.
    std::lock_guard<std::mutex> lock(event_mutex);
    if (rtal::verbose()) rtdc_logf("%-20s <EVENT> tag \n", "VORNRTA-I-TAG:");
    while (no_events < kMaxEvents) {
        // A read error, or the request's deadline, counts as end of stream.
        if (!rtdc_read_text_line(stream, eventlist[no_events])) break;
        if (rtal::verbose()) rtdc_logf("%-20s %s \n", "VORNRTA-I-EVENTDEF:", eventlist[no_events]);
        no_events++;
        if (no_events == kMaxEvents) {
            rtdc_logf("%-20s %s \n", "VORNRTA-E-EVENTDEF", "error too many events");
            break;
        }
    }
    return 0;
}

int handle_event_def_request(FILE* stream, int /*fd*/, const char* line, const char* /*client*/) {
    rtdc_logf("%-20s <EVENT_DEF> tag \n", "VORNRTA-I-TAG:");
    char path[1024];
    snprintf(path, sizeof path, "%s/eventdef_%s.dat", rta_cmdline.settings_dir,
             rta_cmdline.hostname);
    // A peer decides what goes in: a link planted at the path must be replaced, never
    // written through.
    RtaNewFile file(path, 0644);
    FILE* out = file.stream();
    if (!out) {
        rtdc_logf("VORNRTA-E-EVENTDEF: cannot create %s: %s\n", path, strerror(errno));
        return 0;
    }
    long written = 0;
    if (line) {
        fputs(line, out);
        written += static_cast<long>(strlen(line));
    }
    char buf[512];
    size_t got = 0;
    // The file keeps every byte of each line as it came.
    while (rtdc_read_line(stream, buf, &got)) {
        long len = static_cast<long>(got);
        if (written + len > kMaxEventDefBytes) {
            rtdc_logf("VORNRTA-E-EVENTDEF: %s: definition longer than %ld bytes, rest dropped\n",
                      path, kMaxEventDefBytes);
            break;
        }
        fwrite(buf, 1, got, out);
        written += len;
    }
    if (!file.replace())
        rtdc_logf("VORNRTA-E-EVENTDEF: writing %s failed: %s\n", path, strerror(errno));
    return 1;
}

int rtal_event_getalert_action(int socket, const char* /*owner*/) {
    static const char kOpen[] = "<EVENT_ALERTS_GENERATED>\n";
    static const char kClose[] = "</EVENT_ALERTS_GENERATED>\n";
    if (!rtal::write_text(socket, kOpen)) {
        rtdc_logf("%-18s <EVENT_ALERTS_GENERATED> tag send failed: %s\n",
                  "VORNRTA-I-TAGFAIL:", strerror(errno));
        return -1;
    }
    if (rtal::verbose()) rtdc_logf("%-18s %s tag sent\n", "VORNRTA-I-TAG:", kOpen);
    {
        std::lock_guard<std::mutex> lock(event_mutex);
        if (no_events >= 1) {
            if (rtal::verbose())
                rtdc_logf("%-18s %d event to be sent\n", "VORNRTA-I-TAG:", no_events);
            for (int i = 0; i < no_events; i++) {
                rtdc_logf("VORN-I-EVENT: sending event[%d],%s\n", i, eventlist[i]);
                if (!rtal::write_text(socket, eventlist[i])) {
                    // The events stay stored for the next console, and the store is released
                    // so that later <EVENT> requests are not locked out.
                    rtdc_logf("VORNRTA-E-EVENT: failed to send event %d, %s\n", i, strerror(errno));
                    return -1;
                }
            }
            no_events = 0;
        }
    }
    if (!rtal::write_text(socket, kClose)) {
        rtdc_logf("VORNRTA-E-WRITE: write socket failed </EVENT_ALERTS_GENERATED>: %s\n",
                  strerror(errno));
        return -1;
    }
    if (rtal::verbose()) rtdc_logf("%-18s %s tag sent\n", "VORNRTA-I-TAG:", kClose);
    return 1;
}

void rtal_event_action(FILE* stream, const char* owner) {
    {
        // The rules it makes join Expdef_list, which the evaluator walks: take its lock.
        std::lock_guard<std::mutex> lock(expdef_mutex);
        if (!Evntdef_list) {
            if (!CreateList(&Evntdef_list)) RTDCAppendLog("VORNRTA-E-MALLOC: CreateList: failed\n");
        } else {
            rtal::remove_owner_rules(Evntdef_list, owner);
        }
    }
    rtal::read_rules(stream, owner, kEventReader);
}
