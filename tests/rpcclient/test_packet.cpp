// Packet building, serialisation, parsing and the direct socket helpers,
// checked against wire images written out byte for byte.
#include "rpc2packet.h"
#include "socketpair.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using namespace ZEL;
using zel5test::Bytes;
using zel5test::concat;
using zel5test::hexBytes;
using zel5test::SocketPair;
using zel5test::wireAttr;
using zel5test::wirePacket;

namespace {

const Bytes challenge = hexBytes("00112233445566778899AABBCCDDEEFF");
const Bytes digest = hexBytes("0F1E2D3C4B5A69788796A5B4C3D2E1F0");

const char* chars(const Bytes& b)
{
    return reinterpret_cast<const char*>(b.data());
}

int length(const Bytes& b)
{
    return static_cast<int>(b.size());
}

Bytes text(const std::string& s)
{
    return Bytes(s.begin(), s.end());
}

Bytes dumped(const RPC2Packet& p)
{
    Bytes out(static_cast<std::size_t>(p.packet_size()));
    EXPECT_EQ(p.dump(reinterpret_cast<char*>(out.data()), length(out)), p.packet_size());
    return out;
}

int parseInto(RPC2Packet& p, const Bytes& wire)
{
    return p.parse(chars(wire), length(wire));
}

Bytes controlPayload(RPC2Packet& p, int code)
{
    char buf[64];
    int len = sizeof buf;
    EXPECT_EQ(p.get(code, buf, len), 0) << "attribute " << code;
    return Bytes(buf, buf + len);
}

Bytes nextData(RPC2Packet& p)
{
    char buf[64];
    int len = sizeof buf;
    EXPECT_EQ(p.get_data(buf, len), 0);
    return Bytes(buf, buf + len);
}

} // namespace

TEST(PacketDump, CallPacketsMatchTheirWireImage)
{
    RPC2Packet p;
    p.code(rc_session_call);
    EXPECT_EQ(dumped(p), hexBytes("C9 23 00 04"));

    ASSERT_EQ(p.put(ra_call, 5), 0);
    EXPECT_EQ(dumped(p), hexBytes("C9 23 00 0C 03 00 00 08 00 00 00 05"));

    // Function numbers are negative: two's complement, big-endian.
    RPC2Packet version;
    version.code(rc_session_call);
    ASSERT_EQ(version.put(ra_call, -69), 0);
    EXPECT_EQ(dumped(version), hexBytes("C9 23 00 0C 03 00 00 08 FF FF FF BB"));
}

TEST(PacketDump, ControlAttributesGoOutInAscendingCodeOrder)
{
    // A login request, built in an order unlike the wire order.
    RPC2Packet login;
    login.code(rc_access_request);
    ASSERT_EQ(login.put(ra_ssl_request, rsr_ssl_ssl3), 0);
    ASSERT_EQ(login.put(ra_chap_response, chars(digest), 16), 0);
    ASSERT_EQ(login.put(ra_user_name, "u", 1), 0);
    ASSERT_EQ(login.put(ra_chap_challenge, chars(challenge), 16), 0);
    EXPECT_EQ(login.packet_size(), 57);
    EXPECT_EQ(dumped(login), concat({hexBytes("C1 23 00 39 02 00 00 05 75 08 00 00 14"), challenge,
                                     hexBytes("09 00 00 14"), digest, hexBytes("0A 00 00 08 00 00 00 02")}));

    // The session key costs its 16 bytes plus an attribute header and slots in
    // between the user name and the challenge.
    ASSERT_EQ(login.put(ra_key, chars(challenge), 16), 0);
    EXPECT_EQ(login.packet_size(), 77);
    Bytes withKey = dumped(login);
    EXPECT_EQ(Bytes(withKey.begin(), withKey.begin() + 4), hexBytes("C1 23 00 4D"));
    EXPECT_EQ(Bytes(withKey.begin() + 9, withKey.begin() + 13), hexBytes("06 00 00 14"));

    // Data attributes follow all control attributes, in the order they were put.
    RPC2Packet mixed;
    mixed.code(rc_session_data);
    ASSERT_EQ(mixed.put_data("x", 1), 0);
    ASSERT_EQ(mixed.put(ra_ssl_request, 0), 0);
    ASSERT_EQ(mixed.put(ra_user_name, "u", 1), 0);
    ASSERT_EQ(mixed.put(ra_data, "yz", 2), 0);
    ASSERT_EQ(mixed.put(ra_user_type, rut_card_user), 0);
    EXPECT_EQ(dumped(mixed), wirePacket(rc_session_data, {{ra_user_type, hexBytes("00000002")},
                                                          {ra_user_name, text("u")},
                                                          {ra_ssl_request, hexBytes("00000000")},
                                                          {ra_data, text("x")},
                                                          {ra_data, text("yz")}}));
}

