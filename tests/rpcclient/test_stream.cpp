// The packet stream over real sockets: typed values in both directions,
// refills across packet boundaries, and how receive failures turn into the
// stream's error flags.
#include "rpc2stream.h"
#include "socketpair.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <numbers>
#include <string>
#include <thread>

using namespace ZEL;
using zel5test::Bytes;
using zel5test::concat;
using zel5test::hexBytes;
using zel5test::SocketPair;
using zel5test::wirePacket;

namespace {

// A stream on the near end of a fresh socket pair; the stream closes that
// end itself, the pair closes the peer's end.
struct StreamOnPair {
    SocketPair sp;
    RPC2Stream stream{sp.releaseNear(), nullptr};
};

Bytes be32(std::uint32_t v)
{
    return {static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
            static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
}

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

// Reads one blob with data_get_new and frees the array the stream handed out.
int takeBlob(RPC2Stream& s, Bytes& out)
{
    char* data = nullptr;
    int len = -1;
    int r = s.data_get_new(data, len);
    if (r == 0) {
        EXPECT_NE(data, nullptr);
        out.assign(data, data + len);
        delete[] data;
    }
    return r;
}

bool hasFlag(const RPC2Stream& s, int flag)
{
    return (s.error_flags_word() & flag) != 0;
}

} // namespace

TEST(StreamOutput, PutValuesLeaveAsOneDataPacket)
{
    StreamOnPair s;
    ASSERT_EQ(s.stream.data_put<int>(1), 0);
    ASSERT_EQ(s.stream.data_put<int>(-2), 0);
    EXPECT_TRUE(s.sp.readPeerReady().empty()) << "values went out before end_output";
    s.stream.end_output();
    EXPECT_EQ(s.sp.readPeer(20), hexBytes("C8 23 00 14 05 00 00 08 00 00 00 01 05 00 00 08 FF FF FF FE"));

    // The next call's arguments start a fresh packet; a long travels as 32 bits.
    ASSERT_EQ(s.stream.data_put<long>(-69), 0);
    ASSERT_EQ(s.stream.data_put<long>(16422), 0);
    s.stream.end_output();
    EXPECT_EQ(s.sp.readPeer(20), hexBytes("C8 23 00 14 05 00 00 08 FF FF FF BB 05 00 00 08 00 00 40 26"));

    // Without values nothing goes out, also right after a send.
    s.stream.end_output();
    s.stream.begin_output();
    s.stream.end_output();
    EXPECT_TRUE(s.sp.readPeerReady().empty());
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamOutput, PacketOperatorSendsTheSerialisedPacket)
{
    StreamOnPair s;
    RPC2Packet call;
    call.code(rc_session_call);
    ASSERT_EQ(call.put(ra_call, -69), 0);
    s.stream << call << call;
    const Bytes once = hexBytes("C9 23 00 0C 03 00 00 08 FF FF FF BB");
    EXPECT_EQ(s.sp.readPeer(24), concat({once, once}));
    EXPECT_TRUE(s.sp.readPeerReady().empty());
}

TEST(StreamInput, ReadsEveryTypedValue)
{
    StreamOnPair s;
    s.sp.writePeer(wirePacket(rc_session_data, {
                                                   {ra_data, hexBytes("00 00 00 01")},
                                                   {ra_data, hexBytes("FF FF FF BB")},
                                                   {ra_data, hexBytes("FF FF FF FE")},
                                                   {ra_data, hexBytes("FF FF FF FE")},
                                                   {ra_data, hexBytes("00 00 00 00 00 00 00 01")},
                                                   {ra_data, hexBytes("00 00 00 01 00 00 00 02")},
                                                   {ra_data, hexBytes("FF FF FF FF FF FF FF FE")},
                                                   {ra_data, hexBytes("80 00 00 00 00 00 00 00")},
                                                   {ra_data, hexBytes("3F F0 00 00 00 00 00 00")},
                                                   {ra_data, hexBytes("C0 04 00 00 00 00 00 00")},
                                                   {ra_data, hexBytes("40 09 21 FB 54 44 2D 18")},
                                                   {ra_data, text("abc")},
                                               }));
    int i = 0;
    ASSERT_EQ(s.stream.data_get(i), 0);
    EXPECT_EQ(i, 1);
    ASSERT_EQ(s.stream.data_get(i), 0);
    EXPECT_EQ(i, -69);
    long l = 0;
    ASSERT_EQ(s.stream.data_get(l), 0);
    EXPECT_EQ(l, -2L);
    unsigned int u = 0;
    ASSERT_EQ(s.stream.data_get(u), 0);
    EXPECT_EQ(u, 4294967294u);

    // 64-bit values: high word first.
    long long ll = 0;
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, 1LL);
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, 0x100000002LL);
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, -2LL);
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, LLONG_MIN);

    double d = 0;
    ASSERT_EQ(s.stream.data_get(d), 0);
    EXPECT_EQ(d, 1.0);
    ASSERT_EQ(s.stream.data_get(d), 0);
    EXPECT_EQ(d, -2.5);
    ASSERT_EQ(s.stream.data_get(d), 0);
    EXPECT_EQ(d, std::numbers::pi);

    Bytes blob;
    ASSERT_EQ(takeBlob(s.stream, blob), 0);
    EXPECT_EQ(blob, text("abc"));
    EXPECT_FALSE(s.stream.packet().find(ra_data));
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, WrongSizedValuesStayForTheNextRead)
{
    StreamOnPair s;
    s.sp.writePeer(wirePacket(rc_session_data, {
                                                   {ra_data, hexBytes("01 02 03 04 05")},
                                                   {ra_data, hexBytes("00 00 00 00 00 00 00 07")},
                                                   {ra_data, hexBytes("01 02 03 04 05 06 07 08 09")},
                                                   {ra_data, hexBytes("00 00 00 01")},
                                                   {ra_data, hexBytes("3F F0")},
                                                   {ra_data, Bytes()},
                                               }));
    int i = 0;
    long l = 0;
    unsigned int u = 0;
    long long ll = 0;
    double d = 0;
    Bytes blob;

    EXPECT_EQ(s.stream.data_get(i), ec_inval);
    ASSERT_EQ(takeBlob(s.stream, blob), 0);
    EXPECT_EQ(blob, hexBytes("01 02 03 04 05"));

    // Eight bytes are no 32-bit number but are a 64-bit one.
    EXPECT_EQ(s.stream.data_get(i), ec_inval);
    EXPECT_EQ(s.stream.data_get(l), ec_inval);
    EXPECT_EQ(s.stream.data_get(u), ec_inval);
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, 7);

    // Nine bytes are too long for any number.
    EXPECT_EQ(s.stream.data_get(ll), ec_inval);
    EXPECT_EQ(s.stream.data_get(d), ec_inval);
    ASSERT_EQ(takeBlob(s.stream, blob), 0);
    EXPECT_EQ(blob.size(), 9u);

    // Shorter 64-bit values are read from the front; missing bytes are zero.
    ASSERT_EQ(s.stream.data_get(ll), 0);
    EXPECT_EQ(ll, 1LL << 32);
    ASSERT_EQ(s.stream.data_get(d), 0);
    EXPECT_EQ(d, 1.0);

    blob = text("stale");
    ASSERT_EQ(takeBlob(s.stream, blob), 0);
    EXPECT_TRUE(blob.empty());
    EXPECT_FALSE(s.stream.packet().find(ra_data));
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, ValuesSpreadOverPacketsAreReadInOrder)
{
    StreamOnPair s;
    s.sp.writePeer(concat({
        wirePacket(rc_session_data, {{ra_data, be32(1)}, {ra_data, be32(2)}}),
        wirePacket(rc_session_data, {{ra_data, be32(3)}, {ra_data, text("four")}}),
        wirePacket(rc_session_data, {{ra_data, be32(5)}, {ra_data, be32(6)}}),
        wirePacket(rc_session_data, {{ra_data, be32(7)}}),
    }));
    int v = 0;
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 1);
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 2);
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 3);
    Bytes blob;
    ASSERT_EQ(takeBlob(s.stream, blob), 0);
    EXPECT_EQ(blob, text("four"));

    // end_input drops what is left of the current packet.
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 5);
    EXPECT_EQ(s.stream.end_input(), 0);
    EXPECT_EQ(s.stream.packet().code(), 0);
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 7);
    EXPECT_TRUE(s.sp.readPeerReady().empty());
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, EmptyAndNonDataRepliesWhereDataWasExpected)
{
    StreamOnPair s;
    s.sp.writePeer(concat({hexBytes("C8 23 00 04"), wirePacket(rc_session_termination, {{ra_termination, be32(rtc_drop)}}),
                           hexBytes("C8 23 00 04")}));
    int v = 0;
    EXPECT_EQ(s.stream.data_get(v), ec_noent);

    // The termination stays in the input packet for the session to inspect.
    EXPECT_EQ(s.stream.data_get(v), ec_badmsg);
    EXPECT_EQ(s.stream.packet().code(), rc_session_termination);
    int term = 0;
    ASSERT_EQ(s.stream.packet().get(ra_termination, term), 0);
    EXPECT_EQ(term, rtc_drop);
    EXPECT_EQ(s.stream.bad(), 0);

    Bytes blob;
    EXPECT_EQ(takeBlob(s.stream, blob), ec_noent);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamRoundTrip, ValuesPutOnOneStreamAreReadOnTheOther)
{
    SocketPair sp;
    RPC2Stream client(sp.releaseNear(), nullptr);
    RPC2Stream server(sp.releasePeer(), nullptr);
    ASSERT_EQ(client.data_put<int>(INT_MIN), 0);
    ASSERT_EQ(client.data_put<long>(-1), 0);
    ASSERT_EQ(client.data_put<int>(INT_MAX), 0);
    client.end_output();

    int i = 0;
    long l = 0;
    unsigned int u = 0;
    ASSERT_EQ(server.data_get(i), 0);
    EXPECT_EQ(i, INT_MIN);
    ASSERT_EQ(server.data_get(l), 0);
    EXPECT_EQ(l, -1L);
    ASSERT_EQ(server.data_get(u), 0);
    EXPECT_EQ(u, static_cast<unsigned int>(INT_MAX));
    server.end_input();

    ASSERT_EQ(server.data_put<int>(42), 0);
    server.end_output();
    ASSERT_EQ(client.data_get(i), 0);
    EXPECT_EQ(i, 42);
    EXPECT_TRUE(client.good());
    EXPECT_TRUE(server.good());
}

