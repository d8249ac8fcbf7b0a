// The billing client against the simulator or a scripted server; the stored password's scrambling.
#include "billingsim.h"
#include "filefinder.h"
#include "loopback.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "scramble.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <numeric>
#include <sstream>
#include <thread>

using zel5sim::Fault;
using Clock = std::chrono::steady_clock;

namespace {

// The message store on a file of a fresh temporary directory.
struct TempFinder : FileFinder {
    TempFinder() : dir(std::filesystem::temp_directory_path() / "zel5-client-XXXXXX") { ::mkdtemp(dir.data()); }
    ~TempFinder() override { std::filesystem::remove_all(dir); }
    std::string findFile(fileType) override { return dir + "/messages"; }
    std::string dir;
};

// A traffic report as text, a line a record, from the simulator's account or the client.
template <class Services> std::string shown(const Services& services)
{
    std::ostringstream s;
    for (const auto& service : services) {
        s << "service " << service.name << "\n";
        for (const auto* list : {&service.oldPrepaid, &service.prepaid, &service.downloaded})
            for (s << "--\n"; const auto& t : *list)
                s << t.id << " " << t.name << " " << t.size << "\n";
    }
    return s.str();
}

class MiniClientSimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(sim.start(), 0);
        sim.putAccount({.login = "ivan", .password = "secret", .balance = -12.25, .internetStatus = 1,
            .services = {{"Интернет", {{1, "Local", 1000}}, {}, {{1, "Local", 5000000000LL}, {2, "World", 42}}},
                         {"Mail", {}, {}, {}}},
            .messages = {{1000, "first", "<p>1</p>"}, {3000, "third", "<p>3</p>"}, {2000, "second", "<p>2</p>"}}});
        mc.address = "127.0.0.1", mc.port = sim.port(), mc.login = "ivan", mc.password = "secret";
        mc.setMessageCollector(&store);
        ::setenv("TZ", "MSK-3", 1), ::tzset(); // message dates are shown in local time
    }

    TempFinder finder;
    MessageCollector store{&finder};
    zel5sim::BillingSim sim{zel5sim::Options{.port = 0}};
    MiniClient mc;
    std::vector<MessageCollector::ZELMessage> got;
    // The calls the tray and zel5ctl make, by name.
    const std::vector<std::pair<std::string, std::function<int()>>> calls = {
        {"switch", [this] { return mc.changeInternetStatus(); }},
        {"status", [this] { return mc.refreshInternetStatus(); }},
        {"report", [this] { return mc.refreshPrepaid(); }},
        {"messages", [this] { long check = 999; return mc.fetchMessages(check, got); }},
    };
};

std::string i32(int v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }
std::string i64(long long v) { return i32(int(v >> 32)) + i32(int(v)); }

// Packets (second byte 0x23) and their attributes (0) share one header layout.
std::string frame(int code, char second, const std::string& v)
{
    return std::string{char(code), second, char((v.size() + 4) >> 8), char(v.size() + 4)} + v;
}

// Sends, unasked: the greeting, a plain login answer, per call an acknowledgement and a data packet.
std::unique_ptr<zel5test::ScriptedServer> rawServer(const std::vector<std::vector<std::string>>& calls)
{
    std::string out = frame(192, 0x23, frame(6, 0, std::string(16, 'k'))) + frame(194, 0x23, "");
    for (const auto& values : calls) {
        std::string data;
        for (const std::string& v : values)
            data += frame(5, 0, v);
        out += frame(200, 0x23, frame(3, 0, i32(0))) + frame(200, 0x23, data + frame(4, 0, i32(1)));
    }
    return std::make_unique<zel5test::ScriptedServer>([out](zel5test::ScriptedServer& s) { s.send(out); });
}

} // namespace