TEST(PacketDump, TooSmallBufferIsLeftUntouched)
{
    RPC2Packet p;
    p.code(rc_session_call);
    ASSERT_EQ(p.put(ra_call, 5), 0);
    std::vector<char> buf(12, '\x5A');
    EXPECT_EQ(p.dump(buf.data(), 11), ec_nomem);
    EXPECT_EQ(buf, std::vector<char>(12, '\x5A'));
    EXPECT_EQ(p.dump(buf.data(), 12), 12);

    // Without a code the header is not written, yet the result still counts it.
    RPC2Packet headless;
    ASSERT_EQ(headless.put(ra_call, 5), 0);
    std::vector<unsigned char> out(12, 0x5A);
    EXPECT_EQ(headless.dump(reinterpret_cast<char*>(out.data()), 12), 12);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 8), hexBytes("03 00 00 08 00 00 00 05"));
    EXPECT_EQ(Bytes(out.begin() + 8, out.end()), Bytes(4, 0x5A));
}

TEST(PacketData, PutValuesTravelUnconvertedAndAreReadOnlyAfterParsing)
{
    const int value = 0x01020304;
    RPC2Packet p;
    p.code(rc_session_data);
    ASSERT_EQ(p.put(ra_data, value), 0);
    ASSERT_EQ(p.put_data("abc", 3), 0);

    // Building does not move the read cursor: nothing is readable yet.
    EXPECT_FALSE(p.find(ra_data));
    int got = 0;
    EXPECT_EQ(p.get(ra_data, got), ec_noent);

    Bytes asHeld(4);
    std::memcpy(asHeld.data(), &value, 4);
    Bytes wire = dumped(p);
    EXPECT_EQ(wire, wirePacket(rc_session_data, {{ra_data, asHeld}, {ra_data, text("abc")}}));

    RPC2Packet in;
    ASSERT_EQ(parseInto(in, wire), length(wire));
    EXPECT_TRUE(in.find(ra_data));
    ASSERT_EQ(in.get(ra_data, got), 0);
    EXPECT_EQ(got, value);
    EXPECT_TRUE(in.find(ra_data));
    EXPECT_EQ(nextData(in), text("abc"));
    EXPECT_FALSE(in.find(ra_data));
    EXPECT_EQ(in.get_data(got), ec_noent);
}

TEST(PacketControl, ValuesAreBigEndianAndTheFirstPutWins)
{
    RPC2Packet p;
    ASSERT_EQ(p.put(ra_call, 7), 0);
    EXPECT_EQ(controlPayload(p, ra_call), hexBytes("00 00 00 07"));
    int v = 0;
    ASSERT_EQ(p.get(ra_call, v), 0);
    EXPECT_EQ(v, 7);
    p.put_attr(ra_client_ip, -16422);
    EXPECT_EQ(controlPayload(p, ra_client_ip), hexBytes("FF FF BF DA"));
    ASSERT_EQ(p.get_attr(ra_client_ip, v), 0);
    EXPECT_EQ(v, -16422);

    // A code already present is refused and the first value stays.
    ASSERT_EQ(p.put(ra_user_name, "first", 5), 0);
    EXPECT_EQ(p.put(ra_user_name, "second", 6), ec_inval);
    EXPECT_EQ(p.put(ra_call, 8), ec_inval);
    try {
        p.put_attr(ra_user_name, "third", 5);
        ADD_FAILURE() << "put_attr accepted a duplicate";
    } catch (int e) {
        EXPECT_EQ(e, ec_inval);
    }
    EXPECT_EQ(controlPayload(p, ra_user_name), text("first"));
    ASSERT_EQ(p.get(ra_call, v), 0);
    EXPECT_EQ(v, 7);
    EXPECT_EQ(p.packet_size(), 4 + 8 + 8 + 9);

    // Absent codes, and values that are not 4 bytes long.
    EXPECT_FALSE(p.find(ra_key));
    EXPECT_EQ(p.get(ra_termination, v), ec_noent);
    char buf[4];
    int len = sizeof buf;
    EXPECT_EQ(p.get(ra_key, buf, len), ec_noent);
    EXPECT_EQ(p.get(ra_user_name, v), ec_inval);
}

