// Packet building, serialisation, parsing and the read cursor, against wire images byte for byte.
#include "rpc2packet.h"
#include "rpctest.h"

#include <tuple>

using namespace ZEL;
using namespace zel5test;

namespace {

const Bytes challenge = hexBytes("00112233445566778899AABBCCDDEEFF");
const Bytes digest = hexBytes("0F1E2D3C4B5A69788796A5B4C3D2E1F0");

const char* chars(const Bytes& b) { return reinterpret_cast<const char*>(b.data()); }

Bytes dumped(const RPC2Packet& p)
{
    Bytes out(static_cast<std::size_t>(p.packet_size()));
    EXPECT_EQ(p.dump(reinterpret_cast<char*>(out.data()), static_cast<int>(out.size())), p.packet_size());
    return out;
}

int parse(RPC2Packet& p, const Bytes& wire) { return p.parse(chars(wire), static_cast<int>(wire.size())); }

int intAttr(RPC2Packet& p, int code)
{
    int v = 0;
    EXPECT_EQ(p.get(code, v), 0) << "attribute " << code;
    return v;
}

// The raw value under the cursor, as text.
std::string raw(RPC2Packet& p, int expected = 0)
{
    char buf[256];
    int len = sizeof buf;
    EXPECT_EQ(p.get_data(buf, len), expected);
    return expected == 0 ? std::string(buf, static_cast<std::size_t>(len)) : std::string();
}

} // namespace

TEST(PacketDump, PacketsMatchTheirWireImage)
{
    RPC2Packet p;
    p.code(rc_session_call);
    EXPECT_EQ(dumped(p), hexBytes("C9 23 00 04"));
    ASSERT_EQ(p.put(ra_call, -69), 0);
    EXPECT_EQ(dumped(p), hexBytes("C9 23 00 0C 03 00 00 08 FF FF FF BB"));

    // A login request built in an order unlike the wire order.
    RPC2Packet login;
    login.code(rc_access_request);
    ASSERT_EQ(login.put(ra_ssl_request, rsr_ssl_ssl3), 0);
    ASSERT_EQ(login.put(ra_chap_response, chars(digest), 16), 0);
    ASSERT_EQ(login.put(ra_user_name, "u", 1), 0);
    ASSERT_EQ(login.put(ra_chap_challenge, chars(challenge), 16), 0);
    EXPECT_EQ(dumped(login), concat({hexBytes("C1 23 00 39 02 00 00 05 75 08 00 00 14"), challenge,
                                     hexBytes("09 00 00 14"), digest, hexBytes("0A 00 00 08 00 00 00 02")}));

    // A short buffer stays untouched. Without a code no header is written, yet the result counts it.
    RPC2Packet headless;
    ASSERT_EQ(headless.put(ra_call, 5), 0);
    Bytes buf(12, 0x5A);
    char* out = reinterpret_cast<char*>(buf.data());
    EXPECT_EQ(headless.dump(out, 11), ec_nomem);
    EXPECT_EQ(buf, Bytes(12, 0x5A));
    EXPECT_EQ(headless.dump(out, 12), 12);
    EXPECT_EQ(buf, hexBytes("03 00 00 08 00 00 00 05 5A 5A 5A 5A"));
}

TEST(PacketValues, DataTravelsUnconvertedControlsAreBigEndianAndTheFirstPutWins)
{
    const int value = 0x01020304;
    RPC2Packet p;
    p.code(rc_session_data);
    ASSERT_EQ(p.put(ra_data, value), 0);
    ASSERT_EQ(p.put_data("\1\2\3\4\5", 5), 0);
    ASSERT_EQ(p.put(ra_user_name, "subscriber", 10), 0);
    // A control code already present is refused and the first value stays.
    EXPECT_EQ(p.put(ra_user_name, "second", 6), ec_inval);
    // Building does not move the read cursor: nothing is readable yet.
    int got = 0;
    EXPECT_EQ(p.get(ra_data, got), ec_noent);

    const Bytes asHeld(reinterpret_cast<const unsigned char*>(&value), reinterpret_cast<const unsigned char*>(&value + 1));
    const Bytes wire = dumped(p);
    EXPECT_EQ(wire, wirePacket(rc_session_data, {{ra_user_name, {'s', 'u', 'b', 's', 'c', 'r', 'i', 'b', 'e', 'r'}},
                                                 {ra_data, asHeld}, {ra_data, hexBytes("0102030405")}}));

    RPC2Packet in;
    ASSERT_EQ(parse(in, wire), static_cast<int>(wire.size()));
    EXPECT_EQ(intAttr(in, ra_data), value);
    EXPECT_EQ(in.get_data(got), ec_inval) << "a refused read leaves the cursor on the value";
    EXPECT_EQ(raw(in), "\1\2\3\4\5");
    EXPECT_EQ(in.get_data(got), ec_noent);

    // A short buffer is told the length; a value that is not 4 bytes is no int.
    char buf[16];
    int len = 4;
    EXPECT_EQ(in.get(ra_user_name, buf, len), ec_inval);
    EXPECT_EQ(len, 10);
    ASSERT_EQ(in.get_attr(ra_user_name, buf, len), 0);
    EXPECT_EQ(std::string(buf, len), "subscriber");
    EXPECT_EQ(in.get(ra_user_name, got), ec_inval);
    EXPECT_EQ(in.get(ra_key, buf, len), ec_noent);
}

