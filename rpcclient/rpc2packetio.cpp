// Direct socket input and output of a packet, attribute by attribute, over a
// plain descriptor. Thin wrappers over the packet's memory routines.
#include "rpc2packet.h"

#include <cerrno>
#include <memory>
#include <new>
#include <poll.h>
#include <sys/socket.h>

namespace ZEL {

namespace {

void send_all(int fd, const char* p, int len)
{
    while (len > 0) {
        const ssize_t n = ::send(fd, p, static_cast<size_t>(len), MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            throw int(errno);
        }
        p += n;
        len -= static_cast<int>(n);
    }
}

void recv_all(int fd, char* p, int len, int flags = 0)
{
    const ssize_t n = ::recv(fd, p, static_cast<size_t>(len), MSG_WAITALL | MSG_NOSIGNAL | flags);
    if (n < 0)
        throw int(errno);
    if (n != len)
        throw int(ec_pipe); // the peer closed before the whole unit arrived
}

// Bytes one fragmented packet may carry at most, like a whole packet.
constexpr int fragmented_limit = rpc2_max_packet;

} // namespace

void RPC2Packet::send_header(int fd) const
{
    char b[4];
    dump_header(b);
    send_all(fd, b, 4);
}

void RPC2Packet::send_attr(int fd, const __rpc2_attr* a) const
{
    char b[4];
    b[0] = static_cast<char>(a->code);
    b[1] = 0;
    b[2] = static_cast<char>(a->size >> 8);
    b[3] = static_cast<char>(a->size & 0xFF);
    send_all(fd, b, 4);
    if (!a->vbase.empty())
        send_all(fd, reinterpret_cast<const char*>(a->vbase.data()), static_cast<int>(a->vbase.size()));
}

void RPC2Packet::recv_header(int fd)
{
    char b[4];
    recv_all(fd, b, 4);
    parse_header(b, 4);
}

bool RPC2Packet::recv_header_check(int fd) const
{
    unsigned char c;
    const ssize_t n = ::recv(fd, &c, 1, MSG_PEEK | MSG_NOSIGNAL);
    if (n < 0)
        throw int(errno);
    if (n == 0)
        throw int(ec_pipe);
    return (c | rc_hdr_mask) == c;
}

RPC2Packet::__rpc2_attr* RPC2Packet::recv_attr(int fd) const
{
    unsigned char h[4];
    recv_all(fd, reinterpret_cast<char*>(h), 4, MSG_PEEK);
    const int size = (int(h[2]) << 8) | h[3];
    if (size < 4)
        throw int(ec_inval);
    std::unique_ptr<unsigned char[]> buf(new (std::nothrow) unsigned char[size]);
    if (!buf)
        throw int(ec_nomem);
    recv_all(fd, reinterpret_cast<char*>(buf.get()), size);
    return parse_attr(buf.get(), size);
}

void RPC2Packet::recv_attr(int fd, int len)
{
    if (len < 0 || len > fragmented_limit)
        throw int(ec_inval);
    if (len == 0)
        return;
    std::unique_ptr<char[]> buf(new (std::nothrow) char[len]);
    if (!buf)
        throw int(ec_nomem);
    recv_all(fd, buf.get(), len);
    if (parse_attr(buf.get(), len) != len)
        throw int(ec_badmsg);
}

void RPC2Packet::recv_attr_cont(int fd)
{
    int got = 0;
    while (recv_ready(fd)) {
        __rpc2_attr* a = recv_attr(fd);
        got += a->size;
        store(a);
        if (got > fragmented_limit)
            throw int(ec_badmsg);
    }
}

bool RPC2Packet::recv_ready(int fd) const
{
    pollfd p{fd, POLLIN | POLLERR, 0};
    const int r = ::poll(&p, 1, 0);
    if (r < 0)
        throw int(errno);
    return r > 0 && (p.revents & POLLIN);
}

} // namespace ZEL
