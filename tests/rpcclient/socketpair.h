// Test helpers: a connected pair of local stream sockets, and wire images
// written as hexadecimal text so that they read like a capture.
#ifndef ZEL5_TESTS_SOCKETPAIR_H
#define ZEL5_TESTS_SOCKETPAIR_H

#include <sys/socket.h>
#include <unistd.h>

#include <iomanip>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace zel5test {

using Bytes = std::vector<unsigned char>;

// "C9 23 00 04" -> {0xC9, 0x23, 0x00, 0x04}; spaces are ignored.
inline Bytes hexBytes(const std::string& hex)
{
    Bytes out;
    std::istringstream in(hex);
    for (std::string pair; in >> std::setw(2) >> pair;)
        out.push_back(static_cast<unsigned char>(std::stoi(pair, nullptr, 16)));
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// A 4-byte head (b0, b1, big-endian size counting the head) and the body.
inline Bytes sized(int b0, int b1, const Bytes& body)
{
    using u8 = unsigned char;
    std::size_t n = body.size() + 4;
    return concat({{u8(b0), u8(b1), u8(n >> 8), u8(n)}, body});
}

// A whole packet built by hand, independent of the packet class under test.
inline Bytes wirePacket(int code, std::initializer_list<std::pair<int, Bytes>> attrs)
{
    Bytes body;
    for (const auto& [c, payload] : attrs)
        body = concat({body, sized(c, 0, payload)});
    return sized(code, 0x23, body);
}

// A data packet (code 200) of values given in hexadecimal.
inline Bytes wireData(std::initializer_list<const char*> values)
{
    Bytes body;
    for (const char* v : values)
        body = concat({body, sized(5, 0, hexBytes(v))});
    return sized(200, 0x23, body);
}

// Two connected local stream sockets. An end handed to a stream, which closes
// it itself, is released first; the pair closes only the ends it still owns.
struct SocketPair {
    int fds[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, fds); }
    ~SocketPair() { ::close(fds[0]); ::close(fds[1]); } // a released end is -1
    int near() const { return fds[0]; }
    int peer() const { return fds[1]; }
    int release(int end) { return std::exchange(fds[end], -1); }
    void closePeer() { ::close(release(1)); }

    // Writes every byte, blocking as needed; stops when the other end went away.
    void writePeer(const Bytes& bytes) const
    {
        for (std::size_t done = 0; done < bytes.size();) {
            ssize_t n = ::send(fds[1], bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0)
                return;
            done += static_cast<std::size_t>(n);
        }
    }

    // Everything already queued at the peer's end; writes on a local socket
    // pair are there as soon as they return.
    Bytes readPeer() const
    {
        Bytes out(1 << 16);
        ssize_t n = ::recv(fds[1], out.data(), out.size(), MSG_DONTWAIT);
        out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return out;
    }
};

} // namespace zel5test

#endif
