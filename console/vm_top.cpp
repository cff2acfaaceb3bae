// The live terminal view of `vornmon top`: redrawn at every data packet and at every key.
#include <ncurses.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>

#include "console/vm_commands.h"

namespace vornmon {
namespace {

// The keys that change the process order. 'I' inverts the order instead of sorting by io.
bool sort_key_for(int ch, SortKey* key) {
    static constexpr struct {
        char letter;
        SortKey key;
    } kKeys[] = {{'c', SortKey::kCpu},
                 {'m', SortKey::kMemory},
                 {'p', SortKey::kPid},
                 {'n', SortKey::kName},
                 {'i', SortKey::kIo}};
    for (const auto& k : kKeys)
        if (ch == k.letter || (ch == k.letter - 'a' + 'A' && ch != 'I')) {
            *key = k.key;
            return true;
        }
    return false;
}

constexpr const char* kHelp[] = {
    "vornmon top: keys",
    "",
    "  c  m  p  n  i   sort processes by cpu, memory, pid, name, io",
    "  I               reverse the order",
    "  /               filter processes by pid, name or user (Enter keeps, Esc clears)",
    "  f               show pseudo file systems (/proc, /sys, /dev, /run) too",
    "  r               renew the data connection (names processes shown as ?)",
    "  up/down PgUp/PgDn j/k   scroll the processes",
    "  h  ?            this help; any key returns",
    "  q               quit",
    "",
    "Bars: user green, system red, wait blue; memory and file systems by fill.",
    "Alerts of the hub's rules show above the processes while they fire (--hub).",
};

std::atomic<int> g_stop{0};

void on_stop_signal(int) {
    g_stop.store(1, std::memory_order_relaxed);
}

// Leaves the terminal as it was found, whatever path ends the view.
struct Screen {
    Screen() {
        initscr();
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        nodelay(stdscr, TRUE);
        curs_set(0);
        if (has_colors()) {
            start_color();
            use_default_colors();
            init_pair(1, COLOR_GREEN, -1);
            init_pair(2, COLOR_YELLOW, -1);
            init_pair(3, COLOR_RED, -1);
            init_pair(4, COLOR_CYAN, -1);
            init_pair(5, COLOR_BLUE, -1);
        }
    }
    ~Screen() { endwin(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
};

// A bar of one level, coloured by how high it is, or of a processor's time split by mode.
void draw_bar(int y, int x, int width, double pct, const CpuSplit& modes) {
    if (width < 4) return;
    int inner = width - 2;
    auto cells = [inner](double v) {
        return static_cast<int>(std::clamp(v, 0.0, 100.0) / 100.0 * inner + 0.5);
    };
    struct Segment {
        int end, color;
    };
    std::vector<Segment> segments;
    if (modes.present) {
        int user = cells(modes.user), system = cells(modes.user + modes.system);
        segments = {{user, 1}, {system, 3}, {cells(modes.user + modes.system + modes.wait), 5}};
    } else {
        segments = {{cells(pct), pct >= 90 ? 3 : pct >= 60 ? 2 : 1}};
    }
    mvaddch(y, x, '[');
    for (int i = 0, s = 0; i < inner; ++i) {
        while (s < static_cast<int>(segments.size()) && i >= segments[s].end) ++s;
        bool filled = s < static_cast<int>(segments.size());
        int color = filled ? segments[s].color : 0;
        if (filled && has_colors()) attron(COLOR_PAIR(color));
        mvaddch(y, x + 1 + i, filled ? '|' : ' ');
        if (filled && has_colors()) attroff(COLOR_PAIR(color));
    }
    mvaddch(y, x + inner + 1, ']');
}

void draw_line(int y, const ViewLine& l, int cols) {
    int attr = l.kind == ViewLine::kTitle     ? A_REVERSE
               : l.kind == ViewLine::kSection ? A_BOLD
               : l.kind == ViewLine::kColumns ? A_UNDERLINE
                                              : A_NORMAL;
    if (l.kind == ViewLine::kSection && has_colors()) attr |= COLOR_PAIR(4);
    if (l.kind == ViewLine::kAlert) attr = A_BOLD | (has_colors() ? COLOR_PAIR(3) : A_REVERSE);
    attron(attr);
    mvaddnstr(y, 0, l.text.c_str(), cols);
    if (l.kind == ViewLine::kTitle)
        for (int x = static_cast<int>(l.text.size()); x < cols; ++x) mvaddch(y, x, ' ');
    attroff(attr);
    if (l.bar >= 0) {
        int x = static_cast<int>(l.text.size()) + 2;
        draw_bar(y, x, std::min(cols - x - 1, 50), l.bar, l.modes);
    }
}

void draw_status(const std::string& text, int cols) {
    attron(A_REVERSE);
    mvaddnstr(LINES - 1, 0, text.c_str(), cols);
    for (int x = static_cast<int>(text.size()); x < cols; ++x) mvaddch(LINES - 1, x, ' ');
    attroff(A_REVERSE);
}

// What the live view shows and how.
struct TopState {
    std::unique_ptr<HostView> view;
    ViewOptions options;
    int scroll = 0;
    bool help = false;
    bool editing_filter = false;
    std::string status;
    bool quit = false;
    IntervalClock clock;
    std::vector<Alert> firing;  // oldest first
};

// A raised alert joins the panel (once per rule); a cleared one leaves it.
void note_alert(TopState& t, const FeedEvent& e) {
    std::erase_if(t.firing, [&](const Alert& a) { return a.name == e.alert.name; });
    if (e.raised) t.firing.push_back(e.alert);
}

void draw(const TopState& t, const std::string& source) {
    erase();
    int cols = COLS;
    if (t.help) {
        for (int y = 0; y < static_cast<int>(std::size(kHelp)) && y < LINES - 1; ++y)
            mvaddnstr(y, 0, kHelp[y], cols);
    } else if (!t.view) {
        mvaddnstr(
            0, 0,
            ("vornmon " + source + "  waiting for data (first figures after one scan)...").c_str(),
            cols);
    } else {
        std::vector<ViewLine> lines =
            layout_screen(*t.view, source, t.options, t.firing, cols, LINES - 1, t.scroll);
        for (int y = 0; y < static_cast<int>(lines.size()) && y < LINES - 1; ++y)
            draw_line(y, lines[static_cast<std::size_t>(y)], cols);
    }
    std::string keys = "q quit  h help  / filter  I reverse  c m p n i sort  f all fs";
    if (t.editing_filter) keys = "filter: " + t.options.filter + "_   Enter keep  Esc clear";
    else if (!t.status.empty()) keys = t.status + "   " + keys;
    draw_status(keys, cols);
    refresh();
}

// A key typed while the filter is being edited.
void edit_filter(TopState& t, int ch) {
    if (ch == '\n' || ch == KEY_ENTER) {
        t.editing_filter = false;
    } else if (ch == 27) {
        t.options.filter.clear();
        t.editing_filter = false;
    } else if (ch == KEY_BACKSPACE || ch == 127 || ch == 8) {
        if (!t.options.filter.empty()) t.options.filter.pop_back();
    } else if (ch >= 32 && ch < 127 && t.options.filter.size() < 64) {
        t.options.filter += static_cast<char>(ch);
    }
    t.scroll = 0;
}

// A key that changes the view; false when it is not one.
bool view_key(Feed& feed, TopState& t, int ch) {
    if (SortKey key; sort_key_for(ch, &key)) {
        t.options.sort = key;
        t.scroll = 0;
        return true;
    }
    switch (ch) {
        case 'I':
            t.options.reverse = !t.options.reverse;
            return true;
        case '/':
            t.editing_filter = true;
            return true;
        case 'f':
        case 'F':
            t.options.all_filesystems = !t.options.all_filesystems;
            return true;
        case 'h':
        case 'H':
        case '?':
            t.help = true;
            return true;
        case 'q':
        case 'Q':
            t.quit = true;
            return true;
        case 'r':
        case 'R':
            // Processes started after the header packet have no name on the wire; a fresh
            // header pass names them.
            feed.renew();
            t.status = "renewed";
            return true;
        default:
            return false;
    }
}

void scroll_key(TopState& t, int ch) {
    int page = std::max(1, LINES / 2);
    if (ch == KEY_DOWN || ch == 'j') ++t.scroll;
    if (ch == KEY_UP || ch == 'k') --t.scroll;
    if (ch == KEY_NPAGE) t.scroll += page;
    if (ch == KEY_PPAGE) t.scroll -= page;
    t.scroll = std::max(0, t.scroll);
}

// Applies the keys typed since the last frame; true when one of them changes the frame.
bool handle_keys(Feed& feed, TopState& t) {
    bool redraw = false;
    for (int ch; (ch = getch()) != ERR;) {
        redraw = true;
        if (t.help) {
            t.help = false;  // any key leaves the help screen
        } else if (t.editing_filter) {
            edit_filter(t, ch);
        } else if (!view_key(feed, t, ch)) {
            scroll_key(t, ch);
        }
    }
    if (t.view)
        t.scroll = std::min(t.scroll, std::max(0, static_cast<int>(t.view->processes.size()) - 1));
    return redraw;
}

// Takes what the feed has; true when the frame changed. A failed feed ends the view.
bool take_events(Feed& feed, TopState& t, std::string& failure) {
    bool redraw = false;
    for (FeedEvent e; (e = feed.next()).kind != FeedEvent::Kind::kIdle;) {
        redraw = true;
        if (e.kind == FeedEvent::Kind::kFailed) {
            failure = e.message;
            return true;
        }
        if (e.kind == FeedEvent::Kind::kAlert) {
            note_alert(t, e);
            continue;
        }
        if (e.kind != FeedEvent::Kind::kPacket) {
            t.status = e.message;
            t.clock.connection_started();
            continue;
        }
        if (!e.measurement) {
            t.clock.connection_started();
        } else if (!e.packet.data.empty()) {
            double seconds = t.clock.measured(e.packet.interval, std::chrono::steady_clock::now());
            t.view = std::make_unique<HostView>(build_view(e.sample, seconds));
            t.status.clear();
        }
    }
    return redraw;
}

// Restores the signal dispositions the view replaced, however it ends.
struct StopSignals {
    struct sigaction old_int {
    }, old_term{}, old_hup{};
    StopSignals() {
        struct sigaction sa {};
        sa.sa_handler = on_stop_signal;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &old_int);
        sigaction(SIGTERM, &sa, &old_term);
        sigaction(SIGHUP, &sa, &old_hup);
        g_stop.store(0);
    }
    ~StopSignals() {
        sigaction(SIGINT, &old_int, nullptr);
        sigaction(SIGTERM, &old_term, nullptr);
        sigaction(SIGHUP, &old_hup, nullptr);
    }
};

}  // namespace

int run_top_screen(const Context& ctx, Feed& feed, SortKey sort) {
    StopSignals signals;
    TopState t;
    t.options.sort = sort;
    std::string failure;
    {
        Screen screen;
        set_escdelay(25);
        draw(t, feed.source());
        while (!g_stop.load(std::memory_order_relaxed) && !t.quit && failure.empty()) {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {feed.fd(), POLLIN, 0}};
            if (poll(fds, feed.fd() >= 0 ? 2 : 1, feed.wait_ms()) < 0 && errno != EINTR) break;
            bool redraw = handle_keys(feed, t);
            redraw = take_events(feed, t, failure) || redraw;
            if (redraw && !t.quit) draw(t, feed.source());
        }
    }
    if (!failure.empty()) return ctx.fail(failure);
    return kExitOk;
}

}  // namespace vornmon