// The held values move as the packet grows; the cursor goes with them.
TEST(PacketValues, TheCursorFollowsAGrowingPacket)
{
    RPC2Packet p;
    ASSERT_EQ(parse(p, wireData({"00000001", "00000002"})), 20);
    raw(p);
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(p.put_data(std::string(100, char('a' + i % 26)).data(), 100), 0);
    EXPECT_EQ(raw(p), std::string("\0\0\0\x02", 4));
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(raw(p), std::string(100, char('a' + i % 26))) << i;
    raw(p, ec_noent);
}

TEST(PacketParse, ReadsWhatArrivedKeepsTheFirstOfRepeatedControlsAndClears)
{
    // Version and reserved bytes are ignored; of two keys the first stays; bytes past the size are no one's.
    const Bytes wire = hexBytes("C2 11 00 21  0A 7F 00 08 FF FF FF BB  05 01 00 06 68 69  06 00 00 04"
                                "05 00 00 06 00 01  06 00 00 05 AA  05 00 00 08");
    RPC2Packet p;
    ASSERT_EQ(p.put(ra_call, 1), 0);
    ASSERT_EQ(parse(p, wire), 0x21);
    EXPECT_EQ(std::tuple(p.code(), p.version(), p.size()), std::tuple(int(rc_access_accept), 0x11, 0x21));
    EXPECT_FALSE(p.find(ra_call)) << "parse must start from an empty packet";
    EXPECT_EQ(intAttr(p, ra_ssl_request), -69);
    // Written back: reserved bytes 0, version 0x23, controls first, data in the order it came.
    EXPECT_EQ(dumped(p), hexBytes("C2 23 00 1C  06 00 00 04  0A 00 00 08 FF FF FF BB  05 00 00 06 68 69"
                                  "05 00 00 06 00 01"));

    p.clear();
    EXPECT_EQ(std::tuple(p.code(), p.version(), p.size(), p.fragment(), p.packet_size()), std::tuple(0, 0, 0, false, 4));
    EXPECT_FALSE(p.find(ra_data));
}

TEST(PacketParse, RefusesSizesThatDoNotFit)
{
    RPC2Packet p;
    EXPECT_EQ(parse(p, hexBytes("C8 23 00 00 05 00 00 08 00 00 00 01")), ec_badmsg);
    const Bytes full = wireData({"00000001"});
    EXPECT_EQ(parse(p, Bytes(full.begin(), full.end() - 1)), ec_badmsg);
    EXPECT_EQ(parse(p, full), 12);

    // Attribute sizes below its header or beyond the packet stop parsing there; what came before stays.
    for (int declared : {0, 3, 9}) {
        SCOPED_TRACE(declared);
        const Bytes bad{ra_data, 0, 0, static_cast<unsigned char>(declared), 1, 2, 3, 4};
        ASSERT_EQ(parse(p, concat({hexBytes("C8 23 00 14 03 00 00 08 00 00 00 2A"), bad})), 12);
        EXPECT_EQ(intAttr(p, ra_call), 42);
        EXPECT_FALSE(p.find(ra_data));
    }

    // The attribute region is limited to 32768 bytes; beyond that the first attribute already fails.
    ASSERT_EQ(parse(p, wirePacket(rc_session_data, {{ra_data, Bytes(32764, 0xAB)}})), 32772);
    EXPECT_EQ(parse(p, wirePacket(rc_session_data, {{ra_data, Bytes(32764, 0xAB)}, {ra_data, Bytes()}})), 4);
    EXPECT_FALSE(p.find(ra_data));
}
