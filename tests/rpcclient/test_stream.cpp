// The packet stream over real sockets: typed values in both directions,
// refills across packet boundaries, and how receive failures turn into the
// stream's error flags.
#include "rpc2stream.h"
#include "streampair.h"

#include <gtest/gtest.h>

#include <climits>
#include <numbers>
#include <numeric>
#include <thread>

using namespace ZEL;
using namespace zel5test;

namespace {

// Reads one blob with data_get_new and frees the array the stream handed out.
Bytes blob(RPC2Stream& s, int expected = 0)
{
    char* data = nullptr;
    int len = -1;
    EXPECT_EQ(s.data_get_new(data, len), expected);
    Bytes out(data, data + (data ? len : 0));
    delete[] data;
    return out;
}

} // namespace

TEST(StreamOutput, ValuesLeaveAsOneDataPacketAndReadBackAsPut)
{
    StreamOnPair s;
    ASSERT_EQ(s.stream.data_put<int>(1), 0);
    ASSERT_EQ(s.stream.data_put<int>(-2), 0);
    EXPECT_TRUE(s.sp.readPeer().empty()) << "values went out before end_output";
    s.stream.end_output();
    const Bytes ints = s.sp.readPeer();
    EXPECT_EQ(ints, hexBytes("C8 23 00 14 05 00 00 08 00 00 00 01 05 00 00 08 FF FF FF FE"));
    // The next call's arguments start a fresh packet; a long travels as 32 bits.
    ASSERT_EQ(s.stream.data_put<long>(INT_MIN), 0);
    ASSERT_EQ(s.stream.data_put<long>(16422), 0);
    s.stream.end_output();
    const Bytes longs = s.sp.readPeer();
    EXPECT_EQ(longs, hexBytes("C8 23 00 14 05 00 00 08 80 00 00 00 05 00 00 08 00 00 40 26"));
    // Without values nothing goes out, also right after a send.
    s.stream.end_output();
    EXPECT_TRUE(s.sp.readPeer().empty());

    // Echoed back, the values read as they were put.
    s.sp.writePeer(concat({ints, longs}));
    EXPECT_EQ(next<int>(s.stream), 1);
    EXPECT_EQ(next<long>(s.stream), -2);
    EXPECT_EQ(next<long>(s.stream), INT_MIN);
    EXPECT_EQ(next<unsigned int>(s.stream), 16422u);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, ReadsEveryTypedValueAcrossPacketsUntilAReplyWithoutData)
{
    StreamOnPair s;
    s.sp.writePeer(concat({wireData({"00000001", "FFFFFFBB", "FFFFFFFE", "FFFFFFFE"}),
                           wireData({"0000000000000001", "0000000100000002", "FFFFFFFFFFFFFFFE", "8000000000000000",
                                     "3FF0000000000000", "C004000000000000", "400921FB54442D18", "616263"}),
                           wireData({"00000005", "00000006"}), wireData({}), wireData({}),
                           hexBytes("CB 23 00 0C 04 00 00 08 00 00 00 06")}));
    EXPECT_EQ(next<int>(s.stream), 1);
    EXPECT_EQ(next<int>(s.stream), -69);
    EXPECT_EQ(next<long>(s.stream), -2L);
    EXPECT_EQ(next<unsigned int>(s.stream), 4294967294u);
    // 64-bit values: high word first.
    EXPECT_EQ(next<long long>(s.stream), 1LL);
    EXPECT_EQ(next<long long>(s.stream), 0x100000002LL);
    EXPECT_EQ(next<long long>(s.stream), -2LL);
    EXPECT_EQ(next<long long>(s.stream), LLONG_MIN);
    EXPECT_EQ(next<double>(s.stream), 1.0);
    EXPECT_EQ(next<double>(s.stream), -2.5);
    EXPECT_EQ(next<double>(s.stream), std::numbers::pi);
    EXPECT_EQ(blob(s.stream), hexBytes("61 62 63"));

    // end_input drops what is left of the current packet.
    EXPECT_EQ(next<int>(s.stream), 5);
    EXPECT_EQ(s.stream.end_input(), 0);
    next<int>(s.stream, ec_noent);
    blob(s.stream, ec_noent);
    // The termination stays in the input packet for the session to inspect.
    next<int>(s.stream, ec_badmsg);
    EXPECT_EQ(s.stream.packet().code(), rc_session_termination);
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamInput, WrongSizedValuesStayForTheNextRead)
{
    StreamOnPair s;
    s.sp.writePeer(wireData({"0102030405", "0000000000000007", "010203040506070809", "00000001", "3FF0", ""}));
    next<int>(s.stream, ec_inval);
    EXPECT_EQ(blob(s.stream), hexBytes("01 02 03 04 05"));
    // Eight bytes are no 32-bit number but are a 64-bit one.
    next<int>(s.stream, ec_inval);
    next<long>(s.stream, ec_inval);
    next<unsigned int>(s.stream, ec_inval);
    EXPECT_EQ(next<long long>(s.stream), 7);
    // Nine bytes are too long for any number.
    next<long long>(s.stream, ec_inval);
    next<double>(s.stream, ec_inval);
    EXPECT_EQ(blob(s.stream).size(), 9u);
    // Shorter 64-bit values are read from the front; missing bytes are zero.
    EXPECT_EQ(next<long long>(s.stream), 1LL << 32);
    EXPECT_EQ(next<double>(s.stream), 1.0);
    EXPECT_EQ(blob(s.stream), Bytes());
    EXPECT_TRUE(s.stream.good());
}

