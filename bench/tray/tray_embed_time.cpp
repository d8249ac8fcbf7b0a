// How long a tray program takes from exec to its icon docked in the tray
// host: a small X client that starts the program again and again and waits
// for the X server to report the program's window leaving the root window
// for the host's socket (the XEMBED reparent). The wait is on X events, not
// on polling the window tree, so a run is timed to well under a millisecond.
//
// Usage: tray_embed_time [--runs N] [--timeout-ms T] -- PROGRAM [ARGS...]
//            [-- OTHER [ARGS...]]...
// With several programs the starts take turns, so that a change in the
// machine's load falls on all of them alike. Prints each run's time and then
// one "median_ms PROGRAM X" line per program; exits 1 when a run fails.
#include <xcb/xcb.h>

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

double nowMs()
{
    timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

struct Options {
    int runs = 10;
    int timeoutMs = 10000;
    std::vector<char**> programs; // each ends with a null pointer
};

// Splits what follows the first "--" at every further "--" into programs.
bool takePrograms(int argc, char** argv, int first, Options& o)
{
    for (int i = first; i < argc; ++i) {
        if (std::strcmp(argv[i], "--") != 0)
            continue;
        argv[i] = nullptr;
        if (i + 1 < argc && std::strcmp(argv[i + 1], "--") != 0)
            o.programs.push_back(argv + i + 1);
    }
    return !o.programs.empty() && o.runs > 0 && o.timeoutMs > 0;
}

bool parse(int argc, char** argv, Options& o)
{
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--"))
            return takePrograms(argc, argv, i, o);
        if (i + 1 >= argc)
            return false;
        if (!std::strcmp(argv[i], "--runs"))
            o.runs = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--timeout-ms"))
            o.timeoutMs = std::atoi(argv[++i]);
        else
            return false;
    }
    return false;
}

class Display {
public:
    bool open()
    {
        conn = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(conn))
            return false;
        root = xcb_setup_roots_iterator(xcb_get_setup(conn)).data->root;
        // Reparenting a child of the root is reported to whoever selects
        // SubstructureNotify on the root: no need to know the host's windows.
        const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
        xcb_change_window_attributes(conn, root, XCB_CW_EVENT_MASK, &mask);
        pidAtom = internAtom("_NET_WM_PID");
        return pidAtom != XCB_NONE && xcb_flush(conn) > 0;
    }
    ~Display()
    {
        if (conn)
            xcb_disconnect(conn);
    }

    void drain()
    {
        while (xcb_generic_event_t* e = xcb_poll_for_event(conn))
            std::free(e);
    }

    // Waits until deadline for a window of pid to leave the root; true when
    // it did. Stops early when the program ends.
    bool waitForDock(pid_t pid, double deadline, bool& ended)
    {
        ended = false;
        for (;;) {
            while (xcb_generic_event_t* e = xcb_poll_for_event(conn)) {
                const bool docked = isDock(e, pid);
                std::free(e);
                if (docked)
                    return true;
            }
            if (xcb_connection_has_error(conn) || nowMs() >= deadline)
                return false;
            if (::waitpid(pid, nullptr, WNOHANG) == pid) {
                ended = true;
                return false;
            }
            pollfd p {xcb_get_file_descriptor(conn), POLLIN, 0};
            // Short slices, so that a program that dies is noticed.
            ::poll(&p, 1, std::clamp(int(deadline - nowMs()), 1, 50));
        }
    }

private:
    xcb_atom_t internAtom(const char* name)
    {
        auto* reply = xcb_intern_atom_reply(conn, xcb_intern_atom(conn, 0, std::strlen(name), name), nullptr);
        const xcb_atom_t atom = reply ? reply->atom : XCB_NONE;
        std::free(reply);
        return atom;
    }

    bool isDock(const xcb_generic_event_t* e, pid_t pid)
    {
        if ((e->response_type & 0x7f) != XCB_REPARENT_NOTIFY)
            return false;
        const auto* r = reinterpret_cast<const xcb_reparent_notify_event_t*>(e);
        return r->event == root && r->parent != root && windowPid(r->window) == pid;
    }

    pid_t windowPid(xcb_window_t w)
    {
        auto* reply = xcb_get_property_reply(
            conn, xcb_get_property(conn, 0, w, pidAtom, XCB_ATOM_CARDINAL, 0, 1), nullptr);
        pid_t pid = -1;
        if (reply && reply->format == 32 && xcb_get_property_value_length(reply) == 4)
            pid = static_cast<pid_t>(*static_cast<uint32_t*>(xcb_get_property_value(reply)));
        std::free(reply);
        return pid;
    }

    xcb_connection_t* conn = nullptr;
    xcb_window_t root = XCB_NONE;
    xcb_atom_t pidAtom = XCB_NONE;
};

// Asks the program to end, as a logout does, and kills it if it does not
// within five seconds.
void stop(pid_t pid, bool ended)
{
    if (ended)
        return;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 500; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid)
            return;
        ::usleep(10 * 1000);
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

// One start; the time to the dock in milliseconds, or a negative number.
double timeOneStart(Display& display, char** program, int timeoutMs)
{
    display.drain();
    const double start = nowMs();
    const pid_t pid = ::fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        ::execvp(program[0], program);
        std::_Exit(127);
    }
    bool ended = false;
    const bool docked = display.waitForDock(pid, start + timeoutMs, ended);
    const double took = nowMs() - start;
    stop(pid, ended);
    return docked ? took : -1;
}

double median(std::vector<double> times)
{
    std::sort(times.begin(), times.end());
    const std::size_t n = times.size();
    return n % 2 ? times[n / 2] : (times[n / 2 - 1] + times[n / 2]) / 2;
}

} // namespace

int main(int argc, char** argv)
{
    Options o;
    if (!parse(argc, argv, o)) {
        std::fprintf(stderr, "usage: %s [--runs N] [--timeout-ms T] -- PROGRAM [ARGS...] [-- OTHER [ARGS...]]...\n",
                     argv[0]);
        return 2;
    }
    Display display;
    if (!display.open()) {
        std::fprintf(stderr, "tray_embed_time: cannot open the X display\n");
        return 1;
    }
    std::vector<std::vector<double>> times(o.programs.size());
    // One round not counted: it loads the programs and their libraries from disk.
    for (int run = -1; run < o.runs; ++run) {
        for (std::size_t p = 0; p < o.programs.size(); ++p) {
            const double ms = timeOneStart(display, o.programs[p], o.timeoutMs);
            if (ms < 0) {
                std::fprintf(stderr, "tray_embed_time: %s did not dock its icon\n", o.programs[p][0]);
                return 1;
            }
            if (run >= 0) {
                times[p].push_back(ms);
                std::printf("run %d: %s %.1f ms\n", run + 1, o.programs[p][0], ms);
            }
            // The host lays out its icons again after one leaves.
            ::usleep(200 * 1000);
        }
    }
    for (std::size_t p = 0; p < o.programs.size(); ++p)
        std::printf("median_ms %s %.2f\n", o.programs[p][0], median(times[p]));
    return 0;
}
