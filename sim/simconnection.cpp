#include "simconnection.h"

#include "rpc2packet.h"
#include "rpc2proto.h"
#include "rpc2stream.h"
#include "simcall.h"
#include "simfunctions.h"
#include "simlogin.h"
#include "simoutput.h"
#include "simreply.h"

#include <arpa/inet.h>
#include <openssl/rand.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zel5sim {

// Client-given bytes for the log: printable, short, on one line.
static std::string printable(const std::string& s)
{
    std::string out;
    for (unsigned char c : s.substr(0, 64))
        out += (c < 0x20 || c == 0x7f) ? '?' : static_cast<char>(c);
    return s.size() > 64 ? out + "..." : out;
}

SimConnection::SimConnection(SimState& st, const SimFunctions& fns, SSL_CTX* tls1, SSL_CTX* ssl3, int socket,
                             const std::string& who)
    : state(st), functions(fns), ctxTls1(tls1), ctxSsl3(ssl3), peer(who), fd(socket),
      stream(new ZEL::RPC2Stream(socket, nullptr)), buf(ZEL::rpc2_max_packet)
{
}

SimConnection::~SimConnection()
{
    closeSocket();
}

void SimConnection::log(const std::string& line) const
{
    state.log(peer + ": " + line);
}

void SimConnection::run()
{
    // A peer that vanished must not kill the process through a TLS write;
    // the failed write is seen as such. The signal is only ever blocked in
    // this thread.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    if (greet() && login() && secure())
        serveCalls();
    closeSocket();
}

void SimConnection::shutdownSocket()
{
    std::lock_guard<std::mutex> lock(fdMutex);
    if (fd >= 0)
        ::shutdown(fd, SHUT_RDWR);
}

void SimConnection::closeSocket()
{
    std::lock_guard<std::mutex> lock(fdMutex);
    if (fd < 0)
        return;
    // The stream must not close the descriptor again: by then its number
    // may belong to another connection.
    stream->sock(-1);
    stream.reset();
    ::close(fd);
    fd = -1;
}

bool SimConnection::greet()
{
    const Fault fault = state.takeFault(Fault::Stage::Greeting, 0);
    if (RAND_bytes(key.data(), 16) != 1 || RAND_bytes(challenge.data(), 16) != 1) {
        log("no random bytes for the session key");
        return false;
    }
    ZEL::RPC2Packet p;
    p.code(ZEL::rc_session_init);
    keySent = fault.kind != Fault::Kind::NoKey;
    if (keySent) {
        p.put(ZEL::ra_key, reinterpret_cast<const char*>(key.data()), 16);
        state.keyIssued(key);
    }
    challengeLen = fault.kind == Fault::Kind::ShortChallenge ? 8 : 16;
    p.put(ZEL::ra_chap_challenge, reinterpret_cast<const char*>(challenge.data()), challengeLen);
    return SimOutput(*stream, state, fault).send(SimReply::bytes(p));
}

bool SimConnection::login()
{
    ZEL::RPC2Packet request;
    if (!receive(request, "login request"))
        return false;
    if (request.code() == ZEL::rc_session_termination) {
        // A client may leave before logging in, for example after a greeting
        // it did not like.
        recordTermination(request);
        return false;
    }
    state.recordLoginRequest(std::vector<unsigned char>(buf.begin(), buf.begin() + packetSize));
    if (request.code() != ZEL::rc_access_request) {
        log("expected a login request, got packet code " + std::to_string(request.code()));
        return false;
    }
    std::string name;
    if (!SimLogin::userName(request, name)) {
        log("login request without a user name");
        return false;
    }

    SimLogin decision(state, key, keySent, challenge, challengeLen);
    const bool accepted = decision.decide(request);
    int grant = decision.grant();
    if (accepted && grant != 0 && !(grant == ZEL::rsr_ssl_tls1 ? ctxTls1 : ctxSsl3)) {
        log("no TLS context for protection " + std::to_string(grant) + "; granting none");
        grant = 0;
    }
    ZEL::RPC2Packet answer;
    answer.code(accepted ? ZEL::rc_access_accept : ZEL::rc_access_reject);
    if (accepted)
        answer.put(ZEL::ra_ssl_request, grant);
    SimOutput out(*stream, state, state.takeFault(Fault::Stage::LoginAnswer, 0));
    const bool sent = out.send(SimReply::bytes(answer));
    if (!accepted) {
        log("login refused for \"" + printable(name) + "\": " + decision.reason());
        return false;
    }
    user = name;
    key = decision.sessionKey();
    granted = grant;
    state.sessionAccepted(key, user);
    return sent;
}

