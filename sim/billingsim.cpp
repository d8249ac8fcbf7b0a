#include "billingsim.h"

#include "rpc2proto.h"
#include "rpcctx.h"
#include "simaccountsfile.h"
#include "simbilling.h"
#include "simconnection.h"
#include "simdemo.h"
#include "simfunctions.h"
#include "simstate.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>

namespace zel5sim {

namespace {

struct Slot {
    std::unique_ptr<SimConnection> conn;
    std::thread thread;
    std::atomic<bool> done{false};
};

} // namespace

struct BillingSim::Impl {
    explicit Impl(const Options& o) : state(o) { SimBilling::registerAll(functions); }
    ~Impl()
    {
        SSL_CTX_free(tls1);
        SSL_CTX_free(ssl3);
    }

    int openListener();
    void acceptLoop();
    void acceptOne();
    void reapFinished();
    void demoLoop();

    SimState state;
    SimFunctions functions;
    SSL_CTX* tls1 = nullptr;
    SSL_CTX* ssl3 = nullptr;

    std::mutex lifeMutex; // start and stop
    int listenFd = -1;
    int wake[2] = {-1, -1};
    std::atomic<std::uint16_t> boundPort{0};
    std::thread acceptThread;
    std::thread demoThread;
    std::list<std::unique_ptr<Slot>> slots; // the accept thread's, then stop's
};

BillingSim::BillingSim(const Options& options) : d(new Impl(options)) {}

BillingSim::~BillingSim()
{
    stop();
}

int BillingSim::Impl::openListener()
{
    const Options& o = state.options();
    in_addr address;
    if (inet_pton(AF_INET, o.listenAddress.c_str(), &address) != 1 || o.port < 0 || o.port > 65535)
        return EINVAL;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return errno;
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sin;
    std::memset(&sin, 0, sizeof sin);
    sin.sin_family = AF_INET;
    sin.sin_addr = address;
    sin.sin_port = htons(static_cast<std::uint16_t>(o.port));
    socklen_t len = sizeof sin;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) != 0 || ::listen(fd, 64) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&sin), &len) != 0 || ::pipe2(wake, O_CLOEXEC) != 0) {
        const int e = errno;
        ::close(fd);
        return e;
    }
    boundPort = ntohs(sin.sin_port);
    listenFd = fd;
    return 0;
}

int BillingSim::start()
{
    std::lock_guard<std::mutex> lock(d->lifeMutex);
    if (d->listenFd >= 0)
        return EBUSY;
    if (const int e = d->openListener())
        return e;
    if (!d->tls1)
        d->tls1 = ZEL::RPCCtx::new_server_adh_ctx(ZEL::rsr_ssl_tls1);
    if (!d->ssl3)
        d->ssl3 = ZEL::RPCCtx::new_server_adh_ctx(ZEL::rsr_ssl_ssl3);
    d->state.setStopping(false);
    d->acceptThread = std::thread(&Impl::acceptLoop, d.get());
    if (d->state.options().demoActivitySeconds > 0)
        d->demoThread = std::thread(&Impl::demoLoop, d.get());
    return 0;
}

void BillingSim::stop()
{
    std::lock_guard<std::mutex> lock(d->lifeMutex);
    if (d->listenFd < 0)
        return;
    d->state.setStopping(true);
    const char byte = 0;
    if (::write(d->wake[1], &byte, 1) != 1)
        d->state.log("cannot wake the listener");
    d->acceptThread.join();
    if (d->demoThread.joinable())
        d->demoThread.join();
    // Only this thread touches the connections now.
    for (auto& slot : d->slots)
        slot->conn->shutdownSocket();
    for (auto& slot : d->slots)
        slot->thread.join();
    d->slots.clear();
    ::close(d->listenFd);
    ::close(d->wake[0]);
    ::close(d->wake[1]);
    d->listenFd = d->wake[0] = d->wake[1] = -1;
}

std::uint16_t BillingSim::port() const
{
    return d->boundPort;
}

void BillingSim::Impl::acceptLoop()
{
    for (;;) {
        struct pollfd fds[2] = {{listenFd, POLLIN, 0}, {wake[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            state.log(std::string("cannot wait for connections: ") + std::strerror(errno));
            return;
        }
        if (fds[1].revents)
            return;
        reapFinished();
        if (fds[0].revents & POLLIN)
            acceptOne();
    }
}

void BillingSim::Impl::acceptOne()
{
    sockaddr_in peer;
    socklen_t len = sizeof peer;
    const int fd = ::accept4(listenFd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            // Out of resources: wait a little instead of spinning on the
            // pending connection.
            state.log(std::string("cannot accept: ") + std::strerror(errno));
            state.waitStopped(100);
        }
        return;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    char ip[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
    const std::string who = std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port));
    if (state.activeConnections() >= state.options().maxConnections) {
        state.log(who + ": refused, already " + std::to_string(state.options().maxConnections) + " connections");
        ::close(fd);
        return;
    }
    state.connectionOpened();
    slots.push_back(std::make_unique<Slot>());
    Slot* slot = slots.back().get();
    slot->conn = std::make_unique<SimConnection>(state, functions, tls1, ssl3, fd, who);
    slot->thread = std::thread([this, slot] {
        slot->conn->run();
        state.connectionClosed();
        slot->done = true;
    });
}

void BillingSim::Impl::reapFinished()
{
    for (auto it = slots.begin(); it != slots.end();) {
        if ((*it)->done) {
            (*it)->thread.join();
            it = slots.erase(it);
        } else {
            ++it;
        }
    }
}

void BillingSim::Impl::demoLoop()
{
    const int ms = state.options().demoActivitySeconds * 1000;
    for (int tick = 1; !state.waitStopped(ms); ++tick)
        SimDemo::activity(state, tick);
}

void BillingSim::putAccount(const Account& account)
{
    d->state.putAccount(account);
}

bool BillingSim::getAccount(const std::string& login, Account& out) const
{
    return d->state.getAccount(login, out);
}

bool BillingSim::withAccount(const std::string& login, const std::function<void(Account&)>& fn)
{
    return d->state.withAccount(login, fn);
}

bool BillingSim::loadAccounts(const std::string& path, std::string& error)
{
    std::vector<Account> accounts;
    if (!SimAccountsFile::load(path, accounts, error))
        return false;
    for (const Account& a : accounts)
        d->state.putAccount(a);
    return true;
}

void BillingSim::addFault(const Fault& fault)
{
    d->state.addFault(fault);
}

void BillingSim::clearFaults()
{
    d->state.clearFaults();
}

int BillingSim::connectionsAccepted() const
{
    return d->state.connectionsAccepted();
}

int BillingSim::activeConnections() const
{
    return d->state.activeConnections();
}

long long BillingSim::lastArgument(int function) const
{
    return d->state.lastArgument(function);
}

int BillingSim::lastTermination() const
{
    return d->state.lastTermination();
}

std::vector<std::string> BillingSim::issuedKeys() const
{
    return d->state.issuedKeys();
}

std::vector<unsigned char> BillingSim::lastLoginRequest() const
{
    return d->state.lastLoginRequest();
}

bool BillingSim::waitFor(const std::function<bool()>& pred, int timeoutMs) const
{
    return d->state.waitFor(pred, timeoutMs);
}

} // namespace zel5sim
