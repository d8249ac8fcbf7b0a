// A program started by a test: standard output and error read through pipes,
// standard input from /dev/null. Every wait is bounded, signals go to the
// child's own process id only, and an object that goes while its child still
// runs kills (SIGKILL) and reaps it, so a failing test leaves no process
// behind. Not thread-safe: one test thread drives one object.
#ifndef ZEL5_TESTS_CHILDPROCESS_H
#define ZEL5_TESTS_CHILDPROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace zel5test {

class ChildProcess {
public:
    // Which output streams go to pipes; the others are the test's own.
    enum Capture { CaptureNone = 0, CaptureStdout = 1, CaptureStderr = 2, CaptureBoth = 3 };

    enum class Read {
        Line,    // a line (without its newline), or the unterminated rest at the end
        Timeout, // nothing complete within the time given
        End,     // standard output is closed (or not captured) and all of it taken
    };

    // How the child ended, as waitpid reported it.
    struct Exit {
        int status = 0;
        int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; } // -1: a signal ended it
        int signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; } // 0: it exited
        std::string describe() const
        {
            if (WIFEXITED(status))
                return "exited with code " + std::to_string(WEXITSTATUS(status));
            if (WIFSIGNALED(status))
                return "killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
            return "wait status " + std::to_string(status);
        }
    };

    // argv[0] is the program's path. extraEnv holds "NAME=value" entries that
    // are added to the test's environment, replacing a variable of that name.
    explicit ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
                          int capture = CaptureStdout)
    {
        start(argv, extraEnv, capture);
    }

    ~ChildProcess()
    {
        if (pid_ > 0 && !reaped_) {
            ::kill(pid_, SIGKILL);
            int status = 0;
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) { // SIGKILL cannot be ignored: this ends
            }
        }
        closeFd(out_.fd);
        closeFd(err_.fd);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    const std::string& startError() const { return startError_; }

    // Sends sig to the child's own process id; false once it has been reaped
    // (its id may then belong to another process) or when kill fails.
    bool signal(int sig) { return pid_ > 0 && !reaped_ && ::kill(pid_, sig) == 0; }

    // The next line of standard output, waiting at most `within` for it.
    Read readLine(std::string& line, std::chrono::milliseconds within)
    {
        for (const auto deadline = Clock::now() + within;;) {
            const std::size_t newline = out_.text.find('\n');
            if (newline != std::string::npos) {
                line = out_.text.substr(0, newline);
                out_.text.erase(0, newline + 1);
                return Read::Line;
            }
            if (out_.fd < 0) {
                if (out_.text.empty())
                    return Read::End;
                line.swap(out_.text);
                out_.text.clear();
                return Read::Line;
            }
            const long long left = remainingMs(deadline);
            if (left <= 0)
                return Read::Timeout;
            pump(left);
        }
    }

    // Waits at most `within` for the child to end and reaps it; nullopt while
    // it still runs. Captured output is read meanwhile, so a child that writes
    // much never blocks on a full pipe. Once reaped, the same Exit again.
    std::optional<Exit> waitExit(std::chrono::milliseconds within)
    {
        if (pid_ <= 0)
            return std::nullopt;
        for (const auto deadline = Clock::now() + within;;) {
            if (!reaped_) {
                int status = 0;
                const pid_t got = ::waitpid(pid_, &status, WNOHANG);
                if (got == pid_)
                    reaped_ = true, exit_.status = status;
                else if (got < 0 && errno != EINTR)
                    return std::nullopt; // not our child: nothing to wait for
            }
            if (reaped_) {
                for (Stream* s : {&out_, &err_}) // what the pipes still hold; a stream a descendant keeps stays open
                    if (s->fd >= 0)
                        readAvailable(*s);
                return exit_;
            }
            const long long left = remainingMs(deadline);
            if (left <= 0)
                return std::nullopt;
            // No exit notice to wait on: look again after a short step, or sooner when output arrives.
            const int step = static_cast<int>(std::min<long long>(left, 10));
            if (out_.fd >= 0 || err_.fd >= 0) {
                pump(step);
            } else {
                const timespec pause{0, step * 1000000L};
                ::nanosleep(&pause, nullptr);
            }
        }
    }

    // Standard output not taken by readLine yet; complete once the child has been reaped.
    std::string takeStdout() { return std::exchange(out_.text, std::string()); }

    // Standard error read so far; complete once the child has been reaped.
    const std::string& stderrText() const { return err_.text; }

