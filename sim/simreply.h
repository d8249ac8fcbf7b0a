// The results of one call as wire bytes: typed values in data packets, a new
// packet started before the attribute region would pass what a client's
// parser accepts, and the closing packet with the termination attribute.
#ifndef ZEL5_SIM_SIMREPLY_H
#define ZEL5_SIM_SIMREPLY_H

#include <cstdint>
#include <string>
#include <vector>

namespace ZEL {
class RPC2Packet;
}

namespace zel5sim {

class SimReply {
public:
    // Largest payload of one value: a whole attribute region of one attribute.
    static const int maxValueBytes;

    void putInt(std::int32_t value);
    void putUInt(std::uint32_t value);
    void putInt64(std::int64_t value);
    void putDouble(double value);
    // Longer texts are cut to maxValueBytes: no packet could carry them.
    void putBytes(const std::string& bytes);

    // Faults: the first value goes out one byte longer than its type.
    void growFirstValue() { grow = true; }
    // Faults: no termination packet; the connection closes after the data.
    void omitTermination() { unterminated = true; }
    bool terminated() const { return !unterminated; }

    int valueCount() const { return static_cast<int>(values.size()); }

    // The data packets followed by the termination packet.
    std::vector<char> serialize() const;

    // Single packets used around a call.
    static std::vector<char> acknowledgement(int function);
    static std::vector<char> termination(int packetCode, int terminationCode);
    static std::vector<char> bytes(const ZEL::RPC2Packet& packet);

private:
    void putRaw(const unsigned char* bytes, int len);

    std::vector<std::string> values;
    bool grow = false;
    bool unterminated = false;
};

} // namespace zel5sim

#endif
