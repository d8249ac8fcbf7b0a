// The client session against the billing simulator on a loopback port: login
// with and without channel protection, refusals, broken greetings, session
// restore, calls, replies cut short, and the end of a session.
#include "billingsim.h"
#include "rpc2packet.h"
#include "rpc2stream.h"
#include "rpcclient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace ZEL;
using zel5sim::BillingSim;
using zel5sim::Fault;

namespace {

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { startSim(zel5sim::Options()); }

    void startSim(zel5sim::Options o)
    {
        sim.reset();
        o.port = 0;
        sim = std::make_unique<BillingSim>(o);
        ASSERT_EQ(0, sim->start());
    }

    std::unique_ptr<RPCClient> client(const char* user = "demo", const char* pass = "demo", int ssl = 0)
    {
        auto c = std::make_unique<RPCClient>();
        EXPECT_EQ(0, c->addr("127.0.0.1", static_cast<short>(sim->port())));
        c->set_auth(user, pass);
        c->user_type(rut_user);
        if (ssl == 1)
            c->ssl_tls1();
        else if (ssl == 2)
            c->ssl_ssl3();
        return c;
    }

    // Calls -69 and reads the version; every step's result in steps.
    static std::string version(RPCClient& c, int steps[3])
    {
        std::string text;
        steps[0] = c._call(-69);
        steps[1] = steps[2] = -1;
        if (steps[0] != 0)
            return text;
        char* data = nullptr;
        int len = 0;
        steps[1] = c.rpcstream().data_get_new(data, len);
        if (steps[1] == 0) {
            text.assign(data, static_cast<std::size_t>(len));
            delete[] data;
        }
        steps[2] = c.end_call();
        return text;
    }

    static std::string version(RPCClient& c)
    {
        int steps[3];
        const std::string text = version(c, steps);
        EXPECT_EQ(0, steps[0]);
        EXPECT_EQ(0, steps[1]);
        EXPECT_EQ(0, steps[2]);
        return text;
    }

    std::unique_ptr<BillingSim> sim;
};

TEST_F(SessionTest, LoginPlainAndWithEitherProtectionThenCalls)
{
    for (int ssl : {0, 1, 2}) {
        SCOPED_TRACE(ssl);
        auto c = client("demo", "demo", ssl);
        ASSERT_EQ(0, c->open_session(0));
        EXPECT_EQ(ssl, c->rpcstream().channel());
        // Several calls in one session, over the protected channel too.
        EXPECT_EQ("5.1.9", version(*c));
        EXPECT_EQ("5.1.9", version(*c));
        // The session key the client holds is the one the server issued.
        char text[33];
        RPCClient::_key_print(c->get_skey().key, text);
        EXPECT_EQ(sim->issuedKeys().back(), text);
        EXPECT_EQ(0, c->drop_session());
    }
}

TEST_F(SessionTest, RefusedLoginsDisconnect)
{
    auto wrongPassword = client("demo", "wrong");
    EXPECT_EQ(ec_access, wrongPassword->open_session(0));
    EXPECT_EQ(0, wrongPassword->connected());

    auto unknownUser = client("nobody", "demo");
    EXPECT_EQ(ec_access, unknownUser->open_session(0));

    // The server is unharmed: a good login still works.
    auto good = client();
    EXPECT_EQ(0, good->open_session(0));
}

TEST_F(SessionTest, BrokenGreetings)
{
    Fault f;
    f.stage = Fault::Stage::Greeting;

    f.kind = Fault::Kind::WrongCode;
    f.code = rc_access_request;
    sim->addFault(f);
    auto wrongCode = client();
    EXPECT_EQ(ec_badmsg, wrongCode->open_session(0));
    EXPECT_EQ(0, wrongCode->connected());

    f.kind = Fault::Kind::WrongVersion;
    f.code = 0x24;
    sim->addFault(f);
    auto wrongVersion = client();
    EXPECT_EQ(ec_badmsg, wrongVersion->open_session(0));
    EXPECT_EQ(0, wrongVersion->connected());

    // Without a key the client gives up but keeps the connection.
    f.kind = Fault::Kind::NoKey;
    sim->addFault(f);
    auto noKey = client();
    EXPECT_EQ(ec_badmsg, noKey->open_session(0));
    EXPECT_EQ(1, noKey->connected());
    noKey.reset();
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_drop; }));

    // A short challenge is not used; the key serves as challenge instead,
    // and the server takes a response to it.
    f.kind = Fault::Kind::ShortChallenge;
    sim->addFault(f);
    auto shortChallenge = client();
    EXPECT_EQ(0, shortChallenge->open_session(0));
    const std::vector<unsigned char> req = sim->lastLoginRequest();
    const std::string key = sim->issuedKeys().back();
    char text[33];
    // The request's challenge attribute (after header and user name) is the key.
    ASSERT_GE(req.size(), 4u + 8u + 20u);
    RPCClient::_key_print(&req[4 + 8 + 4], text);
    EXPECT_EQ(key, text);
}

