// One end of a benchmark connection, plain or through an established TLS
// connection, with whole-buffer transfers on a blocking socket. Used by the
// scripted server and by the hand-made floors; no protocol library.
#ifndef ZEL5_BENCH_CHANNEL_H
#define ZEL5_BENCH_CHANNEL_H

#include "wirebytes.h"

#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace wire {

class Channel {
public:
    Channel() = default;
    explicit Channel(int socket) : fd(socket) {}
    ~Channel() { close(); }
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    bool write(const std::string& bytes) { return write(bytes.data(), bytes.size()); }
    bool write(const char* p, std::size_t n)
    {
        while (n > 0) {
            const long r = ssl ? SSL_write(ssl, p, int(n)) : ::send(fd, p, n, MSG_NOSIGNAL);
            if (r <= 0)
                return false;
            p += r;
            n -= std::size_t(r);
        }
        return true;
    }
    bool read(char* p, std::size_t n)
    {
        while (n > 0) {
            const long r = ssl ? SSL_read(ssl, p, int(n)) : ::recv(fd, p, n, MSG_WAITALL);
            if (r <= 0)
                return false;
            p += r;
            n -= std::size_t(r);
        }
        return true;
    }
    // Up to cap bytes of what has arrived, waiting for at least one.
    long readSome(char* p, std::size_t cap) { return ssl ? SSL_read(ssl, p, int(cap)) : ::recv(fd, p, cap, 0); }

    // One whole packet into buf (65535 bytes): its size, or 0 on failure.
    int readPacket(char* buf)
    {
        if (!read(buf, 4))
            return 0;
        const int size = int(be16At(buf + 2));
        return size >= 4 && read(buf + 4, std::size_t(size - 4)) ? size : 0;
    }

    // Runs the TLS handshake in the given role on the connected socket.
    bool secure(SSL_CTX* ctx, bool client)
    {
        ssl = SSL_new(ctx);
        if (!ssl || SSL_set_fd(ssl, fd) != 1)
            return false;
        SSL_set_mode(ssl, SSL_MODE_AUTO_RETRY);
        return (client ? SSL_connect(ssl) : SSL_accept(ssl)) == 1;
    }

    // Leaves quietly: no closing alert is sent or awaited.
    void close()
    {
        if (ssl) {
            SSL_set_quiet_shutdown(ssl, 1);
            SSL_shutdown(ssl);
            SSL_free(ssl);
            ssl = nullptr;
        }
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }

    int fd = -1;
    SSL* ssl = nullptr;
};

// The attributes of a packet of size bytes, one after the other.
struct AttrWalk {
    const char* packet;
    int size;
    int at = 4;
    // The next attribute's code, payload and payload length; false at the
    // end or at a malformed attribute.
    bool next(int& code, const char*& payload, int& len)
    {
        const int n = at + 4 <= size ? int(be16At(packet + at + 2)) : 0;
        if (n < 4 || at + n > size)
            return false;
        code = std::uint8_t(packet[at]);
        payload = packet + at + 4;
        len = n - 4;
        at += n;
        return true;
    }
};

// The payload of the first attribute of code, or null; its length in len.
inline const char* findAttr(const char* packet, int size, int code, int& len)
{
    AttrWalk walk{packet, size};
    int c = 0;
    const char* p = nullptr;
    while (walk.next(c, p, len))
        if (c == code)
            return p;
    return nullptr;
}

} // namespace wire

#endif
