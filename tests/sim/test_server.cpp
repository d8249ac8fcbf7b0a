// The simulator's server: bad, idle-owing and surplus clients are dropped alone; stop() ends all at once.
#include "simtestclient.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace simtest;
using namespace std::string_literals;

namespace {

// A plain connected socket, or -1.
int rawConnect(std::uint16_t port)
{
    sockaddr_in sin{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    return ::connect(fd, reinterpret_cast<sockaddr*>(&sin), sizeof sin) == 0 ? fd : (::close(fd), -1);
}

// Raw bytes on a new connection: the start of the answer once closed, or "open" if not closed within 5 s.
std::string answerTo(std::uint16_t port, const std::string& sent, bool halfClose = false)
{
    const int fd = rawConnect(port);
    ::send(fd, sent.data(), sent.size(), MSG_NOSIGNAL);
    if (halfClose)
        ::shutdown(fd, SHUT_WR);
    std::string received;
    char buf[4096];
    ssize_t n = 1;
    for (pollfd p = {fd, POLLIN, 0}; n > 0 && ::poll(&p, 1, 5000) > 0;)
        if ((n = ::read(fd, buf, sizeof buf)) > 0)
            received.append(buf, static_cast<std::size_t>(n));
    ::close(fd);
    return n <= 0 ? received.substr(0, 2) : "open";
}

TEST(ServerTest, MisbehavingClientsEndOnlyTheirOwnConnection)
{
    auto sim = startSim();
    auto good = login(sim->port());
    const std::string oversized = "\xc1\x23\xff\xff\x05\x00\xff\xfb"s + std::string(65535 - 8, 'x');
    for (const std::string& c : {"GET / HTTP/1.0\r\n\r\n"s, oversized,
                                 "\xc1\x23\x00\x0c\x02\x00\x01\x00" "demo"s,           // attribute overruns
                                 "\xc1\x23\x00\x0c\x0a\x00\x00\x08\0\0\0\0"s,          // login without name
                                 "\xc9\x23\x00\x0c\x03\x00\x00\x08\xff\xff\xff\xbb"s}) // call before login
        EXPECT_EQ("\xc0\x23", answerTo(sim->port(), c)) << c.size() << " bytes"; // the greeting, then closed
    EXPECT_EQ("\xc0\x23", answerTo(sim->port(), "\xc1\x23", true)); // header cut short

    EXPECT_EQ("5.1.9", version(*good));
    EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 1; }));
}

TEST(ServerTest, ConnectionsEndWhenTheyOweInputOverTheLimitAndAtStop)
{
    zel5sim::Options o;
    o.inputTimeoutMs = 1000; // long enough for a client on a loaded machine to send its login
    o.maxConnections = 2;
    auto sim = startSim(o);
    EXPECT_EQ("\xc0\x23", answerTo(sim->port(), "")); // no login request
    // An idle session owes nothing and stays, here for longer than the limit.
    auto idle = login(sim->port());
    auto noArguments = login(sim->port());
    ASSERT_EQ(0, noArguments->_call(-16391));
    EXPECT_NE(0, noArguments->end_call());
    ASSERT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 1; }));
    EXPECT_EQ("5.1.9", version(*idle));

    sim->addFault({zel5sim::Fault::Stage::Call, zel5sim::Fault::Kind::Stall}); // until the simulator stops
    auto stalled = login(sim->port());
    std::atomic<int> stalledResult{-1};
    std::thread caller([&] { stalledResult = stalled->_call(-69); });
    EXPECT_EQ("", answerTo(sim->port(), "")); // over the limit: refused without a greeting

    const auto t0 = std::chrono::steady_clock::now();
    sim->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    EXPECT_EQ(0, sim->activeConnections());
    caller.join();
    EXPECT_NE(0, stalledResult);
    EXPECT_NE(0, idle->_call(-69));
    EXPECT_EQ(-1, rawConnect(sim->port())); // nobody listens
}

} // namespace