TEST(PacketGet, TheReportedLengthSizesTheCallersBuffer)
{
    RPC2Packet p;
    ASSERT_EQ(p.put(ra_user_name, "subscriber", 10), 0);
    char buf[16];
    int len = 4;
    EXPECT_EQ(p.get(ra_user_name, buf, len), ec_inval);
    EXPECT_EQ(len, 10);
    len = 0;
    EXPECT_EQ(p.get(ra_user_name, nullptr, len), ec_inval);
    EXPECT_EQ(len, 10);
    len = 10;
    ASSERT_EQ(p.get_attr(ra_user_name, buf, len), 0);
    EXPECT_EQ(std::string(buf, len), "subscriber");

    // For data values a refusal also leaves the cursor on the value.
    RPC2Packet in;
    Bytes wire = wirePacket(rc_session_data, {{ra_data, hexBytes("0102030405")}, {ra_data, hexBytes("00000009")}});
    ASSERT_EQ(parseInto(in, wire), length(wire));
    int v = 0;
    EXPECT_EQ(in.get_data(v), ec_inval);
    len = 4;
    EXPECT_EQ(in.get_data(buf, len), ec_inval);
    EXPECT_EQ(len, 5);
    len = 0;
    EXPECT_EQ(in.get(ra_data, nullptr, len), ec_inval);
    EXPECT_EQ(len, 5);
    EXPECT_EQ(nextData(in), hexBytes("0102030405"));
    ASSERT_EQ(in.get_data(v), 0);
    EXPECT_EQ(0, std::memcmp(&v, hexBytes("00000009").data(), 4));
    len = sizeof buf;
    EXPECT_EQ(in.get_data(buf, len), ec_noent);
}

TEST(PacketParse, ReadsHeaderAndAttributesAsReceived)
{
    // Unknown version and a non-zero reserved byte are not the parser's concern.
    Bytes wire = hexBytes("C2 11 00 1C  0A 7F 00 08 00 00 00 01  05 00 00 06 68 69  06 00 00 04  05 00 00 06 00 01");
    RPC2Packet p;
    ASSERT_EQ(p.put(ra_call, 1), 0);
    // Trailing bytes beyond the announced size belong to nobody.
    ASSERT_EQ(parseInto(p, concat({wire, hexBytes("05 00 00 08")})), 28);
    EXPECT_EQ(p.code(), rc_access_accept);
    EXPECT_EQ(p.version(), 0x11);
    EXPECT_EQ(p.size(), 28);
    EXPECT_FALSE(p.find(ra_call)) << "parse must start from an empty packet";
    int v = 0;
    ASSERT_EQ(p.get(ra_ssl_request, v), 0);
    EXPECT_EQ(v, 1);
    EXPECT_TRUE(p.find(ra_key));
    EXPECT_EQ(controlPayload(p, ra_key), Bytes());
    EXPECT_EQ(nextData(p), text("hi"));
    EXPECT_EQ(nextData(p), hexBytes("00 01"));

    // Written back: reserved bytes 0, version 0x23, controls first.
    EXPECT_EQ(dumped(p), hexBytes("C2 23 00 1C  06 00 00 04  0A 00 00 08 00 00 00 01  05 00 00 06 68 69  05 00 00 06 00 01"));
}

