#include "rpc2stream.h"
#include "rpc2bio.h"
#include "rpcctx.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace ZEL {

namespace {

constexpr int poll_timeout_ms = 50;

ui32 get_be32(const unsigned char* p)
{
    return (ui32(p[0]) << 24) | (ui32(p[1]) << 16) | (ui32(p[2]) << 8) | ui32(p[3]);
}

} // namespace

RPC2Stream::RPC2Stream(RPCServer* server) : RPC2Stream(0, server) {}

RPC2Stream::RPC2Stream(int sock, RPCServer* server)
    : _in_index(0), _prepacket_out(0), _prepacket_in(0), _uid(0), _uip(0), conn_type(0),
      ssl_sock(nullptr), sc(sock), buf(new char[rpc2_max_packet]), _server(server), flags(0),
      errcode(0)
{
}

RPC2Stream::~RPC2Stream()
{
    delete[] buf;
    if (ssl_sock)
        SSL_free(ssl_sock);
    // Descriptor 0 is the "no socket" value of the session; never close it,
    // or a later descriptor 0 of somebody else's would be closed.
    if (sc > 0)
        ::close(sc);
}

int RPC2Stream::sock(int s)
{
    sc = s;
    _nonblocking_sock = -1;
    if (_nonblocking)
        make_nonblocking();
    return 0;
}

void RPC2Stream::clear()
{
    rp_in.clear();
    rp_out.clear();
    _prepacket_out = 0;
    _prepacket_in = 0;
}

RPC2Stream& RPC2Stream::operator<<(const RPC2Packet& p)
{
    // A packet too large for the buffer is not sent at all; the peer's
    // silence shows at the next receive.
    if (p.packet_size() > rpc2_max_packet)
        return *this;
    rp_in.detach(); // the buffer is about to be overwritten
    const int n = p.dump(buf, rpc2_max_packet);
    if (n > 0)
        send(buf, n);
    return *this;
}

// ---- raw transfer ---------------------------------------------------------

int RPC2Stream::send(const char* data, int len)
{
    if (bounded())
        return send_polled(data, len);
    if (!ssl_sock)
        return static_cast<int>(::send(sc, data, static_cast<size_t>(len), MSG_NOSIGNAL));
    for (;;) {
        ERR_clear_error();
        const int r = SSL_write(ssl_sock, data, len);
        if (r >= 1)
            return r;
        if (SSL_get_error(ssl_sock, r) != SSL_ERROR_WANT_WRITE)
            return -ec_inval;
    }
}

int RPC2Stream::recv(char* data, int len)
{
    if (bounded())
        return recv_polled(data, len);
    if (!ssl_sock)
        return static_cast<int>(::recv(sc, data, static_cast<size_t>(len), MSG_WAITALL | MSG_NOSIGNAL));
    ERR_clear_error();
    int off = 0;
    while (off < len) {
        const int r = SSL_read(ssl_sock, data + off, len - off);
        if (r >= 1) {
            off += r;
            continue;
        }
        const int e = SSL_get_error(ssl_sock, r);
        if (e == SSL_ERROR_NONE)
            continue;
        if (e == SSL_ERROR_WANT_READ) {
            // Start the whole receive over; automatic retry makes this rare.
            off = 0;
            continue;
        }
        // Negative, so that a failure never reads as a count of bytes.
        return -ec_inval;
    }
    return len;
}

int RPC2Stream::poll()
{
    return poll_for(poll_timeout_ms);
}

int RPC2Stream::poll_for(int ms)
{
    if (ssl_sock && SSL_pending(ssl_sock) > 0)
        return 0;
    errno = 0;
    pollfd p{sc, POLLIN | POLLERR | POLLHUP, 0};
    const int r = ::poll(&p, 1, ms);
    if (r == 0)
        return ec_timedout;
    if (r < 0)
        return errno == EINTR ? static_cast<int>(ec_timedout) : r;
    if (p.revents & POLLIN)
        return 0;
    if (p.revents & (POLLERR | POLLHUP | POLLNVAL))
        return -ec_inval;
    return 0;
}

// ---- whole packets --------------------------------------------------------

int RPC2Stream::recv_packet()
{
    if (sc <= 0) {
        flags |= ef_socket;
        errcode = ec_inval;
        return ec_inval;
    }
    // A bounded stream starts a packet only before its deadline and while
    // not cancelled. A round without input is "not yet" in either mode.
    int ms = poll_timeout_ms;
    if (bounded() && (ms = round_ms()) < 0)
        return ec_inval;
    // The input packet is parsed in the buffer the next one is read into.
    rp_in.detach();
    // Input that is already there needs no poll round.
    int got = recv_head_ready();
    if (got < 0)
        return short_read(got);
    if (got == 0) {
        const int pr = poll_for(ms);
        if (pr == ec_timedout)
            return ec_timedout;
        if (pr < 0) {
            flags |= ef_socket;
            errcode = ec_inval;
            return ec_inval;
        }
    }
    if (got < 4) {
        const int n = recv(buf + got, 4 - got);
        if (n != 4 - got)
            return short_read(n < 0 ? n : got + n);
    }
    rp_in.parse_header(buf, 4);
    const int size = rp_in.size();
    // Size 0 (fragmented) and sizes below the header's own cannot be read
    // into the buffer as one packet.
    if (size < 4) {
        flags |= ef_session;
        errcode = ec_inval;
        return ec_inval;
    }
    if (size > 4) {
        if (const int n = recv(buf + 4, size - 4); n != size - 4)
            return short_read(n);
    }
    if (rp_in.parse_in_place(buf, size) != size) {
        flags |= ef_session;
        errcode = ec_badmsg;
        return ec_inval;
    }
    return ec_ok;
}

