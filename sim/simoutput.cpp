#include "simoutput.h"

#include "rpc2stream.h"
#include "simstate.h"

#include <algorithm>

namespace zel5sim {

SimOutput::SimOutput(ZEL::RPC2Stream& s, const SimState& st, const Fault& f) : stream(s), state(st), fault(f) {}

bool SimOutput::write(const char* data, int len)
{
    while (len > 0) {
        const int n = stream.send(data, len);
        if (n <= 0)
            return false;
        data += n;
        len -= n;
    }
    return true;
}

// Bytes no client can take for a packet: the first byte is no header byte
// and the announced size is below the header's own.
static std::vector<char> garbage(int count)
{
    std::vector<char> bytes(static_cast<std::size_t>(count > 0 ? count : 16), '\x5a');
    const char head[] = {'\x00', '\x23', '\x00', '\x01'};
    std::copy(head, head + std::min<std::size_t>(4, bytes.size()), bytes.begin());
    return bytes;
}

bool SimOutput::send(std::vector<char> bytes)
{
    if (first) {
        first = false;
        switch (fault.kind) {
        case Fault::Kind::WrongCode:
            if (!bytes.empty())
                bytes[0] = static_cast<char>(fault.code);
            break;
        case Fault::Kind::WrongVersion:
            if (bytes.size() > 1)
                bytes[1] = static_cast<char>(fault.code);
            break;
        case Fault::Kind::Garbage: {
            const std::vector<char> g = garbage(fault.bytes);
            write(g.data(), static_cast<int>(g.size()));
            return false;
        }
        case Fault::Kind::Stall:
            state.waitStopped(fault.stallMs);
            return false;
        default:
            break;
        }
    }
    if (fault.kind == Fault::Kind::CutAfter) {
        const int room = std::max(0, fault.bytes - sent);
        const int n = std::min(room, static_cast<int>(bytes.size()));
        if (!write(bytes.data(), n))
            return false;
        sent += n;
        return sent < fault.bytes;
    }
    return write(bytes.data(), static_cast<int>(bytes.size()));
}

} // namespace zel5sim
