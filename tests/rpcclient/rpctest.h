// Protocol library test helpers: wire images in hexadecimal, a local socket pair, bounded waits.
#ifndef ZEL5_TESTS_RPCTEST_H
#define ZEL5_TESTS_RPCTEST_H

#include "loopback.h" // sockets, threads and gtest
#include "rpc2stream.h"
#include "rpcctx.h"

#include <openssl/ssl.h>

#include <iomanip>
#include <memory>
#include <sstream>
#include <utility>

namespace zel5test {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

// "C9 23 00 04" -> {0xC9, 0x23, 0x00, 0x04}
inline Bytes hexBytes(const std::string& hex)
{
    Bytes out;
    std::istringstream in(hex);
    for (std::string pair; in >> std::setw(2) >> pair;)
        out.push_back(static_cast<unsigned char>(std::stoi(pair, nullptr, 16)));
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A packet built by hand: packets and attributes share the head (code, byte, big-endian size counting the head).
inline Bytes wirePacket(int code, const std::vector<std::pair<int, Bytes>>& attrs)
{
    const auto sized = [](int b0, int b1, const Bytes& body) {
        const std::size_t n = body.size() + 4;
        return concat({{Bytes::value_type(b0), Bytes::value_type(b1), Bytes::value_type(n >> 8), Bytes::value_type(n)},
                       body});
    };
    Bytes body;
    for (const auto& [c, payload] : attrs)
        body = concat({body, sized(c, 0, payload)});
    return sized(code, 0x23, body);
}

// A data packet of values given in hexadecimal.
inline Bytes wireData(std::initializer_list<const char*> values)
{
    std::vector<std::pair<int, Bytes>> attrs;
    for (const char* v : values)
        attrs.emplace_back(ZEL::ra_data, hexBytes(v));
    return wirePacket(ZEL::rc_session_data, attrs);
}

inline long long msSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// A wait started at t0 ended neither before its bound nor far after it.
inline ::testing::AssertionResult endedAtBound(Clock::time_point t0, long long boundMs)
{
    const long long ms = msSince(t0);
    return ms >= boundMs && ms < 2000 ? ::testing::AssertionSuccess()
                                      : ::testing::AssertionFailure() << "ended after " << ms << " ms, bound " << boundMs;
}

// Sets flag afterMs from now, from its own thread.
class Canceller {
public:
    Canceller(std::atomic<bool>& flag, int afterMs)
        : thread([this, &flag, afterMs](std::stop_token stop) {
              if (!delayPassed(stop, afterMs))
                  return;
              setAt.store(Clock::now().time_since_epoch().count());
              flag.store(true, std::memory_order_release);
          }) {}
    // Within a poll round, and room for a loaded machine, of the flag being set.
    ::testing::AssertionResult endedSoonAfterSet() const
    {
        const auto at = setAt.load();
        const long long ms = at ? msSince(Clock::time_point(Clock::duration(at))) : -1;
        return ms >= 0 && ms <= 200 ? ::testing::AssertionSuccess()
                                    : ::testing::AssertionFailure() << "ended " << ms << " ms after the flag (-1: before)";
    }

private:
    std::atomic<Clock::rep> setAt{0};
    std::jthread thread; // last: starts once setAt exists
};

// Two connected local sockets; an end handed to a stream, which closes it, is released first.
struct SocketPair {
    int fds[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fds); }
    ~SocketPair() { ::close(fds[0]); ::close(fds[1]); }
    int release(int end) { return std::exchange(fds[end], -1); }
    void closePeer() { ::close(release(1)); }

    void writePeer(const Bytes& bytes) const
    {
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = ::send(fds[1], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            done += static_cast<std::size_t>(n);
        }
    }

    // What is queued at the peer; a local pair's writes are there as soon as they return.
    Bytes readPeer() const
    {
        Bytes out(1 << 16);
        const ssize_t n = ::recv(fds[1], out.data(), out.size(), MSG_DONTWAIT);
        out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return out;
    }
};

// A stream on the near end of a fresh pair; still waiting after 5 s, its socket is shut down.
struct StreamOnPair {
    SocketPair sp;
    ZEL::RPC2Stream stream{sp.release(0), nullptr};
    Watchdog dog{5000, "the stream", [fd = stream.sock()] { ::shutdown(fd, SHUT_RDWR); }};
};

template <typename T> T next(ZEL::RPC2Stream& s, int expected = 0)
{
    T v{};
    EXPECT_EQ(s.data_get(v), expected);
    return v;
}

// One blob read with data_get_new; the stream's array is freed.
inline Bytes blob(ZEL::RPC2Stream& s, int expected = 0)
{
    char* data = nullptr;
    int len = 0;
    const int r = s.data_get_new(data, len);
    EXPECT_EQ(r, expected);
    const std::unique_ptr<char[]> owned(data);
    return Bytes(data, data + (data && r == 0 ? len : 0));
}

inline SSL_CTX* serverCtx()
{
    static const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> ctx(ZEL::RPCCtx::new_server_adh_ctx(ZEL::rsr_ssl_tls1),
                                                                   SSL_CTX_free);
    return ctx.get();
}

} // namespace zel5test

#endif
