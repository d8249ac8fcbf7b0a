// Reading whole packets from a client, with every malformation named so that
// the log says what the client did wrong. Sizes come from the 16-bit header,
// so the one fixed buffer always suffices.
#include "simconnection.h"

#include "rpc2packet.h"
#include "rpc2proto.h"
#include "rpc2stream.h"

#include <chrono>
#include <cstdio>

namespace zel5sim {

static std::string hexByte(unsigned char b)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", b);
    return text;
}

bool SimConnection::inputArrives()
{
    const int limit = state.options().inputTimeoutMs;
    if (limit <= 0)
        return true;
    // The stream's poll also sees input the TLS layer holds already, and
    // returns at once when the socket is shut down by stop().
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit);
    while (stream->poll() == ZEL::ec_timedout)
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
    return true;
}

bool SimConnection::receive(ZEL::RPC2Packet& p, const char* owed)
{
    // Only what the client owes has a deadline; an idle session may wait.
    if (owed && !inputArrives()) {
        log(std::string("sent no ") + owed + " in time");
        return false;
    }
    const Read r = readPacket(p);
    if (r == Read::Bad)
        log(readError);
    return r == Read::Ok;
}

SimConnection::Read SimConnection::readPacket(ZEL::RPC2Packet& p)
{
    unsigned char* b = reinterpret_cast<unsigned char*>(buf.data());
    const int n = stream->recv(buf.data(), 4);
    if (n <= 0 || state.stopping())
        return Read::Closed; // the client left between packets, or we stop
    if (n != 4) {
        readError = "connection closed inside a packet header";
        return Read::Bad;
    }
    if ((b[0] & ZEL::rc_hdr_mask) != ZEL::rc_hdr_mask) {
        readError = "sent bytes that are no packet (first byte " + hexByte(b[0]) + ")";
        return Read::Bad;
    }
    if (b[1] != ZEL::rpc2_version) {
        readError = "unsupported protocol version " + hexByte(b[1]);
        return Read::Bad;
    }
    const int size = (b[2] << 8) | b[3];
    if (size < 4) {
        readError = "packet size " + std::to_string(size) + " below its header's";
        return Read::Bad;
    }
    if (size - 4 > ZEL::rpc2_max_attr_region) {
        readError = "oversized packet of " + std::to_string(size) + " bytes";
        return Read::Bad;
    }
    if (size > 4 && stream->recv(buf.data() + 4, size - 4) != size - 4) {
        if (!state.stopping())
            readError = "connection closed inside a packet";
        return state.stopping() ? Read::Closed : Read::Bad;
    }
    if (!checkAttributes(size))
        return Read::Bad;
    if (p.parse(buf.data(), size) != size) {
        readError = "malformed packet";
        return Read::Bad;
    }
    packetSize = size;
    return Read::Ok;
}

bool SimConnection::checkAttributes(int size)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(buf.data());
    for (int at = 4; at < size;) {
        if (size - at < 4) {
            readError = "truncated attribute header at byte " + std::to_string(at);
            return false;
        }
        const int attrSize = (b[at + 2] << 8) | b[at + 3];
        if (attrSize < 4) {
            readError = "attribute " + std::to_string(b[at]) + " of size " + std::to_string(attrSize);
            return false;
        }
        if (attrSize > size - at) {
            readError = "oversized attribute " + std::to_string(b[at]) + " of " + std::to_string(attrSize) +
                        " bytes in a packet of " + std::to_string(size);
            return false;
        }
        at += attrSize;
    }
    return true;
}

} // namespace zel5sim
