#include "simreply.h"

#include "rpc2packet.h"
#include "rpc2proto.h"

#include <algorithm>
#include <cstring>

namespace zel5sim {

const int SimReply::maxValueBytes = ZEL::rpc2_max_attr_region - 4;

namespace {

void bigEndian32(std::uint32_t v, unsigned char* out)
{
    out[0] = static_cast<unsigned char>(v >> 24);
    out[1] = static_cast<unsigned char>(v >> 16);
    out[2] = static_cast<unsigned char>(v >> 8);
    out[3] = static_cast<unsigned char>(v);
}

void appendPacket(const ZEL::RPC2Packet& p, std::vector<char>& out)
{
    const std::size_t at = out.size();
    out.resize(at + static_cast<std::size_t>(p.packet_size()));
    p.dump(out.data() + at, p.packet_size());
}

} // namespace

void SimReply::putRaw(const unsigned char* bytes, int len)
{
    values.emplace_back(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(len));
}

void SimReply::putInt(std::int32_t value)
{
    putUInt(static_cast<std::uint32_t>(value));
}

void SimReply::putUInt(std::uint32_t value)
{
    unsigned char b[4];
    bigEndian32(value, b);
    putRaw(b, 4);
}

void SimReply::putInt64(std::int64_t value)
{
    // High word first, each word big-endian.
    const std::uint64_t u = static_cast<std::uint64_t>(value);
    unsigned char b[8];
    bigEndian32(static_cast<std::uint32_t>(u >> 32), b);
    bigEndian32(static_cast<std::uint32_t>(u), b + 4);
    putRaw(b, 8);
}

void SimReply::putDouble(double value)
{
    std::int64_t bits;
    static_assert(sizeof bits == sizeof value, "IEEE 754 double expected");
    std::memcpy(&bits, &value, sizeof bits);
    putInt64(bits);
}

void SimReply::putBytes(const std::string& bytes)
{
    const std::size_t n = std::min(bytes.size(), static_cast<std::size_t>(maxValueBytes));
    values.emplace_back(bytes.data(), n);
}

std::vector<char> SimReply::serialize() const
{
    std::vector<char> out;
    ZEL::RPC2Packet p;
    int region = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        std::string v = values[i];
        if (i == 0 && grow && static_cast<int>(v.size()) < maxValueBytes)
            v.push_back('\0');
        const int attrSize = static_cast<int>(v.size()) + 4;
        if (region > 0 && region + attrSize > ZEL::rpc2_max_attr_region) {
            appendPacket(p, out);
            p.clear();
            region = 0;
        }
        if (region == 0)
            p.code(ZEL::rc_session_data);
        p.put_data(v.data(), static_cast<int>(v.size()));
        region += attrSize;
    }
    if (region > 0)
        appendPacket(p, out);
    if (!unterminated) {
        const std::vector<char> term = termination(ZEL::rc_session_data, ZEL::rtc_eof);
        out.insert(out.end(), term.begin(), term.end());
    }
    return out;
}

std::vector<char> SimReply::bytes(const ZEL::RPC2Packet& packet)
{
    std::vector<char> out;
    appendPacket(packet, out);
    return out;
}

std::vector<char> SimReply::acknowledgement(int function)
{
    ZEL::RPC2Packet p;
    p.code(ZEL::rc_session_data);
    p.put(ZEL::ra_call, function);
    return bytes(p);
}

std::vector<char> SimReply::termination(int packetCode, int terminationCode)
{
    ZEL::RPC2Packet p;
    p.code(packetCode);
    p.put(ZEL::ra_termination, terminationCode);
    return bytes(p);
}

} // namespace zel5sim
