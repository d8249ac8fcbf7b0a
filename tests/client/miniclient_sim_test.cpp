#include "billingsim.h"
#include "filefinder.h"
#include "messagecollector.h"
#include "miniclient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>

using zel5sim::Fault;

namespace {

// The message store on a file of a fresh temporary directory.
struct TempFinder : FileFinder {
    TempFinder() : dir(std::filesystem::temp_directory_path() / "zel5-client-XXXXXX") { ::mkdtemp(dir.data()); }
    ~TempFinder() override { std::filesystem::remove_all(dir); }
    std::string findFile(fileType) override { return dir + "/messages"; }
    std::string dir;
};

class MiniClientSimTest : public ::testing::Test {
protected:
    void SetUp() override { startSim(zel5sim::Options()); }

    void startSim(zel5sim::Options options)
    {
        options.port = 0;
        options.withDemoAccount = false;
        mc.disconnect();
        sim = std::make_unique<zel5sim::BillingSim>(options);
        ASSERT_EQ(sim->start(), 0);
        zel5sim::Account a;
        a.login = "ivan";
        a.password = "secret";
        a.balance = -12.25;
        a.internetStatus = 1;
        a.services = {{"Интернет", {{1, "Local", 1000}}, {}, {{1, "Local", 5000000000LL}, {2, "World", 42}}},
                      {"Mail", {}, {}, {}}};
        a.messages = {{1000, "first", "<p>1</p>"}, {3000, "third", "<p>3</p>"}, {2000, "second", "<p>2</p>"}};
        sim->putAccount(a);
        mc.address = "127.0.0.1";
        mc.port = sim->port();
        mc.login = "ivan";
        mc.password = "secret";
        mc.requiredVersion = "5.1.9";
        mc.setMessageCollector(&store);
    }

    TempFinder finder;
    MessageCollector store{&finder};
    std::unique_ptr<zel5sim::BillingSim> sim;
    MiniClient mc;
};

} // namespace

TEST_F(MiniClientSimTest, ConnectTellsWhatStoodInTheWayAndCallsNeedASession)
{
    const std::pair<std::string MiniClient::*, const char*> spoilt[] = {
        {&MiniClient::address, ""}, {&MiniClient::login, ""}, {&MiniClient::password, ""},
        {&MiniClient::address, "no.such.host.invalid"}, {&MiniClient::password, "guess"}};
    const int expected[] = {2, 2, 2, 3, 4};
    for (int i = 0; i < 5; ++i) {
        MiniClient c;
        c.address = mc.address, c.port = mc.port, c.login = mc.login, c.password = mc.password;
        c.*spoilt[i].first = spoilt[i].second;
        EXPECT_EQ(c.connect(), expected[i]) << i;
        EXPECT_TRUE(c.setCoreDisconnectHook(false));
    }
    int port = mc.port;
    mc.port = 0;
    EXPECT_EQ(mc.connect(), 2);
    mc.port = port;
    sim->stop(); // nothing listens any more

    long lastCheck = 500;
    bool gotNew = true;
    mc.services->push_back({"stale", {}, {}, {}});
    EXPECT_EQ(mc.connect(), 4);
    EXPECT_FALSE(mc.retrieveVersion());
    EXPECT_EQ(mc.changeInternetStatus() + mc.refreshInternetStatus(), 2);
    EXPECT_EQ(mc.refreshMessages(lastCheck, gotNew), 1);
    EXPECT_TRUE(lastCheck == 500 && !gotNew);
    EXPECT_EQ(mc.refreshPrepaid(), 1);
    EXPECT_TRUE(mc.services->empty());
    EXPECT_EQ(sim->connectionsAccepted(), 1); // only the wrong password reached the server
}

TEST_F(MiniClientSimTest, EveryCallReadsTheAccount)
{
    ASSERT_EQ(mc.connect(), 0);
    EXPECT_FALSE(mc.setCoreDisconnectHook(true));
    EXPECT_TRUE(mc.checkVersion());
    mc.requiredVersion = "5.1.9 ";
    EXPECT_FALSE(mc.checkVersion());

    ASSERT_EQ(mc.refreshInternetStatus(), 0);
    EXPECT_TRUE(mc.internetStatus == 1 && mc.balance == -12.25);
    ASSERT_EQ(mc.changeInternetStatus(), 0);
    ASSERT_EQ(mc.refreshInternetStatus(), 0);
    EXPECT_EQ(mc.internetStatus, 0);

    ASSERT_EQ(mc.refreshPrepaid(), 0);
    EXPECT_EQ(mc.sizeDivisor, 1048576);
    ASSERT_EQ(mc.services->size(), 2u);
    const MiniClient::ServiceReport& net = mc.services->front();
    EXPECT_EQ(net.name, "Интернет");
    ASSERT_TRUE(net.oldPrepaid.size() == 1 && net.prepaid.empty() && net.downloaded.size() == 2);
    EXPECT_EQ(net.downloaded[0].size, 5000000000LL);
    EXPECT_EQ(net.downloaded[1].name, "World");

    long lastCheck = 999;
    bool gotNew = false;
    ASSERT_EQ(mc.refreshMessages(lastCheck, gotNew), 0);
    EXPECT_TRUE(gotNew);
    EXPECT_EQ(sim->lastArgument(MiniClient::fnMessages), 1000);
    EXPECT_EQ(lastCheck, 3000);
    std::string subject, text, date;
    for (const char* expected : {"third", "second", "first"}) {
        ASSERT_TRUE(store.currentMessage(subject, text, date));
        EXPECT_EQ(subject, expected);
        store.prevMessage();
    }
    EXPECT_EQ(date, mc.convertTimeToString(1000));

    // Nothing new: the time still moves on and the store is still written.
    store.deleteMessage();
    ASSERT_EQ(mc.refreshMessages(lastCheck, gotNew), 0);
    EXPECT_FALSE(gotNew);
    EXPECT_EQ(sim->lastArgument(MiniClient::fnMessages), 3001);
    EXPECT_EQ(MessageCollector(&finder).count(), 2u);

    mc.disconnect();
    EXPECT_FALSE(mc.connected);
    EXPECT_TRUE(sim->waitFor([this] { return sim->lastTermination() == 6; }));
    EXPECT_EQ(mc.services->size(), 2u); // the report outlives the session
}