TEST(PacketParse, RepeatedControlAttributeKeepsTheFirst)
{
    RPC2Packet p;
    Bytes second = hexBytes("FFEEDDCCBBAA99887766554433221100");
    Bytes greeting = wirePacket(rc_session_init, {{ra_key, challenge}, {ra_key, second}, {ra_chap_challenge, digest}});
    ASSERT_EQ(parseInto(p, greeting), length(greeting));
    EXPECT_EQ(controlPayload(p, ra_key), challenge);
    EXPECT_EQ(controlPayload(p, ra_chap_challenge), digest);
    EXPECT_EQ(p.packet_size(), 4 + 20 + 20);
}

TEST(PacketParse, RefusesHeaderSizesThatDoNotFit)
{
    RPC2Packet p;
    EXPECT_EQ(parseInto(p, hexBytes("C8 23 00 00 05 00 00 08 00 00 00 01")), ec_badmsg);
    Bytes full = wirePacket(rc_session_data, {{ra_data, hexBytes("00000001")}});
    EXPECT_EQ(parseInto(p, Bytes(full.begin(), full.end() - 1)), ec_badmsg);
    EXPECT_EQ(parseInto(p, full), 12);
}

TEST(PacketParse, StopsAtTheFirstMalformedAttribute)
{
    const Bytes good = wireAttr(ra_call, hexBytes("00 00 00 2A"));
    // Declared sizes below the attribute header, and one beyond the packet.
    for (int declared : {0, 1, 2, 3, 9}) {
        SCOPED_TRACE(declared);
        Bytes bad{ra_data, 0, 0, static_cast<unsigned char>(declared), 1, 2, 3, 4};
        Bytes wire = concat({hexBytes("C8 23 00 14"), good, bad});
        RPC2Packet p;
        EXPECT_EQ(parseInto(p, wire), 12);
        int v = 0;
        ASSERT_EQ(p.get(ra_call, v), 0);
        EXPECT_EQ(v, 42);
        EXPECT_FALSE(p.find(ra_data));
    }
}

TEST(PacketParse, AttributeRegionIsLimitedTo32768Bytes)
{
    RPC2Packet p;
    Bytes atLimit = wirePacket(rc_session_data, {{ra_data, Bytes(32764, 0xAB)}});
    ASSERT_EQ(parseInto(p, atLimit), 32772);
    int len = 0;
    EXPECT_EQ(p.get_data(nullptr, len), ec_inval);
    EXPECT_EQ(len, 32764);

    Bytes over = wirePacket(rc_session_data, {{ra_data, Bytes(32764, 0xAB)}, {ra_data, Bytes()}});
    EXPECT_EQ(parseInto(p, over), 4);
    EXPECT_FALSE(p.find(ra_data));
}

TEST(PacketClear, LeavesAnEmptyReusablePacket)
{
    RPC2Packet p;
    Bytes wire = wirePacket(rc_session_data, {{ra_key, challenge}, {ra_data, hexBytes("00000001")}});
    ASSERT_EQ(parseInto(p, wire), length(wire));
    p.clear();
    EXPECT_EQ(p.code(), 0);
    EXPECT_EQ(p.version(), 0);
    EXPECT_EQ(p.size(), 0);
    EXPECT_FALSE(p.fragment());
    EXPECT_EQ(p.packet_size(), 4);
    EXPECT_FALSE(p.find(ra_data));
    EXPECT_FALSE(p.find(ra_key));
    int v = 0;
    EXPECT_EQ(p.get_data(v), ec_noent);

    EXPECT_EQ(p.put(ra_key, chars(digest), 16), 0);
    EXPECT_EQ(p.put_data(5), 0);
    EXPECT_FALSE(p.find(ra_data));
    EXPECT_EQ(p.packet_size(), 4 + 20 + 8);
}