TEST_F(SessionTest, RestoreOnlyASessionTheServerAccepted)
{
    auto first = client();
    ASSERT_EQ(0, first->open_session(0));
    const std::string key = sim->issuedKeys().back();
    first->drop_session();

    auto restored = client();
    EXPECT_EQ(0, restored->restore_session(key.c_str(), 0));
    char text[33];
    RPCClient::_key_print(restored->get_skey().key, text);
    EXPECT_EQ(key, text);
    EXPECT_EQ("5.1.9", version(*restored));

    auto unknown = client();
    EXPECT_EQ(ec_access, unknown->restore_session("00112233445566778899aabbccddeeff", 0));
    EXPECT_EQ(0, unknown->connected());

    // The right key with the wrong password is refused too.
    auto wrongPassword = client("demo", "nope");
    EXPECT_EQ(ec_access, wrongPassword->restore_session(key.c_str(), 0));

    // A key that was greeted with but never logged in is no session.
    auto refused = client("demo", "wrong");
    EXPECT_EQ(ec_access, refused->open_session(0));
    auto never = client();
    EXPECT_EQ(ec_access, never->restore_session(sim->issuedKeys().back().c_str(), 0));
}

TEST_F(SessionTest, UnknownFunctionEndsTheCallNotTheSession)
{
    auto c = client();
    ASSERT_EQ(0, c->open_session(0));
    EXPECT_EQ(ec_access, c->_call(-12345));
    int term = 0;
    EXPECT_EQ(rc_session_termination, c->packet().code());
    EXPECT_EQ(0, c->packet().get_attr(ra_termination, term));
    EXPECT_EQ(rtc_nofunc, term);
    EXPECT_EQ(0, c->end_call());
    EXPECT_EQ("5.1.9", version(*c));
}

TEST_F(SessionTest, ReplyCutAtAnyByteFailsTheCall)
{
    // The reply to -69 with "5.1.9": acknowledgement 12 bytes, one data
    // packet of 13, termination 12.
    const int replyBytes = 37;
    for (int cut = 0; cut <= replyBytes; ++cut) {
        SCOPED_TRACE(cut);
        Fault f;
        f.kind = Fault::Kind::CutAfter;
        f.function = -69;
        f.bytes = cut;
        sim->addFault(f);
        auto c = client();
        ASSERT_EQ(0, c->open_session(0));
        int steps[3];
        const std::string text = version(*c, steps);
        const bool whole = steps[0] == 0 && steps[1] == 0 && steps[2] == 0;
        EXPECT_EQ(cut == replyBytes, whole);
        if (cut >= 12 + 13) {
            EXPECT_EQ("5.1.9", text); // the value came through whole
        }
    }
}

TEST_F(SessionTest, FailedOrRefusedProtection)
{
    zel5sim::Options o;
    o.tls = zel5sim::TlsMode::Fail;
    startSim(o);
    auto failed = client("demo", "demo", 1);
    EXPECT_EQ(ec_access, failed->open_session(0));
    failed->disconnect();

    o.tls = zel5sim::TlsMode::None;
    startSim(o);
    auto plain = client("demo", "demo", 2);
    EXPECT_EQ(0, plain->open_session(0));
    EXPECT_EQ(0, plain->rpcstream().channel());
    EXPECT_EQ("5.1.9", version(*plain));
}

TEST_F(SessionTest, EndingTheSession)
{
    auto dropped = client();
    ASSERT_EQ(0, dropped->open_session(0));
    EXPECT_EQ(0, dropped->drop_session());
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_drop; }));
    EXPECT_EQ(ec_inval, dropped->_call(-69));
    EXPECT_EQ(ec_inval, dropped->drop_session());

    auto closed = client("demo", "demo", 2);
    ASSERT_EQ(0, closed->open_session(0));
    EXPECT_EQ(0, closed->close_session());
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_user; }));
    EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 0; }));

    RPCClient never;
    EXPECT_EQ(ec_inval, never._call(-69));
}

} // namespace
