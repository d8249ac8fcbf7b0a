// The packet stream on local sockets: typed values, receive failures, its buffer, TLS, deadlines and cancelling.
#include "rpc2packet.h"
#include "rpctest.h"

#include <csignal>
#include <numeric>
#include <optional>

using namespace ZEL;
using namespace zel5test;

namespace {

void smallSendBuffer(int fd) { const int small = 4096; ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small); }

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
    RPC2Packet p;
    p.code(rc_session_data);
    p.put_data(reinterpret_cast<const char*>(bigValue().data()), static_cast<int>(bigValue().size()));
    p.put_data("\0\0\0\x09", 4);
    s << p;
    return 0;
}

// A TLS channel between two streams on blocking sockets.
bool tlsBetween(RPC2Stream& client, RPC2Stream& server)
{
    int accepted = -1;
    std::jthread other([&] { accepted = server.__ssl_accept(serverCtx(), rsr_ssl_tls1); });
    const int connected = client.ssl_connect(rsr_ssl_tls1);
    other.join();
    return connected == 0 && accepted == 0;
}

} // namespace

TEST(StreamOutput, ValuesLeaveAsOneDataPacketAndReadBackAsPut)
{
    StreamOnPair s;
    ASSERT_TRUE(s.stream.data_put<int>(1) == 0 && s.stream.data_put<int>(-2) == 0);
    EXPECT_TRUE(s.sp.readPeer().empty()) << "values went out before end_output";
    s.stream.end_output();
    const Bytes ints = s.sp.readPeer();
    EXPECT_EQ(ints, hexBytes("C8 23 00 14 05 00 00 08 00 00 00 01 05 00 00 08 FF FF FF FE"));
    s.stream.end_output();
    EXPECT_TRUE(s.sp.readPeer().empty()) << "an empty packet";

    s.sp.writePeer(ints);
    EXPECT_EQ(next<int>(s.stream), 1);
    EXPECT_EQ(next<long>(s.stream), -2);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, ReadsEveryTypedValueAcrossPacketsUntilAReplyWithoutData)
{
    StreamOnPair s;
    s.sp.writePeer(concat({wireData({"FFFFFFBB", "FFFFFFFE"}),
                           wireData({"0000000100000002", "FFFFFFFFFFFFFFFE", "C004000000000000", "616263"}),
                           // Control attributes between the values stay for the session to inspect.
                           wirePacket(rc_session_data, {{ra_termination, hexBytes("00000004")},
                                                        {ra_data, hexBytes("FFFFFFFE")},
                                                        {ra_call, hexBytes("FFFFBFDA")},
                                                        {ra_data, {'L', 'o', 'c', 'a', 'l'}},
                                                        {ra_call, hexBytes("00000001")},
                                                        {ra_data, Bytes(300, 'x')}}),
                           wireData({"00000005", "00000006"}), wireData({}),
                           hexBytes("CB 23 00 0C 04 00 00 08 00 00 00 06")}));
    EXPECT_EQ(next<int>(s.stream), -69);
    EXPECT_EQ(next<unsigned int>(s.stream), 4294967294u);
    // 64-bit values: high word first.
    EXPECT_EQ(next<long long>(s.stream), 0x100000002LL);
    EXPECT_EQ(next<long long>(s.stream), -2LL);
    EXPECT_EQ(next<double>(s.stream), -2.5);
    EXPECT_EQ(blob(s.stream), hexBytes("61 62 63"));

    EXPECT_EQ(next<int>(s.stream), -2);
    EXPECT_EQ(next<std::string>(s.stream), "Local");
    EXPECT_EQ(next<std::string>(s.stream), std::string(300, 'x'));
    int v = 0;
    EXPECT_TRUE(s.stream.packet().find(ra_termination));
    EXPECT_EQ(s.stream.packet().get_attr(ra_call, v), 0);
    EXPECT_EQ(v, -16422) << "the first of a repeated control attribute";

    // end_input drops what is left of the current packet.
    EXPECT_EQ(next<int>(s.stream), 5);
    EXPECT_EQ(s.stream.end_input(), 0);
    next<int>(s.stream, ec_noent);
    next<int>(s.stream, ec_badmsg); // the termination stays for the session to inspect
    EXPECT_EQ(s.stream.packet().code(), rc_session_termination);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamReceive, ShortOrMalformedPacketsAreSessionErrorsThatStay)
{
    // Nothing, size 3, 100 bytes announced and 10 sent, an attribute overrunning its packet.
    for (const char* hex : {"", "C8 23 00 03 05 00 00 08", "C8 23 00 64 05 05 05 05 05 05 05 05 05 05",
                            "C8 23 00 0C 05 00 00 09 00 00 00 01"}) {
        SCOPED_TRACE(hex);
        StreamOnPair s;
        s.sp.writePeer(concat({wireData({"00000029"}), hexBytes(hex)}));
        s.sp.closePeer(); // bounds every read the stream might wrongly attempt
        EXPECT_EQ(next<int>(s.stream), 41);
        next<int>(s.stream, ec_inval);
        EXPECT_EQ(s.stream.error_flags_word(), RPC2Stream::ef_session);
        // Discarding packets or reading again never clears the flags.
        s.stream.end_input();
        s.stream.clear();
        EXPECT_EQ(s.stream.error_flags_word(), RPC2Stream::ef_session);
        EXPECT_EQ(s.stream.recv_packet(), ec_inval);
        EXPECT_EQ(s.stream.listen(), 0);
    }

    // A quiet line is "not yet".
    StreamOnPair quiet;
    EXPECT_EQ(quiet.stream.recv_packet(), ec_timedout);
    EXPECT_TRUE(quiet.stream.good());
}

