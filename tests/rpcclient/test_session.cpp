// The client session against the billing simulator on a loopback port: login
// with and without channel protection, refusals, broken greetings, session
// restore, calls, replies cut short, and the end of a session.
#include "billingsim.h"
#include "rpcclient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace ZEL;
using zel5sim::Fault;

namespace {

class SessionTest : public ::testing::Test {
protected:
    void SetUp() override { startSim(zel5sim::TlsMode::Asked); }

    void startSim(zel5sim::TlsMode tls)
    {
        zel5sim::Options o;
        o.port = 0; // ephemeral
        o.tls = tls;
        sim = std::make_unique<zel5sim::BillingSim>(o);
        ASSERT_EQ(0, sim->start());
    }

    std::unique_ptr<RPCClient> client(const char* pass = "demo", int ssl = 0, const char* user = "demo")
    {
        auto c = std::make_unique<RPCClient>();
        EXPECT_EQ(0, c->addr("127.0.0.1", static_cast<short>(sim->port())));
        c->set_auth(user, pass);
        if (ssl != 0)
            ssl == 1 ? c->ssl_tls1() : c->ssl_ssl3();
        return c;
    }

    static std::string keyText(const unsigned char* key) { char t[33]; RPCClient::_key_print(key, t); return t; }

    // Calls -69 and reads the server's version. The first failing step's
    // result goes to *failed, or is expected to be 0 when failed is null.
    static std::string version(RPCClient& c, int* failed = nullptr)
    {
        char* data = nullptr;
        int len = 0, err = c._call(-69);
        std::string text;
        if (err == 0 && (err = c.rpcstream().data_get_new(data, len)) == 0) {
            text.assign(data, static_cast<std::size_t>(len));
            delete[] data;
            err = c.end_call();
        }
        if (failed)
            *failed = err;
        else
            EXPECT_EQ(0, err);
        return text;
    }

    std::unique_ptr<zel5sim::BillingSim> sim;
};

TEST_F(SessionTest, LoginPlainAndWithEitherProtectionThenCalls)
{
    for (int ssl : {0, 1, 2}) {
        SCOPED_TRACE(ssl);
        auto c = client("demo", ssl);
        ASSERT_EQ(0, c->open_session(0));
        EXPECT_EQ(ssl, c->rpcstream().channel());
        EXPECT_EQ(sim->issuedKeys().back(), keyText(c->get_skey().key));
        // Several calls in one session; an unknown function ends the call, not the session.
        EXPECT_EQ("5.1.9", version(*c));
        EXPECT_EQ(ec_access, c->_call(-12345));
        int term = 0;
        EXPECT_EQ(0, c->packet().get_attr(ra_termination, term));
        EXPECT_EQ(rtc_nofunc, term);
        EXPECT_EQ(0, c->end_call());
        EXPECT_EQ("5.1.9", version(*c));
    }
}

TEST_F(SessionTest, RefusedLoginsAndBrokenGreetings)
{
    auto wrongPassword = client("wrong");
    EXPECT_EQ(ec_access, wrongPassword->open_session(0));
    EXPECT_EQ(0, wrongPassword->connected());
    EXPECT_EQ(ec_access, client("demo", 0, "nobody")->open_session(0));

    sim->addFault({Fault::Stage::Greeting, Fault::Kind::WrongCode, 0, 0, rc_access_request});
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::WrongVersion, 0, 0, 0x24});
    for (int i = 0; i < 2; ++i) {
        auto c = client();
        EXPECT_EQ(ec_badmsg, c->open_session(0));
        EXPECT_EQ(0, c->connected());
    }

    // Without a key the client gives up but keeps the connection.
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::NoKey});
    auto noKey = client();
    EXPECT_EQ(ec_badmsg, noKey->open_session(0));
    EXPECT_EQ(1, noKey->connected());
    noKey.reset();
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_drop; }));

    // A short challenge is not used: the key serves as the challenge, which
    // follows the header and the user name in the request.
    sim->addFault({Fault::Stage::Greeting, Fault::Kind::ShortChallenge});
    EXPECT_EQ(0, client()->open_session(0));
    const std::vector<unsigned char> req = sim->lastLoginRequest();
    ASSERT_GE(req.size(), 4u + 8u + 20u);
    EXPECT_EQ(sim->issuedKeys().back(), keyText(&req[4 + 8 + 4]));
}

TEST_F(SessionTest, RestoreOnlyASessionTheServerAccepted)
{
    auto first = client();
    ASSERT_EQ(0, first->open_session(0));
    const std::string key = sim->issuedKeys().back();
    first->drop_session();

    auto restored = client();
    EXPECT_EQ(0, restored->restore_session(key.c_str(), 0));
    EXPECT_EQ(key, keyText(restored->get_skey().key));
    EXPECT_EQ("5.1.9", version(*restored));

    auto unknown = client();
    EXPECT_EQ(ec_access, unknown->restore_session("00112233445566778899aabbccddeeff", 0));
    EXPECT_EQ(0, unknown->connected());
    EXPECT_EQ(ec_access, client("nope")->restore_session(key.c_str(), 0));
    // A key that was greeted with but never logged in is no session.
    EXPECT_EQ(ec_access, client("wrong")->open_session(0));
    EXPECT_EQ(ec_access, client()->restore_session(sim->issuedKeys().back().c_str(), 0));
}

TEST_F(SessionTest, ReplyCutAtAnyByteFailsTheCall)
{
    // The reply to -69 with "5.1.9": acknowledgement 12 bytes, one data
    // packet of 13, termination 12.
    for (int cut = 0; cut <= 37; ++cut) {
        SCOPED_TRACE(cut);
        sim->addFault({Fault::Stage::Call, Fault::Kind::CutAfter, -69, cut});
        auto c = client();
        ASSERT_EQ(0, c->open_session(0));
        int err = -1;
        const std::string text = version(*c, &err);
        EXPECT_EQ(cut == 37, err == 0);
        EXPECT_TRUE(cut < 12 + 13 || text == "5.1.9") << text; // the value came through whole
    }
}

TEST_F(SessionTest, FailedOrRefusedProtection)
{
    startSim(zel5sim::TlsMode::Fail);
    EXPECT_EQ(ec_access, client("demo", 1)->open_session(0));

    startSim(zel5sim::TlsMode::None);
    auto plain = client("demo", 2);
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

    auto closed = client("demo", 2);
    ASSERT_EQ(0, closed->open_session(0));
    EXPECT_EQ(0, closed->close_session());
    EXPECT_TRUE(sim->waitFor([&] { return sim->lastTermination() == rtc_user; }));
    EXPECT_TRUE(sim->waitFor([&] { return sim->activeConnections() == 0; }));

    RPCClient never;
    EXPECT_EQ(ec_inval, never._call(-69));
}

} // namespace