TEST(PacketSocket, PiecewiseOutputMatchesTheDumpAndReadsBackWhole)
{
    SocketPair sp;
    RPC2Packet out;
    out.code(rc_session_init);
    ASSERT_EQ(out.put(ra_chap_challenge, chars(digest), 16), 0);
    ASSERT_EQ(out.put(ra_key, chars(challenge), 16), 0);
    ASSERT_EQ(out.put_data("abc", 3), 0);
    out.send_header(sp.near());
    for (const auto& entry : out.control_attrs())
        out.send_attr(sp.near(), entry.second);
    for (const auto& entry : out.data_attrs())
        out.send_attr(sp.near(), entry.base);
    const Bytes wire = dumped(out);
    EXPECT_EQ(sp.readPeer(wire.size()), wire);
    EXPECT_TRUE(sp.readPeerReady().empty());

    sp.writePeer(wire);
    RPC2Packet in;
    ASSERT_TRUE(in.recv_header_check(sp.near()));
    in.recv_header(sp.near());
    EXPECT_EQ(in.code(), rc_session_init);
    EXPECT_EQ(in.version(), 0x23);
    ASSERT_EQ(in.size(), length(wire));
    in.recv_attr(sp.near(), in.size() - 4);
    EXPECT_FALSE(in.recv_ready(sp.near()));
    EXPECT_EQ(controlPayload(in, ra_key), challenge);
    EXPECT_EQ(controlPayload(in, ra_chap_challenge), digest);
    ASSERT_TRUE(in.find(ra_data));
    EXPECT_EQ(nextData(in), text("abc"));
}

TEST(PacketSocket, PeekingAndReadinessConsumeNothing)
{
    SocketPair sp;
    RPC2Packet p;
    EXPECT_FALSE(p.recv_ready(sp.near()));

    sp.writePeer(hexBytes("05 00 00 05 7A"));
    EXPECT_TRUE(p.recv_ready(sp.near()));
    EXPECT_FALSE(p.recv_header_check(sp.near()));
    RPC2Packet::__rpc2_attr* a = p.recv_attr(sp.near());
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->code, ra_data);
    EXPECT_EQ(a->size, 5);
    EXPECT_EQ(a->vbase, Bytes{0x7A});
    delete a;
    EXPECT_FALSE(p.recv_ready(sp.near()));

    sp.writePeer(hexBytes("CB 23 00 0C 04 00 00 08 00 00 00 06"));
    EXPECT_TRUE(p.recv_header_check(sp.near()));
    EXPECT_TRUE(p.recv_header_check(sp.near()));
    p.recv_header(sp.near());
    EXPECT_EQ(p.code(), rc_session_termination);
    EXPECT_EQ(p.size(), 12);
    p.recv_attr(sp.near(), 8);
    int v = 0;
    ASSERT_EQ(p.get(ra_termination, v), 0);
    EXPECT_EQ(v, rtc_drop);
}

TEST(PacketSocket, ContinuationReadsOnlyWhatIsReady)
{
    SocketPair sp;
    RPC2Packet p;
    sp.writePeer(concat({wireAttr(ra_data, hexBytes("0001")), wireAttr(ra_termination, hexBytes("00000004")),
                         wireAttr(ra_data, hexBytes("02")), wireAttr(ra_call, hexBytes("FFFFFFBB"))}));
    // Returns once the input is drained instead of waiting for more.
    p.recv_attr_cont(sp.near());
    EXPECT_FALSE(p.recv_ready(sp.near()));
    int v = 0;
    ASSERT_EQ(p.get(ra_termination, v), 0);
    EXPECT_EQ(v, rtc_eof);
    ASSERT_EQ(p.get(ra_call, v), 0);
    EXPECT_EQ(v, -69);
    EXPECT_EQ(nextData(p), hexBytes("0001"));
    EXPECT_EQ(nextData(p), hexBytes("02"));
    EXPECT_FALSE(p.find(ra_data));
}

TEST(PacketSocket, DeclaredAttributeSizeBelowItsHeaderIsInvalid)
{
    for (int declared : {0, 1, 2, 3}) {
        SCOPED_TRACE(declared);
        SocketPair sp;
        sp.writePeer({ra_data, 0, 0, static_cast<unsigned char>(declared), 0xAA, 0xBB, 0xCC, 0xDD});
        RPC2Packet p;
        try {
            delete p.recv_attr(sp.near());
            ADD_FAILURE() << "accepted";
        } catch (int e) {
            EXPECT_EQ(e, ec_inval);
        }
    }
}