TEST(StreamReceive, PeerClosingIsASessionErrorThatStays)
{
    StreamOnPair s;
    s.sp.writePeer(wirePacket(rc_session_data, {{ra_data, be32(41)}}));
    s.sp.closePeer();

    // What arrived before the close is still delivered.
    int v = 0;
    ASSERT_EQ(s.stream.data_get(v), 0);
    EXPECT_EQ(v, 41);
    EXPECT_TRUE(s.stream.good());

    EXPECT_EQ(s.stream.data_get(v), ec_inval);
    EXPECT_TRUE(hasFlag(s.stream, RPC2Stream::ef_session));
    EXPECT_NE(s.stream.bad(), 0);

    // Discarding packets or reading again never clears the flags.
    s.stream.end_input();
    s.stream.clear();
    EXPECT_TRUE(hasFlag(s.stream, RPC2Stream::ef_session));
    EXPECT_EQ(s.stream.recv_packet(), ec_inval);
    EXPECT_EQ(s.stream.listen(), 0);
    EXPECT_TRUE(hasFlag(s.stream, RPC2Stream::ef_session));
    EXPECT_NE(s.stream.bad(), 0);
}

TEST(StreamReceive, HangUpWithoutInputIsASocketError)
{
    // An unconnected stream socket reports hang-up and never any input.
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    RPC2Stream stream(fd, nullptr);
    EXPECT_EQ(stream.poll(), -ec_inval);
    EXPECT_EQ(stream.recv_packet(), ec_inval);
    EXPECT_TRUE(hasFlag(stream, RPC2Stream::ef_socket));
    EXPECT_FALSE(hasFlag(stream, RPC2Stream::ef_session));
    EXPECT_NE(stream.bad(), 0);
    int v = 0;
    EXPECT_EQ(stream.data_get(v), ec_inval);

    int other = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(other, 0);
    RPC2Stream listening(other, nullptr);
    EXPECT_EQ(listening.listen(), 0);
    EXPECT_TRUE(hasFlag(listening, RPC2Stream::ef_socket));
}

