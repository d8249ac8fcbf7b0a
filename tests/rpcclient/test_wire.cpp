// How packets and the stream hold the bytes they received: values read in
// order across control attributes, a packet held in the stream's buffer
// that outlives the buffer's reuse, the read cursor as values are added,
// and the TLS channel's socket (no SIGPIPE, no waiting when looking for
// input).
#include "bounds.h"
#include "rpc2packet.h"
#include "rpc2stream.h"
#include "rpcctx.h"
#include "streampair.h"

#include <gtest/gtest.h>

#include <openssl/ssl.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

using namespace ZEL;
using namespace zel5test;

namespace {

// The raw value under a packet's cursor, as text.
std::string raw(RPC2Packet& p, int expected = 0)
{
    char buf[256];
    int len = sizeof buf;
    EXPECT_EQ(p.get_data(buf, len), expected);
    return expected == 0 ? std::string(buf, static_cast<std::size_t>(len)) : std::string();
}

Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

int parse(RPC2Packet& p, const Bytes& wire)
{
    return p.parse(reinterpret_cast<const char*>(wire.data()), static_cast<int>(wire.size()));
}

SSL_CTX* serverCtx()
{
    static const std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> ctx(RPCCtx::new_server_adh_ctx(rsr_ssl_tls1),
                                                                   SSL_CTX_free);
    return ctx.get();
}

// Two streams with a TLS channel between them, set up with blocking sockets
// (no bound armed). A test still waiting after 5 s has the client's socket
// shut down, which ends every wait on either side.
struct TlsPair {
    SocketPair sp;
    RPC2Stream client{sp.release(0), nullptr};
    std::unique_ptr<RPC2Stream> server = std::make_unique<RPC2Stream>(sp.release(1), nullptr);
    Watchdog dog{5000, "the TLS pair", [fd = client.sock()] { ::shutdown(fd, SHUT_RDWR); }};
    bool ready = false;

    TlsPair()
    {
        int accepted = -1;
        std::jthread other([&] { accepted = server->__ssl_accept(serverCtx(), rsr_ssl_tls1); });
        const int connected = client.ssl_connect(rsr_ssl_tls1);
        other.join();
        ready = connected == 0 && accepted == 0;
    }
};

} // namespace

TEST(WireValues, ReadInOrderAcrossControlAttributesWhichStayForTheSession)
{
    StreamOnPair s;
    s.sp.writePeer(wirePacket(rc_session_data, {{ra_termination, hexBytes("00000004")},
                                                {ra_data, hexBytes("FFFFFFFE")},
                                                {ra_call, hexBytes("FFFFBFDA")},
                                                {ra_data, text("Local")},
                                                {ra_data, Bytes()},
                                                {ra_call, hexBytes("00000001")},
                                                {ra_data, hexBytes("0000000100000002")},
                                                {ra_data, text(std::string(300, 'x'))}}));
    s.sp.closePeer(); // a read past the packet fails instead of waiting
    EXPECT_EQ(next<int>(s.stream), -2);
    EXPECT_EQ(next<std::string>(s.stream), "Local");
    EXPECT_EQ(next<std::string>(s.stream), "");
    EXPECT_EQ(next<long long>(s.stream), 0x100000002LL);
    EXPECT_EQ(next<std::string>(s.stream), std::string(300, 'x'));
    int v = 0;
    EXPECT_TRUE(s.stream.packet().find(ra_termination));
    EXPECT_EQ(s.stream.packet().get_attr(ra_call, v), 0);
    EXPECT_EQ(v, -16422) << "the first of a repeated control attribute";
    EXPECT_FALSE(s.stream.packet().find(ra_data));
    EXPECT_TRUE(s.stream.good());
}

TEST(WireValues, APacketHeldInTheStreamsBufferOutlivesTheBuffersReuse)
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

    // So does receiving the next packet, here one that never arrives whole:
    // the value not yet read stays as it was.
    s.sp.writePeer(wireData({"00000007", "00000008"}));
    EXPECT_EQ(next<int>(s.stream), 7);
    s.sp.writePeer(concat({hexBytes("C8 23 00 64"), Bytes(40, 0xFF)}));
    s.sp.closePeer();
    EXPECT_EQ(s.stream.recv_packet(), ec_inval);
    EXPECT_EQ(raw(s.stream.packet()), std::string("\0\0\0\x08", 4));
}