TEST_F(MiniClientSimTest, ConnectTellsWhatStoodInTheWayAndCallsNeedASession)
{
    MiniClient noPort;
    noPort.address = mc.address, noPort.login = mc.login, noPort.password = mc.password;
    EXPECT_EQ(noPort.connect(), MiniClient::rcIncompleteSettings);

    mc.services->push_back({"stale", {}, {}, {}});
    for (const auto& [name, call] : calls)
        EXPECT_EQ(call(), MiniClient::rcNotConnected) << name;
    EXPECT_TRUE(mc.services->empty());

    // A refused login, a silent server and a failed secure channel are told apart by the reason.
    mc.loginTimeoutMs = 300;
    sim.addFault({.stage = Fault::Stage::Greeting, .kind = Fault::Kind::Stall});
    EXPECT_TRUE(mc.connect() == MiniClient::rcSessionFailed && mc.lastError == 110) << mc.lastError;
    mc.password = "wrong";
    EXPECT_TRUE(mc.connect() == MiniClient::rcSessionFailed && mc.lastError == 13) << mc.lastError;
    zel5sim::BillingSim failingTls{zel5sim::Options{.port = 0, .tls = zel5sim::TlsMode::Fail}};
    ASSERT_EQ(failingTls.start(), 0);
    mc.port = failingTls.port(), mc.login = "demo", mc.password = "demo";
    EXPECT_TRUE(mc.connect() == MiniClient::rcSessionFailed && mc.lastError == EPROTO) << mc.lastError;
    mc.address = "no.such.host.invalid";
    EXPECT_TRUE(mc.connect() == MiniClient::rcBadAddress && mc.lastError != 0);
}

TEST_F(MiniClientSimTest, ReportsSpanningPacketsReadWholeAndANewOneLeavesNothingBehind)
{
    const auto classes = [](int count, int seed) {
        std::vector<zel5sim::TrafficClass> out;
        for (int i = 0; i < count; ++i)
            out.push_back({seed + i, std::string(static_cast<std::size_t>((seed + i) % 41), char('a' + i % 26)),
                           (1LL << 40) * (i % 3) - i});
        return out;
    };
    // Long, empty and short lists one after the other; about 90 KB in all.
    const std::vector<zel5sim::Service> big = {{"Интернет", classes(1500, 1), {}, classes(3, 7)},
                                               {std::string(200, 'S'), classes(2, 9), classes(1500, 11), {}},
                                               {"", {}, {}, {}}};
    const std::vector<zel5sim::Service> small = {{"Mail", classes(1, 3), classes(1, 4), classes(1, 5)}};
    ASSERT_EQ(mc.connect(), 0);
    for (const auto* services : {&big, &small}) {
        ASSERT_TRUE(sim.withAccount("ivan", [&](zel5sim::Account& a) { a.services = *services; }));
        ASSERT_EQ(mc.refreshPrepaid(), 0);
        EXPECT_EQ(shown(*mc.services), shown(*services)) << services->size() << " services";
    }
}

TEST_F(MiniClientSimTest, ABrokenReplyClosesTheSessionAndKeepsTheOldValues)
{
    ASSERT_EQ(mc.connect(), 0);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    MiniClient::ServiceList* report = mc.services;
    mc.internetStatus = 77;
    // Cut inside the acknowledgement, inside the data (switching sends none).
    for (const auto& [name, call] : calls)
        for (int bytes : name == "switch" ? std::vector{7} : std::vector{7, 20}) {
            ASSERT_TRUE(mc.connected || mc.connect() == 0);
            sim.addFault({Fault::Stage::Call, Fault::Kind::CutAfter, 0, bytes});
            EXPECT_EQ(call(), 7) << name << " cut after " << bytes;
            EXPECT_FALSE(mc.connected);
        }
    EXPECT_TRUE(mc.services == report && report->size() == 2 && mc.internetStatus == 77);
}

TEST(MiniClientRaw, ReportListsEndAtAnyMarkerButOneAndFailedReadsKeepWhatCameBefore)
{
    const std::string tooLong("123456789", 9); // wrong-sized for any number
    MiniClient mc;
    mc.address = "127.0.0.1", mc.login = "ivan", mc.password = "secret";
    {
        const auto server = rawServer({{i32(1), tooLong}}); // the balance is broken
        mc.port = server->port, mc.balance = 10.5;
        ASSERT_EQ(mc.connect(), 0);
        EXPECT_EQ(mc.refreshInternetStatus(), 7);
        EXPECT_TRUE(mc.internetStatus == 1 && mc.balance == 10.5 && !mc.connected);
    }
    const auto server = rawServer({
        {i32(1024), i32(-1), "Internet",                     // any non-zero flag opens a service
         i32(1), i32(7), "Local", i64(5000000000LL), i32(2), // marker 2 ends old prepaid
         i32(0),                                             // prepaid: empty
         i32(1), i32(8), std::string("W\0rld", 5), i64(-1), i32(-7), i32(0)},
        {i32(2048), i32(1), "A", i32(0), i32(0), i32(0), // the second service breaks
         i32(1), "B", i32(1), i32(1), "class", tooLong}});
    mc.port = server->port;
    ASSERT_EQ(mc.connect(), 0);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    // Names keep their received length.
    EXPECT_EQ(shown(*mc.services), "service Internet\n--\n7 Local 5000000000\n--\n--\n" + std::string("8 W\0rld -1\n", 11));

    MiniClient::ServiceList* report = mc.services;
    EXPECT_EQ(mc.refreshPrepaid(), 7);
    EXPECT_TRUE(!mc.connected && mc.sizeDivisor == 2048); // the divisor is stored as soon as it was read
    EXPECT_TRUE(mc.services == report && report->front().name == "Internet");
}

