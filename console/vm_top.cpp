// The live terminal view of `vornmon top`: redrawn at every data packet and at every key.
#include <ncurses.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>

#include "console/vm_cli.h"

namespace vornmon {
namespace {

// The keys that change the process order (either case).
bool sort_key_for(int ch, SortKey* key) {
    static constexpr struct {
        char letter;
        SortKey key;
    } kKeys[] = {{'c', SortKey::kCpu}, {'m', SortKey::kMemory}, {'p', SortKey::kPid},
                 {'n', SortKey::kName}, {'i', SortKey::kIo}};
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

}  // namespace

int run_top_screen(const Context& ctx, const TopOptions& o) {
    DataStream stream(ctx.agent, o.interval, ctx.timeout_ms);
    std::string err;
    if (!stream.open(err)) return ctx.fail(err);

    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    struct sigaction old_int {
    }, old_term{}, old_hup{};
    sigaction(SIGINT, &sa, &old_int);
    sigaction(SIGTERM, &sa, &old_term);
    sigaction(SIGHUP, &sa, &old_hup);
    g_stop.store(0);

    Session session;
    Reconnector reconnector(o.reconnect_s);
    reconnector.connected();
    std::unique_ptr<HostView> view;
    SortKey sort = o.sort;
    int scroll = 0;
    int data_in_connection = 0;
    std::string status;
    int result = kExitOk;
    std::string final_error;
    {
        Screen screen;
        draw(nullptr, ctx.agent.text(), sort, scroll, status);
        while (!g_stop.load(std::memory_order_relaxed)) {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {stream.fd(), POLLIN, 0}};
            int n = stream.is_open() ? 2 : 1;
            int wait_ms =
                stream.is_open() ? 1000 : std::clamp(reconnector.ms_until_due(), 10, 1000);
            if (poll(fds, n, wait_ms) < 0 && errno != EINTR) break;
            bool redraw = false;
            for (int ch; (ch = getch()) != ERR;) {
                redraw = true;
                if (SortKey key; sort_key_for(ch, &key)) {
                    sort = key;
                    scroll = 0;
                    continue;
                }
                switch (ch) {
                    case 'q':
                    case 'Q':
                        g_stop.store(1);
                        break;
                    case 'r':
                    case 'R':
                        // Processes started after the header packet have no name on the wire;
                        // a new data connection brings a header packet that names them.
                        if (stream.open(err)) {
                            session.reset();
                            data_in_connection = 0;
                            reconnector.connected();
                            status = "reconnected";
                        } else {
                            status = "reconnecting: " + err;
                            reconnector.lost();
                        }
                        break;
                    case KEY_DOWN:
                    case 'j':
                        ++scroll;
                        break;
                    case KEY_UP:
                    case 'k':
                        scroll = std::max(0, scroll - 1);
                        break;
                    case KEY_NPAGE:
                        scroll += std::max(1, LINES / 2);
                        break;
                    case KEY_PPAGE:
                        scroll = std::max(0, scroll - std::max(1, LINES / 2));
                        break;
                    default:
                        break;
                }
            }
            if (view)
                scroll =
                    std::min(scroll, std::max(0, static_cast<int>(view->processes.size()) - 1));
            if (!stream.is_open()) {
                if (reconnector.given_up()) {
                    result = kExitFailure;
                    final_error = "the agent at " + ctx.agent.text() + " did not come back";
                    break;
                }
                if (reconnector.due()) {
                    if (stream.open(err)) {
                        session.reset();
                        data_in_connection = 0;
                        reconnector.connected();
                        status = "reconnected";
                    } else {
                        reconnector.failed_attempt();
                        status = "reconnecting: " + err;
                    }
                    redraw = true;
                }
            }
            while (stream.is_open()) {
                Packet packet;
                DataStream::Status st = stream.pump(packet, err);
                if (st == DataStream::Status::kIdle) break;
                Sample sample;
                if (st == DataStream::Status::kPacket && !session.accept(packet, sample, err)) {
                    st = DataStream::Status::kMalformed;
                    stream.close();
                }
                if (st == DataStream::Status::kPacket) {
                    reconnector.progress();
                    // The first data packet of a connection covers no interval yet (its
                    // rates read 0): keep the previous figures until the second.
                    if (!packet.data.empty() && ++data_in_connection >= 2) {
                        view = std::make_unique<HostView>(build_view(sample));
                        if (status == "reconnected") status.clear();
                        redraw = true;
                    }
                    continue;
                }
                status = (st == DataStream::Status::kMalformed ? "malformed packet: " : "") + err +
                         "; reconnecting";
                reconnector.lost();
                redraw = true;
                break;
            }
            if (redraw && !g_stop.load()) draw(view.get(), ctx.agent.text(), sort, scroll, status);
        }
    }
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
    sigaction(SIGHUP, &old_hup, nullptr);
    if (result != kExitOk) return ctx.fail(final_error, result);
    return kExitOk;
}

}  // namespace vornmon
