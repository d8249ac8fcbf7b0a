// A packet stream on one connected socket, plain or through SSL/TLS, with the
// typed value interface used for the arguments and results of server calls.
#ifndef ZEL_RPC2STREAM_H
#define ZEL_RPC2STREAM_H

#include "rpc2packet.h"
#include "rpc2proto.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <string>

typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace ZEL {

class RPCServer;
class RPCClient;

class RPC2Stream {
public:
    enum error_flags {
        ef_socket = 0x8000,
        ef_proto = 0x0800,
        ef_session = 0x0400,
        ef_sdata = 0x0080,
        ef_inteof = 0x0040,
        ef_eof = 0x0020,
        ef_access = 0x0010,
        ef_timedout = 0x0008,
        ef_pack = 0x0004,
        ef_recv = 0x0002,
        ef_critical = 0xF000,
        ef_error = 0x0F00,
        ef_warning = 0x00F0,
        ef_bad = 0xFF00,
        ef_fail = 0xFFF0,
    };

    explicit RPC2Stream(RPCServer* server = nullptr);
    RPC2Stream(int sock, RPCServer* server);
    ~RPC2Stream();
    RPC2Stream(const RPC2Stream&) = delete;
    RPC2Stream& operator=(const RPC2Stream&) = delete;

    int sock(int s);
    int sock() const { return sc; }
    RPC2Packet& packet() { return rp_in; }
    void clear();
    RPC2Stream& operator<<(const RPC2Packet& p);

    // Raw transfer on the current channel. recv returns the count asked for,
    // or a short or negative count on failure (-22 for a failed SSL read).
    int send(const char* data, int len);
    int recv(char* data, int len);
    int poll();

    // Whole packets into rp_in.
    int listen();
    int recv_packet();

    // Bounds. With no bound armed and no cancel flag the stream waits
    // exactly as a blocking socket does. set_timeout(ms) arms a deadline ms
    // from now (0 or less disarms it) that every wait until the next call
    // shares: a wait past it fails, records ef_timedout with a critical flag
    // (bad() turns true) and error() ec_timedout. A set cancel flag that
    // reads true fails the wait the same way within one 50 ms poll round,
    // with error() ec_pipe; the flag may be set from any thread. Once either
    // was used the socket is non-blocking and every transfer polls.
    void set_timeout(int ms);
    void set_cancel(const std::atomic<bool>* flag);
    bool timed_out() const { return (flags & ef_timedout) != 0; }

    // Typed output: data_put<int>, data_put<long>.
    int begin_output() { return 0; }
    template <typename T> int data_put(T value);
    int end_output();

    // Typed input: data_get<int|long|unsigned int|long long|double>. 32-bit
    // values must be exactly 4 bytes; 64-bit ones at most 8, a shorter one
    // reading its missing low-order bytes as zero. data_get<std::string>
    // takes a value's bytes as they are, any length, like data_get_new,
    // which hands out a new[] array the caller frees with delete[].
    template <typename T> int data_get(T& value);
    int data_get_new(char*& data, int& len);
    int end_input();

    // Secure channel.
    int ssl_connect(int type);
    int __ssl_init(int type);
    int __ssl_connect();
    int ssl_shutdown();
    int __ssl_shutdown();
    // Server side: wraps the socket in a connection of the given context and
    // runs the server half of the handshake. 0, 22 without a context, 13 when
    // the handshake fails.
    int __ssl_accept(SSL_CTX* ctx, int type);

    // Error state. Flags only grow.
    int bad() const { return flags & ef_bad; }
    int fail() const { return flags & ef_fail; }
    int good() const { return flags == 0; }
    int eof() const { return flags & ef_eof; }
    int access() const { return flags & ef_access; }
    int error() const { return errcode; }
    int error_flags_word() const { return flags; }
    int channel() const { return conn_type; }

    // Server-side bookkeeping.
    int uid() const { return _uid; }
    void uid(int u) { _uid = u; }
    int user_ip() const { return _uip; }
    void user_ip(int ip) { _uip = ip; }
    std::string user_ip_str() const;

private:
    // The session drops a bounded stream without waiting (stop_waiting).
    friend class RPCClient;

    int __ssl_bind(SSL_CTX* ctx, int type);
    // Bounded mode: waits for the socket to be ready, at most until the
    // deadline; 0, or ec_timedout / ec_pipe with the flags recorded.
    int wait_ready(short events);
    bool bounded() const { return _nonblocking; }
    void make_nonblocking();
    // Bounded mode: the length of the next poll round in ms, or -1 with the
    // failure recorded when the cancel flag is set or the deadline passed.
    int round_ms();
    // Waits at most ms for input (or input the TLS layer already holds):
    // 0, ec_timedout when none came, negative on a hang-up or error.
    int poll_for(int ms);
    // Bounded transfers. recv: len, a short count when the peer closed,
    // -ec_timedout or -ec_pipe whenever a bound ended it. send: len, a
    // short count, or negative when nothing went out (-ec_timedout or
    // -ec_pipe when a bound stopped it).
    int recv_polled(char* data, int len);
    int send_polled(const char* data, int len);
    // After an SSL call failed with ssl_error: 0 when it may be retried
    // (bounded mode, the socket became ready), otherwise nonzero.
    int ssl_wait(int ssl_error);
    int ssl_handshake(bool client);
    // A receive that came back short: records why, returns ec_inval.
    int short_read(int n);
    // From now on every wait fails at once; transfers that need no wait
    // still go through. Used for a best-effort goodbye.
    void stop_waiting();
    int refill();
    // The data value under the input packet's cursor, reading the next
    // packet when this one has none left; null with the failure in r.
    const char* next_value(int& r);
    const char* next_packet_value(int& r);
    static ui32 be32(const char* p);
    // Reads what has arrived of the next packet's header into buf without
    // waiting: its count, 0 when nothing has, or -ec_inval when the TLS
    // layer failed.
    int recv_head_ready();
    int get32(ui32& raw);
    int get64(ui64& raw);
    int get64_short(ui64& raw, const char* a);

    ui32 _in_index;
    int _prepacket_out;
    int _prepacket_in;
    int _uid;
    int _uip;
    int conn_type;
    SSL* ssl_sock;
    sock_t sc;
    char* buf;
    RPC2Packet rp_in;
    RPC2Packet rp_out;
    RPCServer* _server;
    int flags;
    int errcode;
    bool _nonblocking = false;
    int _nonblocking_sock = -1; // the socket already switched, if any
    bool _has_deadline = false;
    std::chrono::steady_clock::time_point _deadline;
    const std::atomic<bool>* _cancel = nullptr;
};

// The typed values the wire knows; other types do not link. The numbers,
// below, are read inline: a value already in the input packet costs no
// call, which counts in a reply of a hundred thousand values.
template <> int RPC2Stream::data_get<std::string>(std::string& value);

inline const char* RPC2Stream::next_value(int& r)
{
    if (const char* a = rp_in.next_data())
        return a;
    return next_packet_value(r);
}

inline ui32 RPC2Stream::be32(const char* p)
{
    const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
    return (ui32(u[0]) << 24) | (ui32(u[1]) << 16) | (ui32(u[2]) << 8) | ui32(u[3]);
}

inline int RPC2Stream::get32(ui32& raw)
{
    int r;
    const char* a = next_value(r);
    if (!a)
        return r;
    if (RPC2Packet::attr_size(a) != 8)
        return ec_inval;
    raw = be32(a + 4);
    rp_in.skip_data(a);
    return ec_ok;
}

inline int RPC2Stream::get64(ui64& raw)
{
    int r;
    const char* a = next_value(r);
    if (!a)
        return r;
    if (RPC2Packet::attr_size(a) != 12)
        return get64_short(raw, a);
    raw = (ui64(be32(a + 4)) << 32) | be32(a + 8);
    rp_in.skip_data(a);
    return ec_ok;
}

template <> inline int RPC2Stream::data_get<int>(int& value)
{
    ui32 v = 0;
    const int r = get32(v);
    if (r == ec_ok)
        value = static_cast<std::int32_t>(v);
    return r;
}

template <> inline int RPC2Stream::data_get<long>(long& value)
{
    ui32 v = 0;
    const int r = get32(v);
    if (r == ec_ok)
        value = static_cast<std::int32_t>(v);
    return r;
}

template <> inline int RPC2Stream::data_get<unsigned int>(unsigned int& value)
{
    ui32 v = 0;
    const int r = get32(v);
    if (r == ec_ok)
        value = v;
    return r;
}

template <> inline int RPC2Stream::data_get<long long>(long long& value)
{
    ui64 v = 0;
    const int r = get64(v);
    if (r == ec_ok)
        value = static_cast<long long>(v);
    return r;
}

template <> inline int RPC2Stream::data_get<double>(double& value)
{
    ui64 v = 0;
    const int r = get64(v);
    if (r == ec_ok)
        std::memcpy(&value, &v, sizeof value);
    return r;
}
extern template int RPC2Stream::data_put<int>(int value);
extern template int RPC2Stream::data_put<long>(long value);

} // namespace ZEL

#endif