TEST(StreamBuffer, APacketHeldInTheStreamsBufferOutlivesTheBuffersReuse)
{
    StreamOnPair s;
    s.sp.writePeer(wireData({"00000001", "00000002", "00000003"}));
    EXPECT_EQ(next<int>(s.stream), 1);
    // Sending writes the buffer the packet was received into.
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(s.stream.data_put<int>(0x0A0B0C0D), 0);
    s.stream.end_output();
    EXPECT_EQ(s.sp.readPeer(), wireData({"0A0B0C0D", "0A0B0C0D", "0A0B0C0D", "0A0B0C0D"}));
    EXPECT_EQ(next<int>(s.stream), 2);
    EXPECT_EQ(next<int>(s.stream), 3);

    // Receiving a next packet, here one never whole, leaves the unread value as it was.
    s.sp.writePeer(wireData({"00000007", "00000008"}));
    EXPECT_EQ(next<int>(s.stream), 7);
    s.sp.writePeer(concat({hexBytes("C8 23 00 64"), Bytes(40, 0xFF)}));
    s.sp.closePeer();
    EXPECT_EQ(s.stream.recv_packet(), ec_inval);
    char buf[8];
    int len = sizeof buf;
    ASSERT_EQ(s.stream.packet().get_data(buf, len), 0);
    EXPECT_EQ(std::string(buf, len), std::string("\0\0\0\x08", 4));
}

TEST(StreamTls, AQuietChannelIsNotYetWhatCameIsReadAndAPeerThatLeftFailsTheWriteWithoutASignal)
{
    SocketPair sp;
    RPC2Stream client{sp.release(0), nullptr};
    auto server = std::make_unique<RPC2Stream>(sp.release(1), nullptr);
    Watchdog dog{5000, "the TLS pair", [fd = client.sock()] { ::shutdown(fd, SHUT_RDWR); }};
    ASSERT_TRUE(tlsBetween(client, *server));
    const auto t0 = Clock::now();
    EXPECT_EQ(client.recv_packet(), ec_timedout);
    EXPECT_LT(msSince(t0), 2000) << "looking for input waited";
    for (int v : {7, 8})
        server->data_put<int>(v), server->end_output();
    EXPECT_EQ(next<int>(client), 7);
    EXPECT_EQ(next<int>(client), 8);
    EXPECT_TRUE(client.good());

    static std::atomic<int> raised{0};
    const auto old = std::signal(SIGPIPE, [](int) { raised.fetch_add(1); });
    server.reset(); // closes its end
    RPC2Packet p;
    p.code(rc_session_data);
    p.put_data(1);
    for (int i = 0; i < 3; ++i)
        client << p;
    std::signal(SIGPIPE, old);
    EXPECT_EQ(raised.load(), 0);
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
    {"recv_packet, a header", "C8 23 00 10", [](RPC2Stream& s) { return s.recv_packet(); }, ec_inval},
    {"data_get<long long>, part of the body", "C8 23 00 10 05 00 00 08 00",
     [](RPC2Stream& s) { long long v; return s.data_get(v); }, ec_inval},
    {"send, peer reads nothing", "", [](RPC2Stream& s) { smallSendBuffer(s.sock()); return sendBig(s); }, 0},
    {"TLS client handshake", "", [](RPC2Stream& s) { return s.ssl_connect(rsr_ssl_tls1); }, ec_access},
    {"TLS server handshake", "", [](RPC2Stream& s) { return s.__ssl_accept(serverCtx(), rsr_ssl_tls1); },
     ec_access},
};

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
            if (byFlag)
                s.stream.set_cancel(&flag), canceller.emplace(flag, 100);
            else
                s.stream.set_timeout(100);
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
            if (::send(s.sp.fds[1], &b, 1, MSG_NOSIGNAL) != 1 || !delayPassed(stop, 20))
                return;
    });
    const auto t0 = Clock::now();
    s.stream.set_timeout(200);
    EXPECT_EQ(s.stream.listen(), 0);
    EXPECT_TRUE(endedAtBound(t0, 200));
    EXPECT_TRUE(s.stream.timed_out());
}

TEST(BoundedStream, ADisarmedDeadlineIsGone)
{
    StreamOnPair s;
    s.stream.set_timeout(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(5)); // past, but disarmed next
    s.stream.set_timeout(0);
    s.sp.writePeer(wireData({"0000002A"}));
    EXPECT_EQ(next<int>(s.stream), 42);
    EXPECT_TRUE(s.stream.good());
}

TEST(BoundedStream, LargePacketsTravelWholeInPiecesPlainAndOverTls)
{
    for (const bool tls : {false, true}) {
        SCOPED_TRACE(tls ? "TLS" : "plain");
        SocketPair sp;
        smallSendBuffer(sp.fds[0]);
        smallSendBuffer(sp.fds[1]);
        RPC2Stream sender(sp.release(0), nullptr), receiver(sp.release(1), nullptr);
        Watchdog dog(8000, "the packet", [a = sender.sock(), b = receiver.sock()] {
            ::shutdown(a, SHUT_RDWR), ::shutdown(b, SHUT_RDWR);
        });
        sender.set_timeout(5000);
        receiver.set_timeout(5000);
        ASSERT_TRUE(!tls || tlsBetween(sender, receiver));
        Bytes got;
        int nine = 0;
        std::jthread reader([&] {
            got = blob(receiver);
            nine = next<int>(receiver);
        });
        sendBig(sender);
        reader.join();
        EXPECT_TRUE(sender.good() && receiver.good());
        EXPECT_EQ(got, bigValue());
        EXPECT_EQ(nine, 9);
    }
}
