// The server as a whole: misbehaving clients end only their own connection,
// many clients are served at once, the connection limit holds, and stop()
// ends everything promptly.
#include "rpc2packet.h"
#include "rpcctx.h"
#include "simtestclient.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace simtest;
using zel5sim::BillingSim;
using zel5sim::Fault;

namespace {

std::unique_ptr<BillingSim> startSim(int maxConnections = 64)
{
    zel5sim::Options o;
    o.port = 0;
    o.maxConnections = maxConnections;
    auto sim = std::make_unique<BillingSim>(o);
    EXPECT_EQ(0, sim->start());
    return sim;
}

std::string bytes(std::initializer_list<int> list)
{
    std::string s;
    for (int b : list)
        s += static_cast<char>(b);
    return s;
}

// Sends raw bytes on a new connection and tells whether the server closed it
// after its greeting.
bool closedAfter(const BillingSim& sim, const std::string& sent, bool halfClose = false)
{
    const int fd = rawConnect(sim.port());
    if (fd < 0)
        return false;
    ::send(fd, sent.data(), sent.size(), MSG_NOSIGNAL);
    if (halfClose)
        ::shutdown(fd, SHUT_WR);
    std::string received;
    const bool closed = readUntilClosed(fd, received);
    ::close(fd);
    return closed && received.compare(0, 2, "\xc0\x23") == 0;
}

TEST(ServerTest, MisbehavingClientsEndOnlyTheirOwnConnection)
{
    auto sim = startSim();
    auto good = login(*sim);

    std::string oversized = bytes({0xc1, 0x23, 0xff, 0xff, 0x05, 0x00, 0xff, 0xfb});
    oversized.resize(65535, 'x');
    const std::string cases[] = {
        "GET / HTTP/1.0\r\n\r\n",
        oversized,
        bytes({0xc1, 0x23, 0x00, 0x0c, 0x02, 0x00, 0x01, 0x00, 'd', 'e', 'm', 'o'}), // attribute overruns
        bytes({0xc1, 0x23, 0x00, 0x0a, 0x02, 0x00, 0x00, 0x02, 0x00, 0x00}),         // attribute below 4
        bytes({0xc1, 0x23, 0x00, 0x0c, 0x0a, 0x00, 0x00, 0x08, 0, 0, 0, 0}),         // login without name
        bytes({0xc1, 0x24, 0x00, 0x04}),                                             // other version
        bytes({0xc9, 0x23, 0x00, 0x0c, 0x03, 0x00, 0x00, 0x08, 0xff, 0xff, 0xff, 0xbb}), // call before login
    };
    for (const std::string& c : cases)
        EXPECT_TRUE(closedAfter(*sim, c)) << c.size() << " bytes";
    EXPECT_TRUE(closedAfter(*sim, bytes({0xc1, 0x23}), true)); // header cut short

    // Bad input after the login ends that session alone too.
    auto badArgument = login(*sim);
    ASSERT_EQ(0, badArgument->_call(-16424));
    ZEL::RPC2Packet p;
    p.code(ZEL::rc_session_data);
    p.put_data("12345", 5);
    badArgument->send(p);
    EXPECT_NE(0, badArgument->end_call());
    auto wrongPacket = login(*sim);
    wrongPacket->send(p);
    EXPECT_EQ(ZEL::ec_access, wrongPacket->_call(-69));

    ASSERT_EQ(0, good->_call(-69));
    EXPECT_EQ("5.1.9", getText(*good));
    EXPECT_EQ(0, good->end_call());
    EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 1; }));
}

TEST(ServerTest, ClientsThatOweInputAreDisconnected)
{
    zel5sim::Options o;
    o.port = 0;
    o.inputTimeoutMs = 100;
    BillingSim sim(o);
    ASSERT_EQ(0, sim.start());
    EXPECT_TRUE(closedAfter(sim, "")); // no login request
    // An idle session owes nothing and stays, here for longer than the limit.
    auto idle = login(sim);
    auto noArguments = login(sim);
    ASSERT_EQ(0, noArguments->_call(-16391));
    EXPECT_NE(0, noArguments->end_call());
    ASSERT_TRUE(sim.waitFor([&] { return sim.activeConnections() == 1; }));
    ASSERT_EQ(0, idle->_call(-69));
    EXPECT_EQ("5.1.9", getText(*idle));
}

TEST(ServerTest, ServesManyClientsAtOnce)
{
    auto sim = startSim();
    std::atomic<int> failures{0};
    // Addresses are resolved and the client's TLS contexts made here: neither
    // the resolver nor the one-time set-up is for several threads.
    ZEL::RPCCtx clientContexts(0);
    std::vector<std::unique_ptr<ZEL::RPCClient>> sessions;
    for (int i = 0; i < 8; ++i) {
        sessions.push_back(std::make_unique<ZEL::RPCClient>());
        sessions.back()->addr("127.0.0.1", static_cast<short>(sim->port()));
        sessions.back()->set_auth("demo", "demo");
        if (i % 2)
            sessions.back()->ssl_tls1();
    }
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back([&, i] {
            ZEL::RPCClient& c = *sessions[static_cast<std::size_t>(i)];
            if (c.open_session(0) != 0) {
                ++failures;
                return;
            }
            for (int round = 0; round < 25; ++round) {
                int status = -1;
                double balance = 0;
                char* version = nullptr;
                int len = 0;
                if (c._call(-16422) || c.rpcstream().data_get(status) || c.rpcstream().data_get(balance) ||
                    c.end_call() || status != 1 || c._call(-69) || c.rpcstream().data_get_new(version, len) ||
                    c.end_call() || std::string(version, static_cast<std::size_t>(len)) != "5.1.9")
                    ++failures;
                delete[] version;
            }
            c.drop_session();
        });
    }
    for (auto& t : clients)
        t.join();
    EXPECT_EQ(0, failures);
    EXPECT_EQ(8, sim->connectionsAccepted());
    EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 0; }));
}

TEST(ServerTest, ConnectionLimitRefusesTheSurplus)
{
    auto sim = startSim(2);
    const int first = rawConnect(sim->port());
    const int second = rawConnect(sim->port());
    ASSERT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 2; }));
    std::string received;
    const int third = rawConnect(sim->port());
    EXPECT_TRUE(readUntilClosed(third, received));
    EXPECT_TRUE(received.empty());
    ::close(third);

    ::close(first);
    ASSERT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 1; }));
    auto c = login(*sim);
    EXPECT_TRUE(c->connected());
    ::close(second);
}

TEST(ServerTest, StopEndsEveryConnectionPromptlyAndCanStartAgain)
{
    auto sim = startSim();
    auto idle = login(*sim);
    const int silent = rawConnect(sim->port()); // never logs in
    Fault stall;
    stall.kind = Fault::Kind::Stall; // until the simulator stops
    sim->addFault(stall);
    auto stalled = login(*sim);
    std::atomic<int> stalledResult{-1};
    std::thread caller([&] { stalledResult = stalled->_call(-69); });
    ASSERT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 3; }));

    const auto t0 = std::chrono::steady_clock::now();
    sim->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(2));
    EXPECT_EQ(0, sim->activeConnections());
    caller.join();
    EXPECT_NE(0, stalledResult);
    std::string received;
    EXPECT_TRUE(readUntilClosed(silent, received));
    ::close(silent);
    EXPECT_NE(0, idle->_call(-69));
    EXPECT_EQ(-1, rawConnect(sim->port())); // nobody listens

    sim->stop();
    ASSERT_EQ(0, sim->start());
    auto again = login(*sim);
    EXPECT_TRUE(again->connected());
}

} // namespace
