// A child program with piped output: bounded waits, signals to its own id only, killed and reaped at the end.
#ifndef ZEL5_TESTS_CHILDPROCESS_H
#define ZEL5_TESTS_CHILDPROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
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
    enum Capture { CaptureNone = 0, CaptureStdout = 1, CaptureStderr = 2, CaptureBoth = 3 };

    // Line: without its newline, or the unterminated rest; End: standard output closed (or not captured) and taken.
    enum class Read { Line, Timeout, End };

    struct Exit {
        int status = 0;
        int code() const { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; } // -1: a signal ended it
        int signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }
        std::string describe() const
        {
            return code() >= 0 ? "exited with code " + std::to_string(code())
                               : "killed by signal " + std::to_string(signal()) + " (" + strsignal(signal()) + ")";
        }
    };

    // argv[0] is the program's path; extraEnv's "NAME=value" entries replace the test's own.
    explicit ChildProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extraEnv = {},
                          int capture = CaptureStdout)
    {
        int pipes[2][2] = {{-1, -1}, {-1, -1}};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        for (int i = 0; i < 2; ++i)
            if ((capture & (1 << i)) && ::pipe2(pipes[i], O_CLOEXEC) == 0) // dup2 leaves the copy open across exec
                posix_spawn_file_actions_adddup2(&actions, pipes[i][1], STDOUT_FILENO + i);

        // No blocked signals and default dispositions, whatever the test's threads set.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none, defaults;
        sigemptyset(&none), sigemptyset(&defaults);
        for (int sig : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD})
            sigaddset(&defaults, sig);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        std::vector<std::string> env;
        for (char** e = environ; e && *e; ++e) {
            const std::string entry(*e), name = entry.substr(0, entry.find('=') + 1);
            if (std::none_of(extraEnv.begin(), extraEnv.end(), [&](const std::string& x) { return x.rfind(name, 0) == 0; }))
                env.push_back(entry);
        }
        env.insert(env.end(), extraEnv.begin(), extraEnv.end());
        std::vector<char*> args, envp;
        for (auto [from, to] : {std::pair{&argv, &args}, {&env, &envp}}) {
            for (const std::string& a : *from)
                to->push_back(const_cast<char*>(a.c_str()));
            to->push_back(nullptr);
        }

        const int rc = argv.empty() ? EINVAL
                                    : ::posix_spawn(&pid_, argv[0].c_str(), &actions, &attr, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attr);
        out_.fd = pipes[0][0];
        err_.fd = pipes[1][0];
        if (rc != 0) {
            pid_ = -1;
            startError_ = "cannot start " + (argv.empty() ? std::string() : argv[0]) + ": " + std::strerror(rc);
        }
        for (int i = 0; i < 2; ++i) {
            closeFd(pipes[i][1]);
            Stream& s = i ? err_ : out_;
            if (rc != 0)
                closeFd(s.fd);
            else if (s.fd >= 0)
                ::fcntl(s.fd, F_SETFL, ::fcntl(s.fd, F_GETFL) | O_NONBLOCK);
        }
    }

    ~ChildProcess()
    {
        int status = 0;
        if (pid_ > 0 && !reaped_ && ::kill(pid_, SIGKILL) == 0)
            while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) { // SIGKILL ends it
            }
        closeFd(out_.fd);
        closeFd(err_.fd);
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    const std::string& startError() const { return startError_; }

    // False once reaped: the id may then be another process's.
    bool signal(int sig) { return pid_ > 0 && !reaped_ && ::kill(pid_, sig) == 0; }

    Read readLine(std::string& line, std::chrono::milliseconds within)
    {
        for (const auto deadline = Clock::now() + within;;) {
            const std::size_t newline = out_.text.find('\n');
            if (newline != std::string::npos || (out_.fd < 0 && !out_.text.empty())) {
                line = out_.text.substr(0, newline);
                out_.text.erase(0, newline == std::string::npos ? newline : newline + 1);
                return Read::Line;
            }
            if (out_.fd < 0)
                return Read::End;
            const long long left = remainingMs(deadline);
            if (left <= 0)
                return Read::Timeout;
            pump(left);
        }
    }

    // nullopt while it still runs after `within`. Output is read meanwhile, so a full pipe never blocks the child.
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
                    return std::nullopt; // not our child
            }
            if (reaped_) {
                for (Stream* s : {&out_, &err_}) // a stream a descendant keeps stays open
                    readAvailable(*s);
                return exit_;
            }
            const long long left = remainingMs(deadline);
            if (left <= 0)
                return std::nullopt;
            pump(std::min<long long>(left, 10)); // no exit notice to wait on
        }
    }

    // Standard output not taken by readLine yet, and standard error; complete once reaped.
    std::string takeStdout() { return std::exchange(out_.text, std::string()); }
    const std::string& stderrText() const { return err_.text; }

private:
    using Clock = std::chrono::steady_clock;

    struct Stream { int fd = -1; std::string text; };

    static long long remainingMs(Clock::time_point deadline)
    {
        return std::max<long long>(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count(), 0);
    }

    static void closeFd(int& fd)
    {
        if (fd >= 0)
            ::close(std::exchange(fd, -1));
    }

    // Reads what is there; closes the stream at its end or on an error.
    static void readAvailable(Stream& s)
    {
        char buf[4096];
        while (s.fd >= 0) {
            const ssize_t n = ::read(s.fd, buf, sizeof buf);
            if (n > 0)
                s.text.append(buf, static_cast<std::size_t>(n));
            else if (n < 0 && errno == EAGAIN)
                return;
            else if (n == 0 || errno != EINTR)
                return closeFd(s.fd);
        }
    }

    void pump(long long timeoutMs)
    {
        pollfd fds[2];
        Stream* streams[2];
        nfds_t n = 0;
        for (Stream* s : {&out_, &err_})
            if (s->fd >= 0)
                fds[n] = {s->fd, POLLIN, 0}, streams[n++] = s;
        if (::poll(fds, n, static_cast<int>(timeoutMs)) <= 0) // with no stream open, a plain sleep
            return; // timeout, or EINTR: the callers look at their deadline
        for (nfds_t i = 0; i < n; ++i)
            if (fds[i].revents)
                readAvailable(*streams[i]);
    }

    pid_t pid_ = -1;
    bool reaped_ = false;
    Exit exit_;
    Stream out_, err_;
    std::string startError_;
};

} // namespace zel5test

#endif