TEST(StreamReceive, ShortOrMalformedPacketsAreSessionErrorsThatStay)
{
    // Nothing, sizes 0 and 3, a cut header, 100 bytes announced and 10 sent,
    // an attribute overrunning its packet; each after a good packet.
    for (const char* hex : {"", "C8 23 00 00", "C8 23 00 03 05 00 00 08", "C8 23",
                            "C8 23 00 64 05 05 05 05 05 05 05 05 05 05", "C8 23 00 0C 05 00 00 09 00 00 00 01"}) {
        SCOPED_TRACE(hex);
        StreamOnPair s;
        s.sp.writePeer(concat({wireData({"00000029"}), hexBytes(hex)}));
        // The close bounds every read the stream might wrongly attempt.
        s.sp.closePeer();
        EXPECT_EQ(next<int>(s.stream), 41);
        EXPECT_TRUE(s.stream.good());
        next<int>(s.stream, ec_inval);
        EXPECT_EQ(s.stream.error_flags_word(), RPC2Stream::ef_session);
        EXPECT_NE(s.stream.bad(), 0);
        // Discarding packets or reading again never clears the flags.
        s.stream.end_input();
        s.stream.clear();
        EXPECT_EQ(s.stream.error_flags_word(), RPC2Stream::ef_session);
        EXPECT_EQ(s.stream.recv_packet(), ec_inval);
        EXPECT_EQ(s.stream.listen(), 0);
    }
}

TEST(StreamReceive, QuietLineTimesOutAndHangUpIsASocketError)
{
    StreamOnPair quiet;
    EXPECT_EQ(quiet.stream.poll(), ec_timedout);
    EXPECT_EQ(quiet.stream.recv_packet(), ec_timedout);
    EXPECT_TRUE(quiet.stream.good());

    // An unconnected stream socket reports hang-up and never any input.
    RPC2Stream stream(::socket(AF_UNIX, SOCK_STREAM, 0), nullptr);
    EXPECT_EQ(stream.poll(), -ec_inval);
    EXPECT_EQ(stream.recv_packet(), ec_inval);
    EXPECT_EQ(stream.error_flags_word(), RPC2Stream::ef_socket);
    EXPECT_NE(stream.bad(), 0);
    next<int>(stream, ec_inval);
    EXPECT_EQ(stream.listen(), 0);
    EXPECT_EQ(stream.error_flags_word(), RPC2Stream::ef_socket);
}

TEST(StreamReceive, PacketsArrivingInPiecesAreReadWhole)
{
    StreamOnPair s;
    const int small = 4096;
    ASSERT_EQ(::setsockopt(s.sp.peer(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    // As large as the attribute region allows, far above the socket buffer.
    Bytes big(32768 - 4 - 8);
    std::iota(big.begin(), big.end(), 0);
    const Bytes wire = wirePacket(rc_session_data, {{ra_data, big}, {ra_data, hexBytes("00000009")}});
    std::thread writer([&] { s.sp.writePeer(wire); });
    const Bytes got = blob(s.stream);
    const int v = got.empty() ? 0 : next<int>(s.stream);
    // A stream that gave up early leaves the writer blocked; shutting down unblocks it.
    if (got.size() != big.size() || !s.stream.good())
        ::shutdown(s.stream.sock(), SHUT_RDWR);
    writer.join();
    EXPECT_EQ(got, big);
    EXPECT_EQ(v, 9);
}
