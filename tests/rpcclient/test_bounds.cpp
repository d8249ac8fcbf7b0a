// The stream's bounded mode over local socket pairs: a deadline or a cancel
// flag ends every kind of wait, and large packets still travel whole.
#include "bounds.h"
#include "rpc2packet.h"
#include "rpc2stream.h"
#include "rpcctx.h"
#include "socketpair.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/ssl.h>

#include <memory>
#include <numeric>
#include <optional>

using namespace ZEL;
using namespace zel5test;

namespace {

// A stream on the near end of a socket pair; still waiting after 5 s, its socket is shut down.
struct StreamOnPair {
    SocketPair sp;
    RPC2Stream stream{sp.release(0), nullptr};
    Watchdog dog{5000, "the stream", [fd = stream.sock()] { ::shutdown(fd, SHUT_RDWR); }};
};

bool nonBlocking(int fd)
{
    return (::fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

void smallSendBuffer(int fd)
{
    const int small = 4096;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
}

// The largest value one packet holds.
Bytes bigValue()
{
    Bytes big(rpc2_max_attr_region - 4 - 8);
    std::iota(big.begin(), big.end(), 0);
    return big;
}

// One packet: the largest value, then the int 9.
int sendBig(RPC2Stream& s)
{
    const Bytes big = bigValue();
    RPC2Packet p;
    p.code(rc_session_data);
    p.put_data(reinterpret_cast<const char*>(big.data()), static_cast<int>(big.size()));
    p.put_data("\0\0\0\x09", 4);
    s << p;
    return 0;
}

Bytes blob(RPC2Stream& s)
{
    char* data = nullptr;
    int len = 0;
    const int r = s.data_get_new(data, len);
    Bytes out(data, data + (r == 0 ? len : 0));
    delete[] data;
    return out;
}

SSL_CTX* serverCtx()
{
    static const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> ctx(RPCCtx::new_server_adh_ctx(rsr_ssl_tls1),
                                                                   SSL_CTX_free);
    return ctx.get();
}

// Every kind of wait, after what the peer sent first, and its result when it fails.
struct Wait {
    const char* name;
    const char* sent;
    int (*run)(RPC2Stream&);
    int failed;
};

const Wait waits[] = {
    {"listen, nothing sent", "", [](RPC2Stream& s) { return s.listen(); }, 0},
    {"listen, half a header", "C8 23", [](RPC2Stream& s) { return s.listen(); }, 0},
    {"recv_packet, a header", "C8 23 00 10", [](RPC2Stream& s) { return s.recv_packet(); }, ec_inval},
    {"data_get<int>, a header", "C8 23 00 10", [](RPC2Stream& s) { int v; return s.data_get(v); }, ec_inval},
    {"data_get<long long>, part of the body", "C8 23 00 10 05 00 00 08 00",
     [](RPC2Stream& s) { long long v; return s.data_get(v); }, ec_inval},
    {"data_get_new, nothing sent", "",
     [](RPC2Stream& s) { char* d = nullptr; int n = 0; const int r = s.data_get_new(d, n); delete[] d; return r; },
     ec_inval},
    {"send, peer reads nothing", "", [](RPC2Stream& s) { smallSendBuffer(s.sock()); return sendBig(s); }, 0},
    {"TLS client handshake", "", [](RPC2Stream& s) { return s.ssl_connect(rsr_ssl_tls1); }, ec_access},
    {"TLS server handshake", "", [](RPC2Stream& s) { return s.__ssl_accept(serverCtx(), rsr_ssl_tls1); },
     ec_access},
};

} // namespace

TEST(BoundedStream, EveryWaitEndsAtTheDeadlineOrSoonAfterTheCancelFlagIsSet)
{
    for (const bool byFlag : {false, true}) {
        for (const Wait& w : waits) {
            SCOPED_TRACE(std::string(w.name) + (byFlag ? ", cancel flag without deadline" : ", deadline"));
            StreamOnPair s;
            s.sp.writePeer(hexBytes(w.sent));
            std::atomic<bool> flag{false};
            std::optional<Canceller> canceller;
            const auto t0 = Clock::now();
            if (byFlag) {
                s.stream.set_cancel(&flag);
                canceller.emplace(flag, 100);
            } else {
                s.stream.set_timeout(100);
            }
            EXPECT_EQ(w.run(s.stream), w.failed);
            EXPECT_TRUE(byFlag ? canceller->endedSoonAfterSet() : endedAtBound(t0, 100));
            EXPECT_EQ(s.stream.error_flags_word(), RPC2Stream::ef_socket | (byFlag ? 0 : RPC2Stream::ef_timedout));
            EXPECT_EQ(s.stream.error(), byFlag ? ec_pipe : ec_timedout);
            EXPECT_EQ(s.stream.timed_out(), !byFlag);
        }
    }
}

TEST(BoundedStream, TricklingPeerDoesNotStretchTheDeadline)
{
    StreamOnPair s;
    // 256 bytes announced, one every 20 ms: five seconds if each renewed the wait.
    const Bytes wire = concat({hexBytes("C8 23 01 00"), Bytes(252, 0)});
    std::jthread writer([&](std::stop_token stop) {
        for (unsigned char b : wire)
            if (::send(s.sp.peer(), &b, 1, MSG_NOSIGNAL) != 1 || !delayPassed(stop, 20))
                return;
    });
    const auto t0 = Clock::now();
    s.stream.set_timeout(200);
    EXPECT_EQ(s.stream.listen(), 0);
    EXPECT_TRUE(endedAtBound(t0, 200));
    EXPECT_TRUE(s.stream.timed_out());
}

TEST(BoundedStream, SocketTurnsNonBlockingOnceBoundedAndADisarmedDeadlineIsGone)
{
    StreamOnPair s;
    s.stream.set_timeout(0);
    s.stream.set_timeout(-5);
    s.stream.set_cancel(nullptr);
    EXPECT_FALSE(nonBlocking(s.stream.sock())) << "an unbounded stream needs its blocking socket";
    s.stream.set_timeout(1);
    EXPECT_TRUE(nonBlocking(s.stream.sock()));
    // Past, but disarmed: the next read succeeds.
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    s.stream.set_timeout(0);
    s.sp.writePeer(wireData({"0000002A"}));
    EXPECT_EQ(blob(s.stream), hexBytes("0000002A"));
    EXPECT_TRUE(s.stream.good());
    // A socket handed over later follows the mode.
    SocketPair next;
    const int old = s.stream.sock();
    s.stream.sock(next.release(0));
    ::close(old);
    EXPECT_TRUE(nonBlocking(s.stream.sock()));
}

TEST(BoundedStream, LargePacketsTravelWholeInPiecesPlainAndOverTls)
{
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "TLS" : "plain");
        SocketPair sp;
        smallSendBuffer(sp.near());
        smallSendBuffer(sp.peer());
        RPC2Stream sender(sp.release(0), nullptr);
        RPC2Stream receiver(sp.release(1), nullptr);
        Watchdog dog(8000, "the packet", [a = sender.sock(), b = receiver.sock()] {
            ::shutdown(a, SHUT_RDWR);
            ::shutdown(b, SHUT_RDWR);
        });
        sender.set_timeout(5000);
        receiver.set_timeout(5000);
        if (tls) {
            int accepted = -1;
            std::jthread server([&] { accepted = receiver.__ssl_accept(serverCtx(), rsr_ssl_tls1); });
            EXPECT_EQ(sender.ssl_connect(rsr_ssl_tls1), 0);
            server.join();
            ASSERT_EQ(accepted, 0);
        }
        Bytes got;
        int nine = 0;
        std::jthread reader([&] {
            got = blob(receiver);
            receiver.data_get(nine);
        });
        sendBig(sender);
        reader.join();
        EXPECT_TRUE(sender.good());
        EXPECT_TRUE(receiver.good());
        EXPECT_EQ(got, bigValue());
        EXPECT_EQ(nine, 9);
    }
}