TEST(StreamReceive, PacketsThatDoNotMatchTheirHeaderAreSessionErrors)
{
    const struct {
        const char* what;
        Bytes bytes;
    } cases[] = {
        {"size 0", hexBytes("C8 23 00 00")},
        {"size 3", hexBytes("C8 23 00 03 05 00 00 08")},
        {"header cut short", hexBytes("C8 23")},
        {"announces 100, 10 arrive", concat({hexBytes("C8 23 00 64"), Bytes(10, 0x05)})},
        {"attribute overruns the packet", hexBytes("C8 23 00 0C 05 00 00 09 00 00 00 01")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        StreamOnPair s;
        s.sp.writePeer(c.bytes);
        // The close bounds every read the stream might wrongly attempt.
        s.sp.closePeer();
        EXPECT_EQ(s.stream.recv_packet(), ec_inval);
        EXPECT_TRUE(hasFlag(s.stream, RPC2Stream::ef_session));
        EXPECT_FALSE(hasFlag(s.stream, RPC2Stream::ef_socket));
        EXPECT_NE(s.stream.bad(), 0);
    }
}

TEST(StreamReceive, QuietLineTimesOutWithoutError)
{
    StreamOnPair s;
    EXPECT_EQ(s.stream.poll(), ec_timedout);
    EXPECT_EQ(s.stream.recv_packet(), ec_timedout);
    EXPECT_TRUE(s.stream.good());
    EXPECT_EQ(s.stream.bad(), 0);
    EXPECT_EQ(s.stream.fail(), 0);

    s.sp.writePeer(concat({wirePacket(rc_session_call, {{ra_call, be32(-69)}}), hexBytes("CB 23 00 04")}));
    EXPECT_EQ(s.stream.poll(), 0);
    ASSERT_EQ(s.stream.recv_packet(), 0);
    EXPECT_EQ(s.stream.packet().code(), rc_session_call);
    int v = 0;
    ASSERT_EQ(s.stream.packet().get(ra_call, v), 0);
    EXPECT_EQ(v, -69);
    EXPECT_EQ(s.stream.listen(), 0);
    EXPECT_EQ(s.stream.packet().code(), rc_session_termination);
    EXPECT_FALSE(s.stream.packet().find(ra_call));
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamReceive, PacketsArrivingInPiecesAreReadWhole)
{
    StreamOnPair s;
    const int small = 4096;
    ASSERT_EQ(::setsockopt(s.sp.peer(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    // As large as the attribute region allows, far above the socket buffer.
    Bytes big(32768 - 4 - 8);
    for (std::size_t k = 0; k < big.size(); ++k)
        big[k] = static_cast<unsigned char>(k * 7);
    const Bytes wire = wirePacket(rc_session_data, {{ra_data, big}, {ra_data, be32(9)}});

    // The peer writes small pieces while the stream reads; if the stream gives
    // up early, shutting its end down unblocks the writer.
    bool written = false;
    std::thread writer([&] {
        try {
            for (std::size_t at = 0; at < wire.size(); at += 1000)
                SocketPair::writeAll(s.sp.peer(), Bytes(wire.begin() + at, wire.begin() + std::min(at + 1000, wire.size())));
            written = true;
        } catch (const std::exception&) {
        }
    });
    Bytes blob;
    int r = takeBlob(s.stream, blob);
    int v = 0;
    int r2 = r == 0 ? s.stream.data_get(v) : r;
    if (r != 0)
        ::shutdown(s.stream.sock(), SHUT_RDWR);
    writer.join();

    EXPECT_TRUE(written);
    ASSERT_EQ(r, 0);
    EXPECT_EQ(blob, big);
    ASSERT_EQ(r2, 0);
    EXPECT_EQ(v, 9);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamSecure, ChannelTypesWithoutASecureConnectionAreRefused)
{
    StreamOnPair s;
    EXPECT_EQ(s.stream.ssl_connect(rsr_ssl_none), ec_inval);
    EXPECT_EQ(s.stream.ssl_connect(3), ec_inval);
    EXPECT_EQ(s.stream.ssl_shutdown(), -1);
    EXPECT_EQ(s.stream.channel(), rsr_ssl_none);

    // The stream stays plain and usable.
    ASSERT_EQ(s.stream.data_put<int>(1), 0);
    s.stream.end_output();
    EXPECT_EQ(s.sp.readPeer(12), hexBytes("C8 23 00 0C 05 00 00 08 00 00 00 01"));
}
