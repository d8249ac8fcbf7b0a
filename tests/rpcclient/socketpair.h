// Test helpers for driving the protocol over real descriptors: a connected
// pair of local stream sockets with bounded reads, and byte strings written
// as hexadecimal text so that expected wire images read like a capture.
#ifndef ZEL5_TESTS_SOCKETPAIR_H
#define ZEL5_TESTS_SOCKETPAIR_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace zel5test {

using Bytes = std::vector<unsigned char>;

// "C9 23 00 04" -> {0xC9, 0x23, 0x00, 0x04}; spaces are ignored.
inline Bytes hexBytes(const std::string& text)
{
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (std::isspace(static_cast<unsigned char>(c)))
            continue;
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw std::invalid_argument("not a hex digit in " + text);
        int v = std::isdigit(static_cast<unsigned char>(c)) ? c - '0' : (std::tolower(c) - 'a' + 10);
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<unsigned char>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0)
        throw std::invalid_argument("odd number of hex digits in " + text);
    return out;
}

inline Bytes concat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// One attribute as it appears on the wire: code, reserved 0, big-endian size
// counting the 4 header bytes, payload.
inline Bytes wireAttr(int code, const Bytes& payload)
{
    std::size_t size = payload.size() + 4;
    Bytes out{static_cast<unsigned char>(code), 0, static_cast<unsigned char>(size >> 8),
              static_cast<unsigned char>(size & 0xFF)};
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// A whole packet built by hand, independent of the packet class under test.
inline Bytes wirePacket(int code, std::initializer_list<std::pair<int, Bytes>> attrs)
{
    Bytes body;
    for (const auto& [c, payload] : attrs) {
        Bytes a = wireAttr(c, payload);
        body.insert(body.end(), a.begin(), a.end());
    }
    std::size_t size = body.size() + 4;
    Bytes out{static_cast<unsigned char>(code), 0x23, static_cast<unsigned char>(size >> 8),
              static_cast<unsigned char>(size & 0xFF)};
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

// Two connected AF_UNIX stream sockets. Either end can be handed over to an
// object that closes it itself (the packet stream does); the pair closes only
// the ends it still owns.
class SocketPair {
public:
    SocketPair()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
            throw std::runtime_error(std::string("socketpair: ") + std::strerror(errno));
    }
    ~SocketPair()
    {
        for (int fd : fds)
            if (fd >= 0)
                ::close(fd);
    }
    SocketPair(const SocketPair&) = delete;
    SocketPair& operator=(const SocketPair&) = delete;

    int near() const { return fds[0]; }
    int peer() const { return fds[1]; }

    // Gives up ownership of the near end, for a stream that closes it.
    int releaseNear()
    {
        int fd = fds[0];
        fds[0] = -1;
        return fd;
    }

    int releasePeer()
    {
        int fd = fds[1];
        fds[1] = -1;
        return fd;
    }

    void closePeer()
    {
        if (fds[1] >= 0)
            ::close(fds[1]);
        fds[1] = -1;
    }

    // Writes every byte on the given end (blocking).
    static void writeAll(int fd, const Bytes& bytes)
    {
        std::size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw std::runtime_error(std::string("send: ") + std::strerror(errno));
            done += static_cast<std::size_t>(n);
        }
    }
    void writePeer(const Bytes& bytes) const { writeAll(fds[1], bytes); }

    // Reads up to n bytes, giving up after timeoutMs without new input or at
    // end of stream; returns what arrived.
    static Bytes readUpTo(int fd, std::size_t n, int timeoutMs = 2000)
    {
        Bytes out;
        unsigned char chunk[4096];
        while (out.size() < n) {
            pollfd p{fd, POLLIN, 0};
            int r = ::poll(&p, 1, timeoutMs);
            if (r < 0 && errno == EINTR)
                continue;
            if (r <= 0)
                break;
            std::size_t want = std::min(n - out.size(), sizeof chunk);
            ssize_t got = ::recv(fd, chunk, want, 0);
            if (got <= 0)
                break;
            out.insert(out.end(), chunk, chunk + got);
        }
        return out;
    }
    Bytes readPeer(std::size_t n, int timeoutMs = 2000) const { return readUpTo(fds[1], n, timeoutMs); }

    // Everything already queued for reading, without waiting.
    static Bytes readReady(int fd) { return readUpTo(fd, 1 << 20, 0); }
    Bytes readPeerReady() const { return readReady(fds[1]); }

private:
    int fds[2] = {-1, -1};
};

} // namespace zel5test

#endif
