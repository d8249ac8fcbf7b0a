#include "wireserver.h"

#include "channel.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>

#include <vector>

namespace wire {

int pinCallerToFirstCpu()
{
    cpu_set_t set;
    CPU_ZERO(&set);
    if (pthread_getaffinity_np(pthread_self(), sizeof set, &set) != 0)
        return -1;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &set))
            return pinThread(pthread_self(), cpu) ? cpu : -1;
    return -1;
}

bool pinThread(pthread_t thread, int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return pthread_setaffinity_np(thread, sizeof set, &set) == 0;
}

WireServer::WireServer(int grantValue, SSL_CTX* tlsCtx, int cpuToUse) : grant(grantValue), tls(tlsCtx), cpu(cpuToUse) {}

WireServer::~WireServer()
{
    // Ends the wait for a client, then the connection still being served.
    if (listenFd >= 0)
        ::shutdown(listenFd, SHUT_RDWR);
    if (const int fd = active.load(); fd >= 0)
        ::shutdown(fd, SHUT_RDWR);
    if (worker.joinable())
        worker.join();
    if (listenFd >= 0)
        ::close(listenFd);
}

void WireServer::script(int fn, std::string ack, std::string rest)
{
    replies[fn] = Reply{std::move(ack), std::move(rest)};
}

bool WireServer::start()
{
    listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&a), len) != 0 || ::listen(listenFd, 16) != 0
        || ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return false;
    listenPort = ntohs(a.sin_port);
    worker = std::thread([this] { run(); });
    if (cpu >= 0)
        pinThread(worker.native_handle(), cpu);
    return true;
}

void WireServer::run()
{
    // A client that left must fail the TLS write, not end the process.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    for (;;) {
        const int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return; // shut down
        active.store(fd);
        serve(fd);
        active.store(-1);
    }
}

void WireServer::serve(int fd)
{
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    Channel ch(fd);
    std::vector<char> buf(65536);
    const std::string greeting =
        packet(pkInit, attr(atKey, std::string(16, 'k')) + attr(atChallenge, std::string(16, 'c')));
    if (!ch.write(greeting) || !ch.readPacket(buf.data()))
        return;
    if (!ch.write(packet(pkAccept, attr(atSslRequest, be32(std::uint32_t(grant))))))
        return;
    if (grant != 0 && !ch.secure(tls, false))
        return;
    for (;;) {
        const int size = ch.readPacket(buf.data());
        int len = 0;
        const char* fn = size ? findAttr(buf.data(), size, atCall, len) : nullptr;
        if (std::uint8_t(buf[0]) != pkCall || !fn || len != 4)
            return; // the end of the session, or anything unscripted
        const auto it = replies.find(int(be32At(fn)));
        if (it == replies.end() || !ch.write(it->second.ack) || !ch.write(it->second.rest))
            return;
    }
}

} // namespace wire
