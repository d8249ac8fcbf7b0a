// The stream's bounded mode over local socket pairs: a deadline ends a wait
// anywhere in a packet, in a send and in either half of the TLS handshake; a
// cancel flag ends a wait that has no deadline; large packets still travel
// whole in pieces, plain and over TLS.
#include "bounds.h"
#include "rpc2packet.h"
#include "rpc2stream.h"
#include "rpcctx.h"
#include "socketpair.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <openssl/ssl.h>

#include <functional>
#include <numeric>
#include <thread>

using namespace ZEL;
using namespace zel5test;

namespace {

// A stream on the near end of a fresh socket pair; the stream closes that
// end. A stream still waiting after 5 s has its socket shut down.
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

// One data packet carrying the largest value a packet can hold, then 9.
Bytes bigValue()
{
    Bytes big(rpc2_max_attr_region - 4 - 8);
    std::iota(big.begin(), big.end(), 0);
    return big;
}

void putBig(RPC2Packet& p)
{
    const Bytes big = bigValue();
    p.code(rc_session_data);
    p.put_data(reinterpret_cast<const char*>(big.data()), static_cast<int>(big.size()));
    p.put_data("\0\0\0\x09", 4);
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

// The ways of waiting for input, each with the result of a failed wait.
struct Reader {
    const char* name;
    std::function<int(RPC2Stream&)> read;
    int failed;
};

const Reader readers[] = {
    {"listen", [](RPC2Stream& s) { return s.listen(); }, 0},
    {"data_get<int>", [](RPC2Stream& s) { int v; return s.data_get(v); }, ec_inval},
    {"data_get<long long>", [](RPC2Stream& s) { long long v; return s.data_get(v); }, ec_inval},
    {"data_get_new", [](RPC2Stream& s) { char* d = nullptr; int n = 0; const int r = s.data_get_new(d, n); delete[] d; return r; },
     ec_inval},
};

void expectTimedOut(const RPC2Stream& s)
{
    EXPECT_EQ(s.error_flags_word(), RPC2Stream::ef_timedout | RPC2Stream::ef_socket);
    EXPECT_EQ(s.error(), ec_timedout);
    EXPECT_TRUE(s.timed_out());
    EXPECT_NE(s.bad(), 0);
}

} // namespace

TEST(BoundedStream, SocketTurnsNonBlockingOnlyOnceABoundOrFlagIsGiven)
{
    StreamOnPair s;
    s.stream.set_timeout(0);
    s.stream.set_timeout(-5);
    s.stream.set_cancel(nullptr);
    EXPECT_FALSE(nonBlocking(s.stream.sock())) << "an unbounded stream must keep its blocking socket";
    s.stream.set_timeout(1000);
    EXPECT_TRUE(nonBlocking(s.stream.sock()));
    // A socket handed over later follows the mode, even with the bound disarmed.
    s.stream.set_timeout(0);
    SocketPair next;
    const int old = s.stream.sock();
    s.stream.sock(next.release(0));
    ::close(old);
    EXPECT_TRUE(nonBlocking(s.stream.sock()));

    StreamOnPair flagged;
    const std::atomic<bool> flag{false};
    flagged.stream.set_cancel(&flag);
    EXPECT_TRUE(nonBlocking(flagged.stream.sock()));
}

TEST(BoundedStream, StallAnywhereInAPacketEndsAtTheDeadline)
{
    // Nothing, half a header, a header and silence, part of the body.
    for (const char* sent : {"", "C8 23", "C8 23 00 10", "C8 23 00 10 05 00 00 08 00"}) {
        for (const Reader& r : readers) {
            SCOPED_TRACE(std::string(r.name) + " after \"" + sent + "\"");
            StreamOnPair s;
            s.sp.writePeer(hexBytes(sent));
            const auto t0 = Clock::now();
            s.stream.set_timeout(100);
            EXPECT_EQ(r.read(s.stream), r.failed);
            EXPECT_TRUE(endedAtBound(t0, 100));
            expectTimedOut(s.stream);
        }
    }
}

TEST(BoundedStream, RecvPacketSaysNotYetUntilTheDeadline)
{
    StreamOnPair s;
    const auto t0 = Clock::now();
    s.stream.set_timeout(200);
    int rounds = 0, r;
    while ((r = s.stream.recv_packet()) == ec_timedout && rounds < 100) {
        ++rounds;
        EXPECT_TRUE(s.stream.good()) << "a quiet round is no failure";
    }
    EXPECT_EQ(r, ec_inval);
    EXPECT_GE(rounds, 2) << "rounds longer than 50 ms would not see a cancel flag in time";
    EXPECT_TRUE(endedAtBound(t0, 200));
    expectTimedOut(s.stream);

    // Once the header has begun, one call waits for the rest, up to the deadline.
    StreamOnPair header;
    header.sp.writePeer(hexBytes("C8 23 00 10"));
    const auto t1 = Clock::now();
    header.stream.set_timeout(200);
    EXPECT_EQ(header.stream.recv_packet(), ec_inval);
    EXPECT_TRUE(endedAtBound(t1, 200));
    expectTimedOut(header.stream);
}

TEST(BoundedStream, TricklingPeerDoesNotStretchTheDeadline)
{
    StreamOnPair s;
    // 256 bytes announced, one byte every 20 ms: five seconds if each byte
    // renewed the wait.
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
    expectTimedOut(s.stream);
}

TEST(BoundedStream, WaitEndsAfterTheBoundIsDisarmedOnlyWhenInputComes)
{
    StreamOnPair s;
    s.stream.set_timeout(50);
    s.stream.set_timeout(0);
    std::jthread writer([&](std::stop_token stop) {
        if (delayPassed(stop, 150))
            s.sp.writePeer(wireData({"0000002A"}));
    });
    EXPECT_EQ(blob(s.stream), hexBytes("0000002A"));
    EXPECT_TRUE(s.stream.good());
}

TEST(BoundedStream, SendThatCannotGoOutEndsAtTheDeadline)
{
    StreamOnPair s;
    smallSendBuffer(s.stream.sock());
    RPC2Packet p;
    putBig(p);
    const auto t0 = Clock::now();
    s.stream.set_timeout(200);
    s.stream << p; // the peer reads nothing
    EXPECT_TRUE(endedAtBound(t0, 200));
    expectTimedOut(s.stream);
    EXPECT_GT(s.sp.readPeer().size(), 0u) << "what fitted should have gone out";
}

TEST(BoundedStream, TlsHandshakeWithASilentPeerEndsAtTheDeadline)
{
    SSL_CTX* ctx = RPCCtx::new_server_adh_ctx(rsr_ssl_tls1);
    ASSERT_NE(ctx, nullptr);
    for (const bool client : {true, false}) {
        SCOPED_TRACE(client ? "client" : "server");
        StreamOnPair s;
        const auto t0 = Clock::now();
        s.stream.set_timeout(200);
        EXPECT_EQ(client ? s.stream.ssl_connect(rsr_ssl_tls1) : s.stream.__ssl_accept(ctx, rsr_ssl_tls1), ec_access);
        EXPECT_TRUE(endedAtBound(t0, 200));
        expectTimedOut(s.stream);
    }
    SSL_CTX_free(ctx);
}

TEST(BoundedStream, LargePacketsTravelWholeInPiecesPlainAndOverTls)
{
    SSL_CTX* ctx = RPCCtx::new_server_adh_ctx(rsr_ssl_tls1);
    ASSERT_NE(ctx, nullptr);
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
        // Both sides bounded, so that a fault fails the test instead of hanging it.
        sender.set_timeout(5000);
        receiver.set_timeout(5000);
        if (tls) {
            int accepted = -1;
            std::thread server([&] { accepted = receiver.__ssl_accept(ctx, rsr_ssl_tls1); });
            const int connected = sender.ssl_connect(rsr_ssl_tls1);
            server.join();
            ASSERT_EQ(connected, 0);
            ASSERT_EQ(accepted, 0);
        }
        Bytes got;
        int nine = 0;
        std::thread reader([&] {
            got = blob(receiver);
            receiver.data_get(nine);
        });
        RPC2Packet p;
        putBig(p);
        sender << p;
        reader.join();
        EXPECT_TRUE(sender.good());
        EXPECT_TRUE(receiver.good());
        EXPECT_EQ(got, bigValue());
        EXPECT_EQ(nine, 9);
    }
    SSL_CTX_free(ctx);
}