TEST_F(MiniClientSimTest, ABrokenReplyClosesTheSessionAndKeepsTheOldValues)
{
    ASSERT_EQ(mc.connect(), 0);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    MiniClient::ServiceList* report = mc.services;
    mc.internetStatus = 77;
    long lastCheck = 999;
    bool gotNew = false;
    const std::pair<int, int (*)(MiniClient&)> calls[] = {
        {MiniClient::fnVersion, [](MiniClient& c) { return c.retrieveVersion() ? 0 : 7; }},
        {MiniClient::fnInternetStatus, [](MiniClient& c) { return c.refreshInternetStatus(); }},
        {MiniClient::fnPrepaid, [](MiniClient& c) { return c.refreshPrepaid(); }},
        {MiniClient::fnChangeInternetStatus, [](MiniClient& c) { return c.changeInternetStatus(); }}};
    // Cut inside the acknowledgement, right after it, inside the data.
    for (auto [function, call] : calls) {
        for (int bytes : {0, 7, 12, 20}) {
            if (function == MiniClient::fnChangeInternetStatus && bytes >= 12)
                continue; // its reply holds nothing after the acknowledgement
            ASSERT_TRUE(mc.connected || mc.connect() == 0);
            sim->addFault({Fault::Stage::Call, Fault::Kind::CutAfter, function, bytes});
            EXPECT_EQ(call(mc), 7) << function << " cut after " << bytes;
            EXPECT_FALSE(mc.connected);
        }
    }
    EXPECT_TRUE(mc.services == report && report->size() == 2);
    EXPECT_EQ(mc.internetStatus, 77);

    // A count of four billion messages ends at the first missing one.
    ASSERT_EQ(mc.connect(), 0);
    sim->addFault({Fault::Stage::Call, Fault::Kind::HugeCount, MiniClient::fnMessages});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(mc.refreshMessages(lastCheck, gotNew), 7);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(lastCheck, 3000); // read before the count
    EXPECT_TRUE(!gotNew && store.empty() && !mc.connected);

    ASSERT_EQ(mc.connect(), 0);
    sim->addFault({Fault::Stage::Call, Fault::Kind::WrongSize, MiniClient::fnInternetStatus});
    EXPECT_EQ(mc.refreshInternetStatus(), 7);
    EXPECT_EQ(mc.internetStatus, 77);
}

TEST_F(MiniClientSimTest, ABrokenLoginIsASessionFailure)
{
    const Fault faults[] = {{Fault::Stage::Greeting, Fault::Kind::CutAfter, 0, 10},
                            {Fault::Stage::Greeting, Fault::Kind::WrongCode, 0, 0, 193},
                            {Fault::Stage::Greeting, Fault::Kind::NoKey},
                            {Fault::Stage::LoginAnswer, Fault::Kind::WrongCode, 0, 0, 200}};
    for (const Fault& f : faults) {
        sim->addFault(f);
        EXPECT_EQ(mc.connect(), 4);
        EXPECT_EQ(mc.refreshInternetStatus(), 1);
    }
    EXPECT_EQ(mc.connect(), 0);

    zel5sim::Options options;
    options.tls = zel5sim::TlsMode::Fail;
    startSim(options);
    EXPECT_EQ(mc.connect(), 4);
    options.tls = zel5sim::TlsMode::None;
    options.serverVersion = std::string("5.1.9\0beta", 10);
    startSim(options);
    ASSERT_EQ(mc.connect(), 0);
    EXPECT_TRUE(mc.checkVersion()); // the version text ends at the zero byte
}

TEST(MiniClientTime, ServerTimesAreShownAsLocalDateAndTime)
{
    ::setenv("TZ", "MSK-3", 1);
    ::tzset();
    EXPECT_EQ(MiniClient().convertTimeToString(1173103629), "05.03.2007 17:07:09");
    ::unsetenv("TZ");
    ::tzset();
}
