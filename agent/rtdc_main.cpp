// Entry and start-up: the settings record is filled from defaults, the settings file and
// the command line; a one-shot action runs, or the agent starts and serves for ever.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "agent/rtdc_globals.h"
#include "agent/rtdc_log.h"
#include "agent/rtdc_server.h"
#include "collectors/rtdc_config.h"
#include "control/rta_cmdline.h"
#include "control/rta_files.h"
#include "control/rta_lock.h"
#include "control/rta_priv.h"
#include "platform/roots.h"

unsigned char PACKET[72];

namespace {

void print_unauthorised() {
    fprintf(stderr, "\n%s can be started or stopped only by an authorized account.\n",
            kProgramName);
}

bool authorised(const RtaCmdline& settings) {
    return getuid() == 0 || rta_am_i_quorbex(settings.user) > 0;
}

// SIGINT is taken by a thread waiting in sigwait rather than by a handler, so the orderly
// end (sockets closed, lock file removed, exit 0) runs in ordinary thread context.
void block_stop_signal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void start_stop_signal_thread() {
    std::thread([] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        int sig = 0;
        while (sigwait(&set, &sig) != 0) {
        }
        Terminate(sig);
    }).detach();
}

}  // namespace

int local_sigaction(int sig, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, sig);
    action.sa_flags = SA_RESTART;
    return sigaction(sig, &action, nullptr) < 0 ? 1 : 0;
}

void Terminate(int) {
    // The connections are ended with shutdown and released by _exit: closing a descriptor
    // that the accept loop or the collection thread is using at this moment would race.
    int data = ctrl_sock.load();
    if (data > 0) shutdown(data, SHUT_RDWR);
    int listener = data_sock.load();
    if (listener > 0) shutdown(listener, SHUT_RDWR);
    // An agent started with -nolock, or one that failed before writing its lock, must
    // not take away the lock of the agent that holds it.
    rta_remove_own_lockfile(rta_cmdline.lock_file);
    // Request and collection threads may still be running: leave without running static
    // destructors under their feet. Only the standard streams are flushed: a request
    // stream blocked in a read holds its lock, and the log is flushed at every entry.
    fflush(stdout);
    fflush(stderr);
    _exit(0);
}

int start_daemon(const char* directory, int nice_value) {
    if (getppid() != 1) {
        signal(SIGTTOU, SIG_IGN);
        signal(SIGTTIN, SIG_IGN);
        signal(SIGTSTP, SIG_IGN);
        errno = 0;
        if (nice(nice_value) == -1 && errno != 0) {
            // A lowered priority is a wish, not a requirement.
        }
        fflush(nullptr);
        pid_t pid = fork();
        if (pid < 0) return -1;
        if (pid > 0) _exit(0);
        if (setpgid(0, 0) < 0) {
            char buf[256];
            snprintf(buf, sizeof buf, "start_daemon: setpgrp failed: %s\n", strerror(errno));
        }
        if (chdir(directory) < 0) {
            // Start-up goes on from the current directory.
        }
    }
    umask(022);
    // The standard streams keep pointing where they pointed; /dev/null is only held open
    // (three descriptors) the way the agent always has.
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd >= 0) {
        if (dup(null_fd) < 0 || dup(null_fd) < 0) {
        }
    }
    return 1;
}

void StartRTAgent(RtaCmdline* settings) {
    std::string access_error;
    if (!rtdc_setup_access(*settings, &access_error)) {
        fprintf(stderr, "FATAL: %s\n", access_error.c_str());
        exit(1);
    }
    block_stop_signal();
    signal(SIGPIPE, SIG_IGN);
    get_log_file_name_unix(settings->hostname, logfilec);

    RTDCAppendLogNoTs("%s real-time performance agent %s\n", kProgramName, kMakerNotice);
    RTDCAppendLogNoTs("Build: %s (%s)\n", kVersion, kBuildDate);
    if (settings->fork) start_daemon(settings->install_dir, settings->priority);
    start_stop_signal_thread();

    char now[80];
    TimeString(time(nullptr), now);
    RTDCAppendLogNoTs("\n pid:    %d\n", getpid());
    RTDCAppendLogNoTs(" Port:     %d \n", settings->port);
    RTDCAppendLogNoTs(" Interval: %d \n", dump_intvl.load());
    RTDCAppendLogNoTs(verbose_flag == 1 ? " Verbose Logging: ON\n" : " Verbose Logging: OFF\n");
    RTDCAppendLogNoTs(" Time:     %s \n\n", now);

    if (settings->lock) {
        int written = rta_write_lockfile(settings);
        settings->lock = 0;
        if (written < 1) exit(0);
    }

    data_sock = CreateISrvrSocket(settings->port);
    if (data_sock < 0) {
        char text[512];
        snprintf(text, sizeof text, "FATAL: error creating server socket on port %d : %s\n",
                 settings->port, strerror(errno));
        RTDCAppendLog(text);
        fputs(text, stderr);
        Terminate(0);
    }
    printf("%s started (pid %d)\n", kProgramName, getpid());
    fflush(stdout);
    if (verbose_flag) RTDCAppendLog("Getting Configuration....\n");
    GetConfigInfo();
    Fallback();
}

