// Private to the protocol library. OpenSSL writes to the socket with plain
// write(), which raises SIGPIPE when the peer has gone; that must fail the
// write, not end the program. While a guard lives, SIGPIPE is held back on
// this thread, and one raised meanwhile is discarded.
#ifndef ZEL_SIGPIPEGUARD_H
#define ZEL_SIGPIPEGUARD_H

#include <csignal>
#include <ctime>
#include <pthread.h>

namespace ZEL {

class SigpipeGuard {
public:
    SigpipeGuard()
    {
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        alreadyPending = sigismember(&pending, SIGPIPE) == 1;
        blocked = pthread_sigmask(SIG_BLOCK, &pipe, &saved) == 0;
    }
    ~SigpipeGuard()
    {
        if (!blocked)
            return;
        sigset_t pending;
        if (!alreadyPending && sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1) {
            const timespec now{0, 0};
            sigtimedwait(&pipe, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;

private:
    sigset_t pipe;
    sigset_t saved;
    bool alreadyPending = false;
    bool blocked = false;
};

} // namespace ZEL

#endif
