#include "rpcclient.h"
#include "rpc2packet.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <new>
#include <openssl/evp.h>

namespace ZEL {

namespace {

constexpr int default_port = 11758;
constexpr int resolver_buffer = 1024;

// CHAP: MD5 over the 16 challenge bytes followed by the password's bytes.
// A failure leaves both attributes out, and the server refuses the login.
void sign(RPC2Packet& p, const unsigned char* challenge, const std::string& password)
{
    try {
        std::string input(reinterpret_cast<const char*>(challenge), 16);
        input += password;
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int n = 0;
        if (EVP_Digest(input.data(), input.size(), digest, &n, EVP_md5(), nullptr) != 1 || n != 16)
            return;
        p.put(ra_chap_response, reinterpret_cast<const char*>(digest), 16);
        p.put(ra_chap_challenge, reinterpret_cast<const char*>(challenge), 16);
    } catch (...) {
    }
}

bool attr16(RPC2Packet& p, int code, unsigned char* out)
{
    unsigned char b[16];
    int len = 16;
    if (p.get_attr(code, reinterpret_cast<char*>(b), len) != ec_ok || len != 16)
        return false;
    std::memcpy(out, b, 16);
    return true;
}

struct CallBoundEnd {
    RPC2Stream& stream;
    ~CallBoundEnd() { stream.set_timeout(0); }
};

bool is_greeting(RPC2Stream& s)
{
    return !s.bad() && s.packet().version() == rpc2_version && s.packet().code() == rc_session_init;
}

} // namespace

int fill_sin(const char* host, short port, sockaddr_in* out)
{
    if (!host)
        return ec_noent;
    std::memset(out, 0, sizeof *out);
    out->sin_family = AF_INET;
    out->sin_port = htons(static_cast<unsigned short>(port));
    std::unique_ptr<char[]> work(new (std::nothrow) char[resolver_buffer]);
    if (!work)
        return ec_nomem;
    hostent he;
    hostent* res = nullptr;
    int herr = 0;
    const int r = gethostbyname_r(host, &he, work.get(), resolver_buffer, &res, &herr);
    if (r != 0 || !res || res->h_length != 4 || !res->h_addr_list[0])
        return herr != 0 ? herr : (r != 0 ? r : HOST_NOT_FOUND);
    std::memcpy(&out->sin_addr, res->h_addr_list[0], 4);
    return ec_ok;
}

RPCClient::RPCClient() : _rst(nullptr), _sock(0), _connected(0), _service(rut_user), _ssl_type(rsr_ssl_none)
{
    std::memset(&_serv, 0, sizeof _serv);
    _serv.sin_family = AF_INET;
    _serv.sin_port = htons(default_port);
    _serv.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

RPCClient::RPCClient(const char* host, int port) : RPCClient()
{
    addr(host, static_cast<short>(port));
}

RPCClient::RPCClient(const RPCClient& other)
    : _rst(nullptr), _serv(other._serv), _sock(0), _connected(0), _user(other._user), _pass(other._pass),
      _service(other._service), _ssl_type(other._ssl_type), _connect_ms(other._connect_ms),
      _login_ms(other._login_ms), _call_ms(other._call_ms),
      _keepalive{other._keepalive[0], other._keepalive[1], other._keepalive[2]}
{
    // A copy is a client configured alike, bounds and cancel flag included.
    if (other._cancel)
        set_cancel(other._cancel);
}

RPCClient::~RPCClient()
{
    drop_session();
}

int RPCClient::addr(const char* host, short port)
{
    sockaddr_in sin;
    const int r = fill_sin(host, port, &sin);
    if (r == ec_ok)
        _serv = sin;
    return r;
}

void RPCClient::set_auth(const char* user, const char* password)
{
    _user = user ? user : "";
    _pass = password ? password : "";
}

int RPCClient::key(const char* bytes)
{
    _sk = reinterpret_cast<const unsigned char*>(bytes);
    return 0;
}

int RPCClient::key(RPC2::key128_t k)
{
    _sk = k;
    return 0;
}

int RPCClient::_key_scan(unsigned char* out, const char* text)
{
    if (!text || std::strlen(text) < 32)
        return ec_inval;
    for (int i = 0; i < 16; ++i) {
        char pair[3] = {text[2 * i], text[2 * i + 1], 0};
        unsigned v = 0;
        if (std::sscanf(pair, "%02x", &v) != 1)
            v = 0;
        out[i] = static_cast<unsigned char>(v);
    }
    return 0;
}

int RPCClient::_key_print(const unsigned char* key, char* out)
{
    for (int i = 0; i < 16; ++i)
        std::snprintf(out + 2 * i, 3, "%02x", key[i]);
    out[32] = 0;
    return 0;
}

RPCClient& RPCClient::send(const RPC2Packet& p)
{
    _rst << p;
    return *this;
}

int RPCClient::login_failed(int result, int reason)
{
    // A bound that passed or a cancellation is the reason, whatever it left.
    if (_rst.timed_out())
        reason = ec_timedout;
    else if (_rst.bad() && _rst.error() == ec_pipe)
        reason = ec_pipe;
    _last_error = reason;
    _rst.set_timeout(0);
    return result;
}

int RPCClient::login_done()
{
    _rst.set_timeout(0);
    _last_error = 0;
    return 0;
}

int RPCClient::await_greeting()
{
    if (connect() != 0)
        return ec_inval;
    _rst.set_timeout(_login_ms);
    _rst.listen();
    if (!is_greeting(_rst)) {
        disconnect();
        return login_failed(ec_badmsg, ec_badmsg);
    }
    return 0;
}

int RPCClient::send_request(const RPC2Packet& request)
{
    // The request and the wait for its answer share one bound.
    _rst.set_timeout(_login_ms);
    _rst << request;
    if (_rst.bad()) {
        disconnect();
        return login_failed(ec_inval, ec_pipe);
    }
    return 0;
}

int RPCClient::open_session(unsigned long client_ip)
{
    if (const int r = await_greeting())
        return r;
    RPC2Packet& greeting = _rst.packet();
    unsigned char skey[16];
    // Without a proper key the connection is deliberately left open.
    if (!attr16(greeting, ra_key, skey))
        return login_failed(ec_badmsg, ec_badmsg);
    _sk = skey;

    unsigned char challenge[16];
    if (!attr16(greeting, ra_chap_challenge, challenge))
        std::memcpy(challenge, skey, 16);

    RPC2Packet req;
    req.code(rc_access_request);
    req.put(ra_user_name, _user.data(), static_cast<int>(_user.size()));
    sign(req, challenge, _pass);
    if (_service != rut_user)
        req.put(ra_user_type, _service);
    req.put(ra_ssl_request, _ssl_type);
    if (client_ip != 0)
        req.put(ra_client_ip, static_cast<int>(client_ip));
    if (const int r = send_request(req))
        return r;
    return login_answer();
}

int RPCClient::restore_session(const char* key, unsigned long client_ip)
{
    if (const int r = await_greeting())
        return r;
    RPC2Packet& greeting = _rst.packet();
    RPC2::key128_t parsed;
    _key_scan(parsed.key, key);
    const RPC2::key128_t scratch; // all zero
    _sk = scratch;

    unsigned char challenge[16];
    if (!attr16(greeting, ra_chap_challenge, challenge) && !attr16(greeting, ra_key, challenge))
        std::memcpy(challenge, scratch.key, 16);

    RPC2Packet req;
    req.code(rc_access_request);
    req.put(ra_user_name, _user.data(), static_cast<int>(_user.size()));
    req.put(ra_client_ip, static_cast<int>(client_ip));
    req.put(ra_key, reinterpret_cast<const char*>(parsed.key), 16);
    if (_service != rut_user)
        req.put(ra_user_type, _service);
    sign(req, challenge, _pass);
    // A restore asks for no channel protection.
    if (const int r = send_request(req))
        return r;
    return login_answer(&parsed);
}

int RPCClient::login_answer(const RPC2::key128_t* accepted_key)
{
    _rst.listen();
    RPC2Packet& answer = _rst.packet();
    if (answer.code() == rc_access_reject) {
        disconnect();
        return login_failed(ec_access, ec_access);
    }
    if (_rst.bad() || answer.code() != rc_access_accept) {
        disconnect();
        return login_failed(ec_badmsg, ec_badmsg);
    }
    if (accepted_key)
        _sk = *accepted_key;
    // The server's value decides, not the one requested.
    int ssl = 0;
    if (answer.get_attr(ra_ssl_request, ssl) == ec_ok && ssl != rsr_ssl_none) {
        // The handshake has a bound of its own.
        _rst.set_timeout(_login_ms);
        // A failed handshake is no refused login: its own reason.
        if (const int r = _rst.ssl_connect(ssl))
            return login_failed(r, EPROTO);
    }
    return login_done();
}

int RPCClient::end_session(int termination)
{
    if (!_connected)
        return ec_inval;
    // A bounded session leaves without waiting: the goodbye goes out only
    // if the socket takes it at once.
    if (_rst.bounded())
        _rst.stop_waiting();
    RPC2Packet p;
    p.code(rc_session_termination);
    p.put(ra_termination, termination);
    _rst << p;
    if (_ssl_type != rsr_ssl_none)
        _rst.ssl_shutdown();
    disconnect();
    _rst.set_timeout(0);
    return 0;
}

int RPCClient::close_session()
{
    return end_session(rtc_user);
}

int RPCClient::drop_session()
{
    return end_session(rtc_drop);
}

int RPCClient::_call(int function)
{
    if (!_connected)
        return ec_inval;
    // The whole call, up to end_call, shares one bound (none when 0).
    _rst.set_timeout(_call_ms);
    _request.clear();
    _request.code(rc_session_call);
    _request.put(ra_call, function);
    _rst << _request;
    if (_rst.bad()) {
        disconnect();
        _rst.set_timeout(0);
        return ec_pipe;
    }
    _rst.end_input();
    _rst.listen();
    RPC2Packet& ack = _rst.packet();
    if (_rst.bad() || ack.code() != rc_session_data || !ack.find(ra_call))
        return ec_access; // the answer stays in the input packet
    _rst.end_input();
    return 0;
}

int RPCClient::end_call()
{
    // The call's bound ends with the call, however it ends.
    const CallBoundEnd bound_end{_rst};
    RPC2Packet& p = _rst.packet();
    while (p.code() == 0 || p.code() == rc_session_data) {
        if (p.find(ra_termination))
            break;
        // A stream that already went bad would only wait on a broken peer.
        if (_rst.bad())
            return ec_badmsg;
        _rst.listen();
        if (_rst.bad())
            return ec_badmsg;
    }
    _rst.clear();
    return 0;
}

} // namespace ZEL
