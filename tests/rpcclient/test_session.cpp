// The client session against the simulator or a scripted server: logins, refusals, calls, stalls, hanging connects.
#include "billingsim.h"
#include "rpcclient.h"
#include "rpctest.h"

#include <fcntl.h>
#include <netinet/tcp.h>

#include <tuple>

using namespace ZEL;
using namespace zel5test;
using zel5sim::Fault;

namespace {

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(0, sim->start()); }

    // port 0: the simulator's; ssl 1: TLS, 2: SSL3.
    std::unique_ptr<RPCClient> client(int port = 0, int ssl = 0, const char* pass = "demo")
    {
        auto c = std::make_unique<RPCClient>();
        EXPECT_EQ(0, c->addr("127.0.0.1", static_cast<short>(port ? port : sim->port())));
        c->set_auth("demo", pass);
        if (ssl != 0)
            ssl == 1 ? c->ssl_tls1() : c->ssl_ssl3();
        return c;
    }

    static std::string keyText(const unsigned char* key) { char t[33]; RPCClient::_key_print(key, t); return t; }

    // The server's version (-69).
    static std::string version(RPCClient& c)
    {
        EXPECT_EQ(0, c._call(-69));
        const Bytes text = blob(c.rpcstream());
        EXPECT_EQ(0, c.end_call());
        return std::string(text.begin(), text.end());
    }

    std::unique_ptr<zel5sim::BillingSim> sim = std::make_unique<zel5sim::BillingSim>(zel5sim::Options{.port = 0});
    // Stopping the simulator closes its connections, which ends any wait.
    Watchdog dog{15000, "the simulator", [this] { sim->stop(); }};
};

} // namespace

TEST_F(SessionTest, LoginPlainOrProtectedBoundedOrNotThenCallsAndClose)
{
    const std::atomic<bool> never{false};
    for (bool bounded : {false, true}) {
        for (int ssl : {0, 1, 2}) {
            SCOPED_TRACE(std::string(bounded ? "bounded" : "unbounded") + ", ssl " + std::to_string(ssl));
            auto c = client(0, ssl);
            if (bounded)
                c->set_connect_timeout(2000), c->set_timeout(2000), c->set_call_timeout(2000), c->set_cancel(&never);
            ASSERT_EQ(0, c->open_session(0));
            EXPECT_EQ(0, c->last_error());
            EXPECT_EQ(ssl, c->rpcstream().channel());
            EXPECT_EQ(bounded, (::fcntl(c->rpcstream().sock(), F_GETFL) & O_NONBLOCK) != 0) << "non-blocking";
            EXPECT_EQ(sim->issuedKeys().back(), keyText(c->get_skey().key));
            // Several calls in one session; an unknown function ends the call, not the session.
            EXPECT_EQ("5.1.9", version(*c));
            EXPECT_EQ(ec_access, c->_call(-12345));
            int term = 0;
            EXPECT_EQ(0, c->packet().get_attr(ra_termination, term));
            EXPECT_EQ(rtc_nofunc, term);
            EXPECT_EQ(0, c->end_call());
            EXPECT_EQ("5.1.9", version(*c));
            EXPECT_EQ(0, c->close_session());
            EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_user; }));
            EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 0; }));
        }
    }
}

TEST_F(SessionTest, RefusedLoginsAndBrokenGreetings)
{
    auto wrongPassword = client(0, 0, "wrong");
    EXPECT_EQ(ec_access, wrongPassword->open_session(0));
    EXPECT_EQ(0, wrongPassword->connected());
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::WrongVersion, 0, 0, 0x24});
    auto wrongVersion = client();
    EXPECT_EQ(ec_badmsg, wrongVersion->open_session(0));
    EXPECT_EQ(0, wrongVersion->connected());

    // Without a key the client gives up but keeps the connection.
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::NoKey});
    auto noKey = client();
    EXPECT_EQ(ec_badmsg, noKey->open_session(0));
    EXPECT_EQ(1, noKey->connected());
    noKey.reset();
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_drop; }));

    // A short challenge is not used: the key serves, after the header and the user name in the request.
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::ShortChallenge});
    EXPECT_EQ(0, client()->open_session(0));
    const Bytes req = sim->lastLoginRequest();
    ASSERT_GE(req.size(), 4u + 8u + 20u);
    EXPECT_EQ(sim->issuedKeys().back(), keyText(&req[4 + 8 + 4]));

    // Channel protection the server does not offer leaves the channel plain.
    zel5sim::BillingSim plainOnly{zel5sim::Options{.port = 0, .tls = zel5sim::TlsMode::None}};
    ASSERT_EQ(0, plainOnly.start());
    auto plain = client(plainOnly.port(), 2);
    EXPECT_EQ(0, plain->open_session(0));
    EXPECT_EQ(0, plain->rpcstream().channel());
    EXPECT_EQ("5.1.9", version(*plain));
}

TEST_F(SessionTest, ADroppedSessionTakesNoCalls)
{
    auto c = client();
    ASSERT_EQ(0, c->open_session(0));
    EXPECT_EQ(0, c->drop_session());
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_drop; }));
    EXPECT_EQ(ec_inval, c->_call(-69));
    EXPECT_EQ(ec_inval, c->drop_session());
    EXPECT_EQ(ec_inval, RPCClient()._call(-69)) << "a client never connected";
}