private:
    using Clock = std::chrono::steady_clock;

    struct Stream {
        int fd = -1;
        std::string text;
    };

    static long long remainingMs(Clock::time_point deadline)
    {
        return std::max<long long>(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count(), 0);
    }

    static void closeFd(int& fd)
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    void start(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv, int capture)
    {
        if (argv.empty()) {
            startError_ = "no program given";
            return;
        }
        int outPipe[2] = {-1, -1};
        int errPipe[2] = {-1, -1};
        if (((capture & CaptureStdout) && ::pipe2(outPipe, O_CLOEXEC) != 0)
            || ((capture & CaptureStderr) && ::pipe2(errPipe, O_CLOEXEC) != 0)) {
            startError_ = std::string("cannot create a pipe: ") + std::strerror(errno);
            for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1]})
                closeFd(fd);
            return;
        }

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        // dup2 leaves the copy open across exec; the pipe's own ends close.
        if (outPipe[1] >= 0)
            posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
        if (errPipe[1] >= 0)
            posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);

        // The child starts with no blocked signals and the usual dispositions, whatever the test's threads have set.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none, defaults;
        sigemptyset(&none);
        sigemptyset(&defaults);
        for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD})
            sigaddset(&defaults, sig);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        std::vector<std::string> env;
        for (char** e = environ; e && *e; ++e) {
            const std::string entry(*e);
            const std::string name = entry.substr(0, entry.find('=')) + "=";
            if (std::none_of(extraEnv.begin(), extraEnv.end(), [&](const std::string& x) { return x.rfind(name, 0) == 0; }))
                env.push_back(entry);
        }
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        std::vector<char*> args, envp;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        for (const std::string& e : env)
            envp.push_back(const_cast<char*>(e.c_str()));
        args.push_back(nullptr);
        envp.push_back(nullptr);

        pid_t pid = -1;
        const int rc = ::posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        closeFd(outPipe[1]);
        closeFd(errPipe[1]);
        if (rc != 0) {
            startError_ = "cannot start " + argv[0] + ": " + std::strerror(rc);
            closeFd(outPipe[0]);
            closeFd(errPipe[0]);
            return;
        }
        pid_ = pid;
        out_.fd = outPipe[0];
        err_.fd = errPipe[0];
        for (int fd : {out_.fd, err_.fd})
            if (fd >= 0)
                ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    }

    // Reads what is there; closes the stream at its end or on an error.
    static void readAvailable(Stream& s)
    {
        char buf[4096];
        for (;;) {
            const ssize_t n = ::read(s.fd, buf, sizeof buf);
            if (n > 0)
                s.text.append(buf, static_cast<std::size_t>(n));
            else if (n < 0 && errno == EAGAIN)
                return;
            else if (n == 0 || errno != EINTR)
                return closeFd(s.fd);
        }
    }

    // Waits up to timeoutMs for output on the captured streams and reads it.
    void pump(long long timeoutMs)
    {
        pollfd fds[2];
        Stream* streams[2];
        nfds_t n = 0;
        for (Stream* s : {&out_, &err_})
            if (s->fd >= 0)
                fds[n] = {s->fd, POLLIN, 0}, streams[n++] = s;
        if (n == 0 || ::poll(fds, n, static_cast<int>(timeoutMs)) <= 0)
            return; // timeout, or EINTR: the callers look at their deadline
        for (nfds_t i = 0; i < n; ++i)
            if (fds[i].revents)
                readAvailable(*streams[i]);
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    Exit exit_;
    Stream out_;
    Stream err_;
    std::string startError_;
};

} // namespace zel5test

#endif
