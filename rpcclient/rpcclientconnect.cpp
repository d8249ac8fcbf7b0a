// The session's TCP connection: the connect, bounded by a time limit and the
// cancel flag when either is set, the socket options, and the disconnect.
#include "rpcclient.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ZEL {

namespace {

constexpr int poll_round_ms = 50;

bool cancelled(const std::atomic<bool>* flag)
{
    return flag && flag->load(std::memory_order_acquire);
}

// Waits for a non-blocking connect to finish, in poll rounds short enough to
// see the cancel flag; ms <= 0 waits as long as the system tries. 0 when
// connected, otherwise an errno-style reason.
int finish_connect(int s, int ms, const std::atomic<bool>* cancel)
{
    using clock = std::chrono::steady_clock;
    const clock::time_point deadline = clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (cancelled(cancel))
            return ec_pipe;
        long long round = poll_round_ms;
        if (ms > 0) {
            const long long left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock::now()).count();
            if (left <= 0)
                return ec_timedout;
            round = std::min(round, left);
        }
        pollfd p{s, POLLOUT, 0};
        const int r = ::poll(&p, 1, static_cast<int>(round));
        if (r < 0 && errno != EINTR)
            return errno;
        if (r > 0) {
            int err = 0;
            socklen_t n = sizeof err;
            if (::getsockopt(s, SOL_SOCKET, SO_ERROR, &err, &n) != 0)
                return errno;
            return err;
        }
    }
}

void set_nonblocking(int s, bool on)
{
    const int fl = ::fcntl(s, F_GETFL);
    if (fl >= 0)
        ::fcntl(s, F_SETFL, on ? fl | O_NONBLOCK : fl & ~O_NONBLOCK);
}

} // namespace

void RPCClient::set_keepalive(int idle_s, int interval_s, int count)
{
    const bool on = idle_s > 0 && interval_s > 0 && count > 0;
    _keepalive[0] = on ? idle_s : 0;
    _keepalive[1] = on ? interval_s : 0;
    _keepalive[2] = on ? count : 0;
}

void RPCClient::set_cancel(const std::atomic<bool>* flag)
{
    _cancel = flag;
    _rst.set_cancel(flag);
}

int RPCClient::connect()
{
    if (_connected)
        return 0;
    int s = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (s < 0) {
        _last_error = errno;
        _sock = 0;
        return ec_inval;
    }
    if (s == 0) {
        // 0 means "no socket" here; keep the connection on another number.
        const int moved = ::fcntl(s, F_DUPFD_CLOEXEC, 3);
        const int why = errno;
        ::close(s);
        if (moved < 0) {
            _last_error = why;
            _sock = 0;
            return ec_inval;
        }
        s = moved;
    }
    if (_keepalive[0] > 0) {
        const int one = 1;
        ::setsockopt(s, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof one);
        ::setsockopt(s, IPPROTO_TCP, TCP_KEEPIDLE, &_keepalive[0], sizeof _keepalive[0]);
        ::setsockopt(s, IPPROTO_TCP, TCP_KEEPINTVL, &_keepalive[1], sizeof _keepalive[1]);
        ::setsockopt(s, IPPROTO_TCP, TCP_KEEPCNT, &_keepalive[2], sizeof _keepalive[2]);
    }
    int err = 0;
    const sockaddr* to = reinterpret_cast<const sockaddr*>(&_serv);
    if (_connect_ms <= 0 && !_cancel) {
        if (::connect(s, to, sizeof _serv) != 0)
            err = errno;
    } else {
        // The socket returns to blocking mode afterwards; the stream decides
        // for itself whether it polls.
        set_nonblocking(s, true);
        if (::connect(s, to, sizeof _serv) != 0)
            err = errno == EINPROGRESS || errno == EINTR ? finish_connect(s, _connect_ms, _cancel) : errno;
        set_nonblocking(s, false);
    }
    if (err != 0) {
        ::close(s);
        _last_error = err;
        _sock = 0;
        _connected = 0;
        return ec_inval;
    }
    // Requests are single small packets answered at once.
    const int one = 1;
    ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    _last_error = 0;
    _sock = s;
    _connected = 1;
    _rst.sock(s);
    return 0;
}

int RPCClient::disconnect()
{
    if (_sock > 0)
        ::close(_sock);
    _sock = 0;
    _connected = 0;
    _rst.sock(0);
    return 0;
}

} // namespace ZEL