TEST_F(SessionTest, CallBoundCoversTheWholeCall)
{
    // The acknowledgement at once, a value after 200 ms, then silence: 500 ms from _call, not from each wait.
    ScriptedServer server([](ScriptedServer& s) {
        s.send(wirePacket(rc_session_init, {{ra_key, Bytes(16, 0x11)}, {ra_chap_challenge, Bytes(16, 0x22)}}));
        if (s.readPacket() != rc_access_request)
            return;
        s.send(wirePacket(rc_access_accept, {{ra_ssl_request, {0, 0, 0, 0}}}));
        if (s.readPacket() == rc_session_call) {
            s.send(wirePacket(rc_session_data, {{ra_call, hexBytes("FFFFFFBB")}}));
            if (s.pause(200))
                s.send(wireData({"00000007"}));
        }
    });
    auto c = client(server.port);
    c->set_call_timeout(500);
    ASSERT_EQ(0, c->open_session(0));
    const auto t0 = Clock::now();
    ASSERT_EQ(0, c->_call(-69));
    EXPECT_EQ(7, next<int>(c->rpcstream()));
    EXPECT_EQ(ec_badmsg, c->end_call());
    EXPECT_TRUE(endedAtBound(t0, 500));
    EXPECT_LT(msSince(t0), 650) << "the wait for the end got a bound of its own";
    EXPECT_TRUE(c->rpcstream().timed_out());
}

TEST_F(SessionTest, StalledCallEndsAtTheCallBoundAndTheDropDoesNotWait)
{
    sim->addFault({Fault::Stage::Call, Fault::Kind::Stall, -69});
    std::atomic<bool> net{false}; // a safety net only: the drop must not need it
    auto c = client();
    ASSERT_EQ(0, c->open_session(0));
    c->set_cancel(&net);
    Canceller canceller(net, 3000);
    c->set_call_timeout(200);
    const auto t0 = Clock::now();
    EXPECT_EQ(ec_access, c->_call(-69));
    EXPECT_TRUE(endedAtBound(t0, 200));
    EXPECT_TRUE(c->rpcstream().timed_out());
    EXPECT_EQ(ec_badmsg, c->end_call());

    // Fill the socket until it takes not even a few bytes after a quiet 100 ms: no goodbye goes out.
    const int fd = c->rpcstream().sock(), small = 16384;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::vector<char> junk(65536, 'x');
    bool full = false;
    for (int i = 0; i < 50 && !full; ++i) {
        for (int n = 0; n < 1000 && ::send(fd, junk.data(), junk.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0; ++n)
            ;
        pollfd p{fd, POLLOUT, 0};
        full = ::poll(&p, 1, 100) == 0 && ::send(fd, junk.data(), 16, MSG_DONTWAIT | MSG_NOSIGNAL) < 0;
    }
    ASSERT_TRUE(full) << "the socket never stopped taking data";
    const auto t1 = Clock::now();
    EXPECT_EQ(0, c->drop_session());
    EXPECT_LT(msSince(t1), 100) << "leaving waited for the stalled server";
    EXPECT_FALSE(net.load());
}

TEST_F(SessionTest, ConnectsThatHangOrAreRefused)
{
    FullListener full;
    ASSERT_TRUE(full.full) << "the listener's queue never filled";
    // A listener shut down refuses the connect's next retry.
    Watchdog listenerDog(5000, "the connect", [fd = full.fd] { ::shutdown(fd, SHUT_RDWR); });
    auto bounded = client(full.port);
    bounded->set_connect_timeout(200);
    const auto t0 = Clock::now();
    EXPECT_EQ(ec_inval, bounded->connect());
    EXPECT_TRUE(endedAtBound(t0, 200));
    EXPECT_TRUE(bounded->last_error() == ec_timedout && !bounded->connected()) << bounded->last_error();

    std::atomic<bool> flag{false};
    auto cancelled = client(full.port);
    cancelled->set_cancel(&flag);
    Canceller canceller(flag, 100);
    EXPECT_EQ(ec_inval, cancelled->open_session(0));
    EXPECT_TRUE(canceller.endedSoonAfterSet());
    EXPECT_EQ(ec_pipe, cancelled->last_error());

    // Refused; the same client then succeeds.
    const LoopbackPort refusing(-1);
    auto c = client(refusing.port);
    c->set_connect_timeout(1000);
    EXPECT_EQ(ec_inval, c->open_session(0));
    EXPECT_TRUE(c->last_error() == ECONNREFUSED && !c->connected()) << c->last_error();
    ASSERT_EQ(0, c->addr("127.0.0.1", static_cast<short>(sim->port())));
    EXPECT_EQ(0, c->open_session(0));
    EXPECT_EQ(0, c->last_error());
}

TEST_F(SessionTest, KeepaliveAndNoDelayReachTheSocket)
{
    auto c = client();
    c->set_keepalive(60, 10, 3);
    ASSERT_EQ(0, c->connect());
    const int fd = c->rpcstream().sock();
    for (const auto& [level, name, value] : {std::tuple{SOL_SOCKET, SO_KEEPALIVE, 1}, {IPPROTO_TCP, TCP_KEEPIDLE, 60},
                                             {IPPROTO_TCP, TCP_KEEPINTVL, 10}, {IPPROTO_TCP, TCP_KEEPCNT, 3},
                                             {IPPROTO_TCP, TCP_NODELAY, 1}}) {
        int v = -1;
        socklen_t n = sizeof v;
        ::getsockopt(fd, level, name, &v, &n);
        EXPECT_EQ(value, v) << "option " << name << " at level " << level;
    }
}
