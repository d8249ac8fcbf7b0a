// libFuzzer harness: any bytes from the network go through the packet parser
// and the stream's typed reads without a crash, an out-of-bounds read, a leak
// or an allocation the bytes could size.
#include "rpc2packet.h"
#include "rpc2stream.h"

#include <cstdint>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

void parse_and_dump(const char* data, int len)
{
    ZEL::RPC2Packet p;
    const int r = p.parse(data, len);
    // Code 0 is the "no header" packet callers never send.
    if (r != p.size() || p.code() == 0)
        return;
    // A packet that parsed whole dumps again (a repeated control attribute
    // was dropped, so the size may shrink) and parses back to that size.
    std::vector<char> out(ZEL::rpc2_max_packet);
    const int n = p.dump(out.data(), static_cast<int>(out.size()));
    if (n != p.packet_size() || n > r || out[0] != data[0])
        __builtin_trap();
    ZEL::RPC2Packet again;
    if (again.parse(out.data(), n) != n)
        __builtin_trap();
    int v;
    while (p.get(ZEL::ra_data, v) == ZEL::ec_ok) {
    }
}

// The same bytes as a peer's reply: read typed values until the stream fails.
void read_as_stream(const std::uint8_t* data, size_t size)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0)
        return;
    if (size > 0 && write(sv[1], data, size) != static_cast<ssize_t>(size)) {
        close(sv[0]);
        close(sv[1]);
        return;
    }
    close(sv[1]); // the peer hangs up after its bytes
    ZEL::RPC2Stream s(sv[0], nullptr);
    for (int i = 0; i < 64; ++i) {
        int r;
        if (i % 3 == 0) {
            long long v;
            r = s.data_get(v);
        } else if (i % 3 == 1) {
            int v;
            r = s.data_get(v);
        } else {
            char* text = nullptr;
            int len = 0;
            r = s.data_get_new(text, len);
            delete[] text;
        }
        if (s.bad() || (r != 0 && r != ZEL::ec_inval && r != ZEL::ec_noent))
            break;
        if (r == ZEL::ec_noent)
            s.end_input();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size)
{
    if (size > ZEL::rpc2_max_packet)
        return 0;
    parse_and_dump(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (size <= 60000)
        read_as_stream(data, size);
    return 0;
}
