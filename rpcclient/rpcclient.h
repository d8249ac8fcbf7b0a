// The client end of a session with the billing server: TCP connect, the
// challenge-response login, the optional switch to SSL/TLS, numbered calls
// and the end of the session.
#ifndef ZEL_RPCCLIENT_H
#define ZEL_RPCCLIENT_H

#include "rpc2proto.h"
#include "rpc2stream.h"

#include <netinet/in.h>
#include <atomic>
#include <string>

namespace ZEL {

class RPC2Packet;

// Resolves host into out (IPv4). 0; 2 without a host; 12 without a work
// buffer; otherwise the resolver's host-error number.
int fill_sin(const char* host, short port, sockaddr_in* out);

class RPCClient {
public:
    RPCClient();
    RPCClient(const char* host, int port);
    RPCClient(const RPCClient& other);
    RPCClient& operator=(const RPCClient&) = delete;
    ~RPCClient();

    int addr(const char* host, short port);

    void set_auth(const char* user, const char* password);
    int user_type() const { return _service; }
    void user_type(int t) { _service = t; }
    void plain_user() { _service = rut_user; }
    void service() { _service = rut_service; }
    void card_user() { _service = rut_card_user; }
    int ssl_type() const { return _ssl_type; }
    void ssl_none() { _ssl_type = rsr_ssl_none; }
    void ssl_tls1() { _ssl_type = rsr_ssl_tls1; }
    void ssl_ssl3() { _ssl_type = rsr_ssl_ssl3; }

    int connected() const { return _connected; }
    int key(const char* bytes);
    int key(RPC2::key128_t k);
    const RPC2::key128_t& get_skey() const { return _sk; }
    int set_skey(const RPC2::key128_t& k) { return key(k); }

    static int _key_scan(unsigned char* out, const char* text);
    static int _key_print(const unsigned char* key, char* out);
    static int key_scan(unsigned char* out, const char* text) { return _key_scan(out, text); }
    static int key_print(const unsigned char* key, char* out) { return _key_print(key, out); }

    // Bounds, all off (0) by default: then every wait is unbounded, as a
    // blocking socket's. connect: the TCP connect. timeout: each of the
    // login's waits (greeting, answer, TLS handshake). call: a whole call,
    // from _call to end_call. A wait that passes its bound fails as the
    // stream's does (ef_timedout, bad()).
    void set_connect_timeout(int ms) { _connect_ms = ms; }
    void set_timeout(int ms) { _login_ms = ms; }
    void set_call_timeout(int ms) { _call_ms = ms; }
    // TCP keepalive on the session's socket from the next connect on:
    // idle seconds before the first probe, seconds between probes, probes.
    void set_keepalive(int idle_s, int interval_s, int count);
    // A flag that, once true, cuts every wait short (connect included)
    // within one 50 ms poll round. Set from any thread; the flag must
    // outlive the client.
    void set_cancel(const std::atomic<bool>* flag);
    // Why the last connect or login failed, errno-style: ec_timedout when
    // a bound passed, the socket's error (ECONNREFUSED, ...) of a failed
    // connect, ec_pipe when cancelled, ec_access for a refused login, EPROTO
    // for a failed TLS handshake, ec_badmsg for a wrong greeting or answer,
    // 0 after success.
    int last_error() const { return _last_error; }

    int connect();
    int disconnect();
    int open_session(unsigned long client_ip);
    int restore_session(const char* key, unsigned long client_ip);
    int close_session();
    int drop_session();

    int _call(int function);
    int call(int function) { return _call(function); }
    int end_call();

    RPC2Stream& rpcstream() { return _rst; }
    int begin_output() { return _rst.begin_output(); }
    int end_output() { return _rst.end_output(); }
    RPC2Packet& packet() { return _rst.packet(); }
    RPCClient& send(const RPC2Packet& p);

    const sockaddr_in& server_address() const { return _serv; }

private:
    // Connects and reads the greeting: 0, 22 without a connection, 74 (and
    // disconnected) for anything but a version 2.3 greeting.
    int await_greeting();
    // 0, or 22 (and disconnected) when the stream went bad.
    int send_request(const RPC2Packet& request);
    // Reads the answer to a login request; a restore passes the key that
    // becomes the session's on acceptance.
    int login_answer(const RPC2::key128_t* accepted_key = nullptr);
    // Records why a login failed (reason, unless a bound passed or the
    // cancel flag ended it) and returns result.
    int login_failed(int result, int reason);
    // Disarms the login's bound and clears the last error; returns 0.
    int login_done();
    int end_session(int termination);

    RPC2::key128_t _sk;
    RPC2Stream _rst;
    RPC2Packet _request; // the call request, reused from call to call
    sockaddr_in _serv;
    sock_t _sock;
    int _connected;
    std::string _user;
    std::string _pass;
    int _service;
    int _ssl_type;
    int _connect_ms = 0;
    int _login_ms = 0;
    int _call_ms = 0;
    int _keepalive[3] = {0, 0, 0};
    const std::atomic<bool>* _cancel = nullptr;
    int _last_error = 0;
};

} // namespace ZEL

#endif
