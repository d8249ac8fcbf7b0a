// Wire images for the wire benchmarks, written by hand so that neither the
// scripted server nor the floors depend on the protocol library under test.
#ifndef ZEL5_BENCH_WIREBYTES_H
#define ZEL5_BENCH_WIREBYTES_H

#include <cstdint>
#include <cstring>
#include <string>

namespace wire {

// Packet codes and attribute codes used here.
enum : int {
    pkInit = 192,
    pkRequest = 193,
    pkAccept = 194,
    pkData = 200,
    pkCall = 201,
    pkTerm = 203,
    atUserName = 2,
    atCall = 3,
    atTermination = 4,
    atData = 5,
    atKey = 6,
    atChallenge = 8,
    atResponse = 9,
    atSslRequest = 10,
    termEof = 4,
    termDrop = 6,
};

// Functions the benchmarks call.
enum : int {
    fnInternetStatus = -16422,
    fnPrepaid = -16423,
};

constexpr int version = 0x23;
constexpr int maxRegion = 32768; // attribute bytes per packet

inline std::string be32(std::uint32_t v)
{
    return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

inline std::string be64(std::uint64_t v)
{
    return be32(std::uint32_t(v >> 32)) + be32(std::uint32_t(v));
}

inline unsigned be16At(const char* p)
{
    return (unsigned(std::uint8_t(p[0])) << 8) | std::uint8_t(p[1]);
}

inline std::uint32_t be32At(const char* p)
{
    return (std::uint32_t(be16At(p)) << 16) | be16At(p + 2);
}

// Packets (second byte the version) and attributes (0) share one head: two
// bytes and the big-endian size counting the head.
inline std::string framed(int code, int second, const std::string& body)
{
    const std::size_t n = body.size() + 4;
    return std::string{char(code), char(second), char(n >> 8), char(n)} + body;
}

inline std::string attr(int code, const std::string& payload) { return framed(code, 0, payload); }
inline std::string packet(int code, const std::string& attrs) { return framed(code, version, attrs); }

// The call request of function fn.
inline std::string callPacket(int fn) { return packet(pkCall, attr(atCall, be32(std::uint32_t(fn)))); }

// Data values packed into data packets of at most maxRegion attribute bytes
// each, as a server splits a long reply.
class DataPackets {
public:
    void putInt(std::int32_t v) { put(be32(std::uint32_t(v))); }
    void putInt64(std::int64_t v) { put(be64(std::uint64_t(v))); }
    void putDouble(double d)
    {
        std::uint64_t bits;
        std::memcpy(&bits, &d, sizeof bits);
        put(be64(bits));
    }
    void put(const std::string& value)
    {
        const std::string a = attr(atData, value);
        if (!region.empty() && region.size() + a.size() > std::size_t(maxRegion))
            flush();
        region += a;
    }
    // The packets so far, the last one carrying extra control attributes.
    std::string finish(const std::string& lastControls = std::string())
    {
        if (region.size() + lastControls.size() > std::size_t(maxRegion))
            flush();
        region = lastControls + region;
        flush();
        return std::move(out);
    }
    int packets() const { return count; }

private:
    void flush()
    {
        out += packet(pkData, region);
        region.clear();
        ++count;
    }
    std::string out, region;
    int count = 0;
};

} // namespace wire

#endif