TEST(BoundedStream, CancelFlagEndsAWaitThatHasNoDeadline)
{
    struct Case {
        const char* name;
        const char* sent; // by the peer before the wait
        std::function<int(RPC2Stream&)> wait;
        int failed;
    };
    const Case cases[] = {
        {"listen on a quiet line", "", [](RPC2Stream& s) { return s.listen(); }, 0},
        {"data_get after a header", "C8 23 00 10", [](RPC2Stream& s) { int v; return s.data_get(v); }, ec_inval},
        {"TLS handshake", "", [](RPC2Stream& s) { return s.ssl_connect(rsr_ssl_tls1); }, ec_access},
        {"send to a peer that reads nothing", "",
         [](RPC2Stream& s) {
             smallSendBuffer(s.sock());
             RPC2Packet p;
             putBig(p);
             s << p;
             return 0;
         },
         0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        StreamOnPair s;
        s.sp.writePeer(hexBytes(c.sent));
        std::atomic<bool> flag{false};
        s.stream.set_cancel(&flag);
        Canceller canceller(flag, 100);
        EXPECT_EQ(c.wait(s.stream), c.failed);
        EXPECT_TRUE(canceller.endedSoonAfterSet());
        EXPECT_EQ(s.stream.error(), ec_pipe);
        EXPECT_NE(s.stream.error_flags_word() & RPC2Stream::ef_socket, 0);
        EXPECT_FALSE(s.stream.timed_out());
    }
}