int rtdc_main(int argc, char** argv) {
    // Buffers of a quarter megabyte and more (line blocks, packets) get mappings of their
    // own, so what a header pass over thousands of processes takes goes back to the system
    // when it is freed. Left alone, the allocator raises this limit after the first such
    // free and keeps those megabytes in its heap for good.
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    memset(&rta_cmdline, 0, sizeof rta_cmdline);
    memset(PACKET, 0, sizeof PACKET);
    logfile_yday = -1;

    rta_init_command_line(&rta_cmdline);
    rta_parse_cmdline_for_rootdir(argv, argc, &rta_cmdline);
    rta_parse_startup_file(&rta_cmdline);
    int status = rta_parse_command_line(argv, argc, &rta_cmdline);
    if (status < 1) exit(0);
    // The agent changes into its install root below and when it becomes a daemon: a
    // relative root (QUORBEX_LIBRARY=var/root, -rootdir var/root) must keep naming the
    // directory it named where it was typed.
    if (!rta_make_paths_absolute(&rta_cmdline)) {
        fprintf(stderr, "vornrta, fatal: unable to make the install paths absolute: %s\n",
                strerror(errno));
        exit(1);
    }
    platform::set_roots(platform::counter_roots(rta_cmdline.proc_dir, rta_cmdline.sys_dir));

    if (rta_cmdline.usage) {
        rta_print_usage();
        exit(0);
    }
    if (rta_cmdline.update) {
        if (rta_update_paths(&rta_cmdline, rta_cmdline.install_dir) > 0) {
            rta_write_settings_file(&rta_cmdline);
            exit(0);
        }
        fprintf(stderr, "error updating paths for new root %s \n", rta_cmdline.install_dir);
        exit(1);
    }
    if (rta_cmdline.write_config) {
        printf("Writing config file...\n");
        rta_write_settings_file(&rta_cmdline);
        exit(0);
    }
    if (chdir(rta_cmdline.install_dir) < 0) {
        // The paths in the record are absolute or were given relative on purpose.
    }
    if (rta_cmdline.version) exit(status);
    if (rta_cmdline.status) {
        rta_status(rta_cmdline.lock_file, 1, 0, rta_cmdline.lock);
        exit(0);
    }
    if (rta_cmdline.stop) {
        if (!authorised(rta_cmdline)) {
            print_unauthorised();
            exit(0);
        }
        priv_init();
        priv_on();
        rta_relinquish_root(rta_cmdline.user);
        exit(rta_stop(rta_cmdline.lock_file, 0));
    }

    rta_build_start_privileges();
    priv_on();
    priv_on_proc();
    get_log_file_name_unix(rta_cmdline.hostname, logfilec);

    dump_intvl = rta_cmdline.scan;
    scan_intvl = rta_cmdline.scan;
    verbose_flag = rta_cmdline.verbose;
    no_alerts = rta_cmdline.alerts ? 0 : 1;
    start_rtal = rta_cmdline.alerts ? 1 : 0;
    CpuCount = GetNoCPUs();

    if (!authorised(rta_cmdline)) {
        print_unauthorised();
        return 0;
    }
    if (getuid() == 0) rta_relinquish_root(rta_cmdline.user);
    priv_init();
    priv_off();
    rta_keep_agent_privileges();
    setlocale(LC_ALL, "");
    StartRTAgent(&rta_cmdline);
}
