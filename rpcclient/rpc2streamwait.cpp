// The stream's bounded mode: once a deadline was armed or a cancel flag
// given, the socket is non-blocking and every transfer waits in poll rounds
// of at most 50 ms, so that neither a silent server nor a user who gave up
// is waited for longer than asked.
#include "rpc2stream.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>

namespace ZEL {

namespace {
constexpr int poll_round_ms = 50;
}

void RPC2Stream::set_timeout(int ms)
{
    if (ms <= 0) {
        _has_deadline = false;
        return;
    }
    _deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    _has_deadline = true;
    make_nonblocking();
}

void RPC2Stream::set_cancel(const std::atomic<bool>* flag)
{
    _cancel = flag;
    if (flag)
        make_nonblocking();
}

void RPC2Stream::stop_waiting()
{
    _deadline = std::chrono::steady_clock::now();
    _has_deadline = true;
    make_nonblocking();
}

void RPC2Stream::make_nonblocking()
{
    _nonblocking = true;
    // sock() applies it to the next socket; a socket already switched is
    // not asked again at every call's bound.
    if (sc <= 0 || sc == _nonblocking_sock)
        return;
    const int fl = ::fcntl(sc, F_GETFL);
    if (fl >= 0 && !(fl & O_NONBLOCK))
        ::fcntl(sc, F_SETFL, fl | O_NONBLOCK);
    _nonblocking_sock = sc;
}

int RPC2Stream::round_ms()
{
    if (_cancel && _cancel->load(std::memory_order_acquire)) {
        flags |= ef_socket;
        errcode = ec_pipe;
        return -1;
    }
    if (!_has_deadline)
        return poll_round_ms;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(_deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        flags |= ef_timedout | ef_socket;
        errcode = ec_timedout;
        return -1;
    }
    return static_cast<int>(std::min<long long>(poll_round_ms, left.count()));
}

int RPC2Stream::wait_ready(short events)
{
    // Without a socket there is nothing to wait for, only a failure.
    if (sc <= 0) {
        flags |= ef_socket;
        errcode = ec_inval;
        return ec_inval;
    }
    for (;;) {
        const int ms = round_ms();
        if (ms < 0)
            return errcode;
        pollfd p{sc, events, 0};
        const int r = ::poll(&p, 1, ms);
        // Ready, or a hang-up or error that the transfer itself will report.
        if (r > 0)
            return 0;
        if (r < 0 && errno != EINTR) {
            flags |= ef_socket;
            errcode = ec_inval;
            return ec_inval;
        }
    }
}

int RPC2Stream::recv_polled(char* data, int len)
{
    int off = 0;
    while (off < len) {
        int w;
        if (ssl_sock) {
            ERR_clear_error();
            const int r = SSL_read(ssl_sock, data + off, len - off);
            if (r >= 1) {
                off += r;
                continue;
            }
            const int e = SSL_get_error(ssl_sock, r);
            if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)
                return -ec_inval;
            // Retried at the same place in the buffer: what came is kept.
            w = ssl_wait(e);
        } else {
            const ssize_t r = ::recv(sc, data + off, static_cast<size_t>(len - off), MSG_DONTWAIT);
            if (r > 0) {
                off += static_cast<int>(r);
                continue;
            }
            if (r == 0)
                return off; // the peer closed
            if (errno == EINTR)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK)
                return off > 0 ? off : -1;
            w = wait_ready(POLLIN);
        }
        if (w == ec_timedout || w == ec_pipe)
            return -w;
        if (w != 0)
            return off > 0 ? off : -1;
    }
    return len;
}

int RPC2Stream::send_polled(const char* data, int len)
{
    int off = 0;
    while (off < len) {
        int w;
        if (ssl_sock) {
            ERR_clear_error();
            const int r = SSL_write(ssl_sock, data + off, len - off);
            if (r >= 1) {
                off += r;
                continue;
            }
            const int e = SSL_get_error(ssl_sock, r);
            if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)
                return off > 0 ? off : -ec_inval;
            // The retry must offer the same bytes again.
            w = ssl_wait(e);
        } else {
            const ssize_t r = ::send(sc, data + off, static_cast<size_t>(len - off), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (r > 0) {
                off += static_cast<int>(r);
                continue;
            }
            if (r < 0 && errno == EINTR)
                continue;
            if (r == 0 || (errno != EAGAIN && errno != EWOULDBLOCK))
                return off > 0 ? off : -1;
            w = wait_ready(POLLOUT);
        }
        if (w != 0)
            return off > 0 ? off : -w;
    }
    return len;
}

int RPC2Stream::ssl_wait(int ssl_error)
{
    if (!bounded())
        return -1;
    if (ssl_error == SSL_ERROR_WANT_READ)
        return wait_ready(POLLIN);
    if (ssl_error == SSL_ERROR_WANT_WRITE)
        return wait_ready(POLLOUT);
    return -1;
}

} // namespace ZEL
