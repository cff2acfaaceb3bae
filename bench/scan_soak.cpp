// Many scans in one process, to see whether the agent's memory grows with the number of
// scans. It runs the collection thread's own tick (Scanner) back to back, with every class
// on, packets built and written to /dev/null as to a console, and, unless -churn 0, a few
// short-lived children started and ended along the way so processes keep appearing in and
// vanishing from the process list and the metric tree.
//
//   scan_soak [-scans N] [-warm W] [-churn K] [-extra N]
//
// -extra starts that many sleeping processes first (and ends them, by pid, at the end).
//
// Prints one line: scans, VmRSS after W scans and at the end (kB), growth in percent, and
// VmHWM.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "packet/rtdc_state.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "alerts/rtal_tree.h"
#include "control/rta_cmdline.h"

namespace {

long status_kb(const char* key) {
    std::ifstream in("/proc/self/status");
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key, 0) == 0) return std::atol(line.c_str() + strlen(key));
    return -1;
}

pid_t start_child(int serial) {
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char name[16];
        // A few names, so children share tree nodes as real workers do.
        snprintf(name, sizeof name, "soakchild%d", serial % 3);
        prctl(PR_SET_NAME, name);
        pause();
        _exit(0);
    }
    return pid;
}

}  // namespace

int main(int argc, char** argv) {
    long scans = 1000, warm = 100;
    int churn = 4;
    int extra = 0;
    for (int i = 1; i < argc; ++i) {
        std::string_view a = argv[i];
        if (a == "-scans" && i + 1 < argc)
            scans = atol(argv[++i]);
        else if (a == "-warm" && i + 1 < argc)
            warm = atol(argv[++i]);
        else if (a == "-churn" && i + 1 < argc)
            churn = atoi(argv[++i]);
        else if (a == "-extra" && i + 1 < argc)
            extra = atoi(argv[++i]);
        else {
            fprintf(stderr, "usage: scan_soak [-scans N] [-warm W] [-churn K] [-extra N]\n");
            return 2;
        }
    }
    if (warm >= scans) warm = scans / 10;

    std::vector<pid_t> sleepers;
    for (int i = 0; i < extra; ++i) {
        pid_t pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            prctl(PR_SET_NAME, "vornsleeper");
            for (;;) pause();
        }
        if (pid > 0) sleepers.push_back(pid);
    }

    // A throw-away install root for the log file.
    char root[] = "/tmp/vornsoak.XXXXXX";
    if (!mkdtemp(root)) {
        perror("scan_soak: mkdtemp");
        return 1;
    }
    rta_init_command_line(&rta_cmdline);
    rta_cmdline.collect_default = 1;
    rta_cmdline.collect_process = 1;
    rta_cmdline.class_process = 1;
    snprintf(rta_cmdline.log_dir, sizeof rta_cmdline.log_dir, "%s", root);
    if (!rta_cmdline.hostname[0])
        snprintf(rta_cmdline.hostname, sizeof rta_cmdline.hostname, "soak");
    get_log_file_name_unix(rta_cmdline.hostname, logfilec);
    rtal_create_root(rta_cmdline.hostname);

    // The data connection is /dev/null: packets are built and written in full.
    int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ctrl_sock = sink;
    start_rtdc = 1;
    setup_snapshot(1);

    std::deque<pid_t> children;
    int serial = 0;
    long rss_warm = 0;
    for (long n = 1; n <= scans; ++n) {
        if (churn > 0) {
            // Every scan one child starts; once `churn` are alive the oldest ends.
            children.push_back(start_child(serial++));
            if (static_cast<int>(children.size()) > churn) {
                kill(children.front(), SIGKILL);
                waitpid(children.front(), nullptr, 0);
                children.pop_front();
            }
        }
        Scanner(0);
        if (n == warm) rss_warm = status_kb("VmRSS:");
    }
    const long rss_end = status_kb("VmRSS:");
    children.insert(children.end(), sleepers.begin(), sleepers.end());
    for (pid_t pid : children) kill(pid, SIGKILL);
    for (pid_t pid : children) waitpid(pid, nullptr, 0);
    printf("scans=%ld warm_at=%ld rss_warm_kb=%ld rss_end_kb=%ld growth_pct=%.2f hwm_kb=%ld\n",
           scans, warm, rss_warm, rss_end,
           rss_warm > 0 ? (rss_end - rss_warm) * 100.0 / rss_warm : 0.0, status_kb("VmHWM:"));
    close(sink);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return 0;
}