// A server that stops answering costs the call's bound and the session, never more; a cancel cuts it shorter.
TEST_F(MiniClientSimTest, StalledCallsEndWithinTheirBoundAndACancelEndsThemAtOnce)
{
    mc.callTimeoutMs = 300;
    for (const auto& [name, call] : calls) {
        ASSERT_EQ(mc.connect(), 0);
        sim.addFault({.kind = Fault::Kind::Stall}); // until the simulator stops
        const auto start = Clock::now();
        EXPECT_EQ(call(), 7) << name;
        const auto took = Clock::now() - start;
        EXPECT_TRUE(took >= std::chrono::milliseconds(250) && took < std::chrono::seconds(2) && !mc.connected) << name;
    }

    mc.callTimeoutMs = 30000;
    ASSERT_EQ(mc.connect(), 0);
    sim.addFault({.kind = Fault::Kind::Stall});
    const auto start = Clock::now();
    std::thread quit([this] { mc.cancel(); }); // before or during the call's wait, the call ends at once
    EXPECT_EQ(mc.refreshInternetStatus(), 7);
    quit.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1));
    // A cancelled client stays cancelled until told otherwise.
    EXPECT_TRUE(mc.connect() == MiniClient::rcSessionFailed && mc.lastError == 32) << mc.lastError;
    mc.clearCancel();
    EXPECT_EQ(mc.connect(), 0);
}

// Only a complete retrieval changes anything; a count of four billion ends at the first missing message.
TEST_F(MiniClientSimTest, FetchingMessagesIsAllOrNothing)
{
    for (const Fault& fault : {Fault{.kind = Fault::Kind::CutAfter, .function = MiniClient::fnMessages, .bytes = 40},
                               Fault{.kind = Fault::Kind::HugeCount, .function = MiniClient::fnMessages}}) {
        ASSERT_EQ(mc.connect(), 0);
        sim.addFault(fault);
        long check = 999;
        const auto start = Clock::now();
        EXPECT_EQ(mc.fetchMessages(check, got), 7) << fault.bytes;
        EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
        EXPECT_TRUE(check == 999 && got.empty() && !mc.connected) << fault.bytes;
    }
    ASSERT_EQ(mc.connect(), 0);
    long check = 999;
    ASSERT_EQ(mc.fetchMessages(check, got), 0);
    EXPECT_EQ(sim.lastArgument(MiniClient::fnMessages), 1000) << "asked from the second after the last check";
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(check == 3000 && got[0].subject == "first" && got[2].subject == "third");
    EXPECT_EQ(got[0].date, "01.01.1970 03:16:40") << "local time";
    EXPECT_TRUE(store.empty()); // the caller decides where they go

    // Leaving with the switch-off hook set tells the server so.
    EXPECT_FALSE(mc.setCoreDisconnectHook(true));
    mc.disconnect();
    EXPECT_TRUE(sim.waitFor([this] { return sim.lastTermination() == 6; }));
}

TEST(Scramble, RoundTripsEveryByteAndDecodesStrayDigitsWithoutComplaint)
{
    std::string all(256, 0);
    std::iota(all.begin(), all.end(), char(0));
    std::string stored = encrypt(all);
    EXPECT_EQ(stored.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(stored.substr(0, 2) + stored.substr(2 * 'A', 2) + stored.substr(510), "ffbe00");
    EXPECT_EQ(decrypt(stored), all);
    // Odd lengths are refused; upper-case digits decode to some other byte.
    for (auto [text, plain] : {std::pair<std::string, std::string>{"", ""}, {"bebe", "AA"}, {"b", "(none)"},
                               {"bebeb", "(none)"}, {"BE", "\x61"}})
        EXPECT_EQ(decrypt(text), plain) << text;
}