TEST(WireValues, ValuesAddedBehindUnreadOnesAreReadThoseAddedAfterTheLastAreNot)
{
    RPC2Packet p;
    ASSERT_EQ(parse(p, wireData({"00000001", "00000002"})), 20);
    EXPECT_EQ(raw(p), std::string("\0\0\0\x01", 4));
    ASSERT_EQ(p.put_data("put", 3), 0);
    EXPECT_EQ(raw(p), std::string("\0\0\0\x02", 4));
    EXPECT_EQ(raw(p), "put");
    ASSERT_EQ(p.put_data("late", 4), 0);
    EXPECT_FALSE(p.find(ra_data));
    // Parsed values are readable again, the late one stays behind.
    const Bytes more = wirePacket(0, {{ra_data, text("parsed")}});
    ASSERT_EQ(p.parse_attr(reinterpret_cast<const char*>(more.data()) + 4, 10), 10);
    EXPECT_EQ(raw(p), "parsed");
    raw(p, ec_noent);
    EXPECT_EQ(p.packet_size(), 20 + 7 + 8 + 10);

    // The held values move as the packet grows; the cursor goes with them.
    ASSERT_EQ(parse(p, wireData({"00000001", "00000002"})), 20);
    raw(p);
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(p.put_data(std::string(100, char('a' + i % 26)).data(), 100), 0);
    EXPECT_EQ(raw(p), std::string("\0\0\0\x02", 4));
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(raw(p), std::string(100, char('a' + i % 26))) << i;
    raw(p, ec_noent);
}

TEST(WireValues, AddingToTheStreamsInputPacketKeepsItsUnreadValues)
{
    StreamOnPair s;
    s.sp.writePeer(wireData({"00000001", "00000002", "00000003"}));
    EXPECT_EQ(next<int>(s.stream), 1);
    ASSERT_EQ(s.stream.packet().put_data("tail", 4), 0);
    EXPECT_EQ(next<int>(s.stream), 2);
    EXPECT_EQ(next<int>(s.stream), 3);
    EXPECT_EQ(next<std::string>(s.stream), "tail");
}

TEST(WireValues, AParsedPacketIsWrittenBackWithItsControlsFirstAndNoReservedBits)
{
    RPC2Packet p;
    const Bytes wire = hexBytes("C8 23 00 20  05 01 00 08 00 00 00 01  04 00 00 08 00 00 00 04"
                                "05 02 00 06 68 69  05 00 00 06 00 02");
    ASSERT_EQ(parse(p, wire), 32);
    Bytes out(static_cast<std::size_t>(p.packet_size()));
    ASSERT_EQ(p.dump(reinterpret_cast<char*>(out.data()), static_cast<int>(out.size())), 32);
    EXPECT_EQ(out, hexBytes("C8 23 00 20  04 00 00 08 00 00 00 04  05 00 00 08 00 00 00 01"
                            "05 00 00 06 68 69  05 00 00 06 00 02"));
    int n = 0;
    for (const auto& entry : p.data_attrs())
        n += entry.base->code == ra_data;
    EXPECT_EQ(n, 3);
}

TEST(WireTls, AQuietChannelIsNotYetAndPacketsThatCameAreReadWithoutWaiting)
{
    TlsPair t;
    ASSERT_TRUE(t.ready);
    const auto t0 = Clock::now();
    EXPECT_EQ(t.client.recv_packet(), ec_timedout);
    EXPECT_LT(msSince(t0), 2000);
    EXPECT_TRUE(t.client.good());
    for (int v : {7, 8}) {
        t.server->data_put<int>(v);
        t.server->end_output();
    }
    EXPECT_EQ(next<int>(t.client), 7);
    EXPECT_EQ(next<int>(t.client), 8);
    EXPECT_TRUE(t.client.good());
}

TEST(WireTls, APeerThatLeftFailsTheWriteWithoutASignal)
{
    TlsPair t;
    ASSERT_TRUE(t.ready);
    static std::atomic<int> raised{0};
    struct sigaction count{}, old{};
    count.sa_handler = [](int) { raised.fetch_add(1); };
    sigemptyset(&count.sa_mask);
    ASSERT_EQ(::sigaction(SIGPIPE, &count, &old), 0);
    t.server.reset(); // closes its end
    RPC2Packet p;
    p.code(rc_session_data);
    p.put_data(1);
    for (int i = 0; i < 3; ++i)
        t.client << p;
    ::sigaction(SIGPIPE, &old, nullptr);
    EXPECT_EQ(raised.load(), 0);
}