int RPC2Stream::recv_head_ready()
{
    if (!ssl_sock) {
        // Nothing, an end of input or an error: the poll round reports it.
        const ssize_t r = ::recv(sc, buf, 4, MSG_DONTWAIT);
        return r > 0 ? static_cast<int>(r) : 0;
    }
    BIO* bio = SSL_get_rbio(ssl_sock);
    ERR_clear_error();
    socket_bio_nowait(bio, true);
    const int r = SSL_read(ssl_sock, buf, 4);
    socket_bio_nowait(bio, false);
    if (r > 0)
        return r;
    // A TLS layer that wants to write first is retried in the next round.
    const int e = SSL_get_error(ssl_sock, r);
    return e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE ? 0 : -ec_inval;
}

int RPC2Stream::short_read(int n)
{
    // A deadline or cancellation that ended the read has recorded its reason.
    if (n != -ec_timedout && n != -ec_pipe) {
        ERR_print_errors_fp(stderr);
        flags |= ef_session;
        errcode = ec_inval;
    }
    return ec_inval;
}

int RPC2Stream::listen()
{
    while (recv_packet() == ec_timedout) {
    }
    return 0;
}

// ---- typed output ---------------------------------------------------------

template <typename T> int RPC2Stream::data_put(T value)
{
    if (_prepacket_out == 0) {
        rp_out.clear();
        rp_out.code(rc_session_data);
        _prepacket_out = 1;
    }
    const ui32 be = htonl(static_cast<ui32>(static_cast<std::int32_t>(value)));
    int raw;
    std::memcpy(&raw, &be, 4);
    return rp_out.put(ra_data, raw);
}

template int RPC2Stream::data_put<int>(int);
template int RPC2Stream::data_put<long>(long);

int RPC2Stream::end_output()
{
    if (_prepacket_out == 1) {
        _prepacket_out = 0;
        *this << rp_out;
        rp_out.clear();
    }
    return 0;
}

// ---- typed input ----------------------------------------------------------

int RPC2Stream::refill()
{
    if (rp_in.find(ra_data))
        return ec_ok;
    rp_in.clear();
    _prepacket_in = 0;
    int r;
    while ((r = recv_packet()) == ec_timedout) {
    }
    if (r != ec_ok)
        return r;
    if (rp_in.code() != rc_session_data)
        return ec_badmsg;
    return ec_ok;
}

const char* RPC2Stream::next_packet_value(int& r)
{
    r = refill();
    if (r != ec_ok)
        return nullptr;
    const char* a = rp_in.next_data();
    if (!a)
        r = ec_noent;
    return a;
}

int RPC2Stream::get64_short(ui64& raw, const char* a)
{
    const int len = RPC2Packet::attr_size(a) - 4;
    if (len > 8)
        return ec_inval;
    // A payload shorter than 8 bytes is accepted; the missing low-order
    // bytes read as zero.
    unsigned char b[8] = {0, 0, 0, 0, 0, 0, 0, 0};
    std::memcpy(b, a + 4, static_cast<std::size_t>(len));
    raw = (ui64(get_be32(b)) << 32) | get_be32(b + 4);
    rp_in.skip_data(a);
    return ec_ok;
}

template <> int RPC2Stream::data_get<std::string>(std::string& value)
{
    int r;
    const char* a = next_value(r);
    if (!a)
        return r;
    try {
        value.assign(a + 4, static_cast<std::size_t>(RPC2Packet::attr_size(a) - 4));
    } catch (const std::bad_alloc&) {
        return ec_nomem;
    }
    rp_in.skip_data(a);
    return ec_ok;
}

int RPC2Stream::data_get_new(char*& data, int& len)
{
    int r;
    const char* a = next_value(r);
    if (!a)
        return r;
    const int n = RPC2Packet::attr_size(a) - 4;
    char* copy = new (std::nothrow) char[n > 0 ? n : 1];
    if (!copy)
        return ec_nomem;
    if (n)
        std::memcpy(copy, a + 4, static_cast<std::size_t>(n));
    rp_in.skip_data(a);
    data = copy;
    len = n;
    return ec_ok;
}

int RPC2Stream::end_input()
{
    rp_in.clear();
    _prepacket_in = 0;
    return 0;
}

std::string RPC2Stream::user_ip_str() const
{
    in_addr a;
    a.s_addr = htonl(static_cast<ui32>(_uip));
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &a, text, sizeof text);
    return text;
}

} // namespace ZEL