bool SimConnection::secure()
{
    if (granted == 0)
        return true;
    if (state.options().tls == TlsMode::Fail) {
        waitForHello();
        log("TLS handshake refused on purpose");
        return false;
    }
    if (stream->__ssl_accept(granted == ZEL::rsr_ssl_tls1 ? ctxTls1 : ctxSsl3, granted) != 0) {
        if (!state.stopping())
            log("TLS handshake failed");
        return false;
    }
    return true;
}

void SimConnection::waitForHello()
{
    // Closing with the client's hello unread would reset the connection;
    // read it first so that the client sees a plain end of input. Bounded:
    // a client that sends nothing is not waited for long.
    struct pollfd p = {fd, POLLIN, 0};
    if (::poll(&p, 1, 2000) > 0 && (p.revents & POLLIN))
        while (::recv(fd, buf.data(), buf.size(), MSG_DONTWAIT) > 0) {
        }
}

void SimConnection::serveCalls()
{
    for (;;) {
        ZEL::RPC2Packet p;
        if (!receive(p, nullptr))
            return;
        if (p.code() == ZEL::rc_session_termination) {
            recordTermination(p);
            return;
        }
        if (p.code() != ZEL::rc_session_call) {
            log("expected a call, got packet code " + std::to_string(p.code()));
            return;
        }
        int function = 0;
        if (p.get_attr(ZEL::ra_call, function) != 0) {
            log("call without a function number");
            return;
        }
        if (!serveCall(function))
            return;
    }
}

bool SimConnection::serveCall(int function)
{
    const Fault fault = state.takeFault(Fault::Stage::Call, function);
    SimOutput out(*stream, state, fault);
    const SimFunctions::Handler* handler = functions.find(function);
    if (!handler) {
        log("unknown function " + std::to_string(function));
        return out.send(SimReply::termination(ZEL::rc_session_termination, ZEL::rtc_nofunc));
    }
    if (!out.send(SimReply::acknowledgement(function)))
        return false;
    SimCall call(state, function, user);
    call.fault = fault;
    if (handler->argCount > 0 && !readArguments(handler->argCount, call.args))
        return false;
    if (fault.kind == Fault::Kind::WrongSize)
        call.reply.growFirstValue();
    if (!handler->run(call)) {
        log("account \"" + printable(user) + "\" no longer exists");
        return out.send(SimReply::termination(ZEL::rc_session_data, ZEL::rtc_access));
    }
    return out.send(call.reply.serialize()) && call.reply.terminated();
}

void SimConnection::recordTermination(const ZEL::RPC2Packet& p)
{
    int code = 0;
    if (p.get_attr(ZEL::ra_termination, code) != 0)
        log("session ended without a termination code");
    state.recordTermination(code);
}

bool SimConnection::readArguments(int count, std::vector<std::int32_t>& args)
{
    ZEL::RPC2Packet p;
    if (!receive(p, "call arguments"))
        return false;
    if (p.code() != ZEL::rc_session_data) {
        log("expected call arguments, got packet code " + std::to_string(p.code()));
        return false;
    }
    for (int i = 0; i < count; ++i) {
        int raw = 0;
        if (p.get_data(raw) != 0) {
            log("call argument " + std::to_string(i + 1) + " missing or not a 32-bit value");
            return false;
        }
        args.push_back(static_cast<std::int32_t>(ntohl(static_cast<std::uint32_t>(raw))));
    }
    return true;
}

} // namespace zel5sim
