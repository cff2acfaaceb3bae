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

// The keys that change the process order (either case).
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
        if (ch == k.letter || ch == k.letter - 'a' + 'A') {
            *key = k.key;
            return true;
        }
    return false;
}

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
        }
    }
    ~Screen() { endwin(); }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;
};

void draw_bar(int y, int x, int width, double pct) {
    if (width < 4) return;
    int inner = width - 2;
    int fill = static_cast<int>(std::clamp(pct, 0.0, 100.0) / 100.0 * inner + 0.5);
    int color = pct >= 90 ? 3 : pct >= 60 ? 2 : 1;
    mvaddch(y, x, '[');
    if (has_colors()) attron(COLOR_PAIR(color));
    for (int i = 0; i < inner; ++i) mvaddch(y, x + 1 + i, i < fill ? '|' : ' ');
    if (has_colors()) attroff(COLOR_PAIR(color));
    mvaddch(y, x + inner + 1, ']');
}

void draw(const HostView* view, const std::string& source, SortKey sort, int scroll,
          const std::string& status) {
    erase();
    int rows = LINES, cols = COLS;
    if (!view) {
        mvaddnstr(
            0, 0,
            ("vornmon " + source + "  waiting for data (first figures after one scan)...").c_str(),
            cols);
    } else {
        std::vector<ViewLine> lines = layout_view(*view, source, sort, cols, -1);
        // Everything above the process rows is always shown; the process rows scroll.
        std::size_t first_process = lines.size();
        for (std::size_t i = 0; i < lines.size(); ++i)
            if (lines[i].kind == ViewLine::kColumns &&
                lines[i].text.find("PID") != std::string::npos &&
                lines[i].text.find("NAME") != std::string::npos)
                first_process = i + 1;
        int y = 0;
        for (std::size_t i = 0; i < lines.size() && y < rows - 1; ++i) {
            if (i >= first_process && static_cast<int>(i - first_process) < scroll) continue;
            const ViewLine& l = lines[i];
            int attr = l.kind == ViewLine::kTitle     ? A_REVERSE
                       : l.kind == ViewLine::kSection ? A_BOLD
                       : l.kind == ViewLine::kColumns ? A_UNDERLINE
                                                      : A_NORMAL;
            if (l.kind == ViewLine::kSection && has_colors()) attr |= COLOR_PAIR(4);
            attron(attr);
            mvaddnstr(y, 0, l.text.c_str(), cols);
            if (l.kind == ViewLine::kTitle)
                for (int x = static_cast<int>(l.text.size()); x < cols; ++x) mvaddch(y, x, ' ');
            attroff(attr);
            if (l.bar >= 0) {
                int x = static_cast<int>(l.text.size()) + 2;
                draw_bar(y, x, std::min(cols - x - 1, 50), l.bar);
            }
            ++y;
        }
    }
    std::string keys =
        "q quit  c cpu  m memory  p pid  n name  i io  r renew names  up/down scroll";
    if (!status.empty()) keys = status + "   " + keys;
    attron(A_REVERSE);
    mvaddnstr(rows - 1, 0, keys.c_str(), cols);
    for (int x = static_cast<int>(keys.size()); x < cols; ++x) mvaddch(rows - 1, x, ' ');
    attroff(A_REVERSE);
    refresh();
}

// What the live view shows and how.
struct TopState {
    std::unique_ptr<HostView> view;
    SortKey sort = SortKey::kCpu;
    int scroll = 0;
    std::string status;
    bool quit = false;
};

// Applies the keys typed since the last frame; true when one of them changes the frame.
bool handle_keys(Feed& feed, TopState& t) {
    bool redraw = false;
    for (int ch; (ch = getch()) != ERR;) {
        redraw = true;
        if (SortKey key; sort_key_for(ch, &key)) {
            t.sort = key;
            t.scroll = 0;
            continue;
        }
        int page = std::max(1, LINES / 2);
        switch (ch) {
            case 'q':
            case 'Q':
                t.quit = true;
                break;
            case 'r':
            case 'R':
                // Processes started after the header packet have no name on the wire; a fresh
                // header pass names them.
                feed.renew();
                t.status = "renewed";
                break;
            case KEY_DOWN:
            case 'j':
                ++t.scroll;
                break;
            case KEY_UP:
            case 'k':
                t.scroll = std::max(0, t.scroll - 1);
                break;
            case KEY_NPAGE:
                t.scroll += page;
                break;
            case KEY_PPAGE:
                t.scroll = std::max(0, t.scroll - page);
                break;
            default:
                break;
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
        if (e.kind != FeedEvent::Kind::kPacket) {
            t.status = e.message;
            continue;
        }
        if (e.measurement && !e.packet.data.empty()) {
            t.view = std::make_unique<HostView>(build_view(e.sample));
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
    t.sort = sort;
    std::string failure;
    {
        Screen screen;
        draw(nullptr, feed.source(), t.sort, t.scroll, t.status);
        while (!g_stop.load(std::memory_order_relaxed) && !t.quit && failure.empty()) {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {feed.fd(), POLLIN, 0}};
            if (poll(fds, feed.fd() >= 0 ? 2 : 1, feed.wait_ms()) < 0 && errno != EINTR) break;
            bool redraw = handle_keys(feed, t);
            redraw = take_events(feed, t, failure) || redraw;
            if (redraw && !t.quit) draw(t.view.get(), feed.source(), t.sort, t.scroll, t.status);
        }
    }
    if (!failure.empty()) return ctx.fail(failure);
    return kExitOk;
}

}  // namespace vornmon
