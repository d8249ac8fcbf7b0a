// The billing functions' wire results as the protocol library reads them,
// and the faults that spoil them.
#include "simtestclient.h"

#include <chrono>
#include <ctime>

using namespace simtest;
using zel5sim::Account;
using zel5sim::BillingSim;
using zel5sim::Fault;

namespace {

Account alice()
{
    Account a;
    a.login = "alice";
    a.password = "wonderland";
    a.balance = -12.5;
    a.internetStatus = 0;
    a.sizeDivisor = 1000;
    return a;
}

class FunctionsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel5sim::Options o;
        o.port = 0;
        sim = std::make_unique<BillingSim>(o);
        ASSERT_EQ(0, sim->start());
    }

    std::unique_ptr<BillingSim> sim;
};

TEST_F(FunctionsTest, SwitchTogglesTheStatusThatIsReadWithTheBalance)
{
    sim->putAccount(alice());
    auto c = login(*sim, "alice", "wonderland");
    for (int expected : {0, 1, 0}) {
        ASSERT_EQ(0, c->_call(-16422));
        EXPECT_EQ(expected, get<int>(*c));
        EXPECT_EQ(-12.5, get<double>(*c));
        EXPECT_EQ(0, c->end_call());

        ASSERT_EQ(0, c->_call(-16391));
        ASSERT_EQ(0, c->rpcstream().data_put<int>(7));
        c->end_output();
        EXPECT_EQ(0, c->end_call());
        EXPECT_EQ(7, sim->lastArgument(-16391));
    }
    // Other accounts are untouched.
    Account demo;
    ASSERT_TRUE(sim->getAccount("demo", demo));
    EXPECT_EQ(1, demo.internetStatus);
}

TEST_F(FunctionsTest, ReportLargerThanOnePacketReadsBackWhole)
{
    Account a = alice();
    zel5sim::Service big;
    big.name = "Internet";
    for (int i = 0; i < 600; ++i) {
        // Sizes over 32 bits and negative ids check the 64- and 32-bit forms.
        zel5sim::TrafficClass t{-i, "class " + std::string(40, 'a' + i % 26) + std::to_string(i),
                                (1LL << 40) + i * 4099LL};
        (i % 3 == 0 ? big.oldPrepaid : i % 3 == 1 ? big.prepaid : big.downloaded).push_back(t);
    }
    zel5sim::Service empty;
    empty.name = "Nothing yet";
    a.services = {big, empty};
    sim->putAccount(a);

    auto c = login(*sim, "alice", "wonderland");
    ASSERT_EQ(0, c->_call(-16423));
    EXPECT_EQ(1000, get<int>(*c));
    std::vector<zel5sim::Service> read;
    while (get<int>(*c) != 0 && read.size() < 10) {
        zel5sim::Service s;
        s.name = getText(*c);
        for (auto* list : {&s.oldPrepaid, &s.prepaid, &s.downloaded}) {
            while (get<int>(*c) == 1 && list->size() < 1000) {
                zel5sim::TrafficClass t;
                t.id = get<int>(*c);
                t.name = getText(*c);
                t.size = get<long long>(*c);
                list->push_back(t);
            }
        }
        read.push_back(s);
    }
    EXPECT_EQ(0, c->end_call());

    ASSERT_EQ(2u, read.size());
    EXPECT_EQ("Nothing yet", read[1].name);
    EXPECT_TRUE(read[1].oldPrepaid.empty() && read[1].prepaid.empty() && read[1].downloaded.empty());
    ASSERT_EQ(big.prepaid.size(), read[0].prepaid.size());
    ASSERT_EQ(big.downloaded.size(), read[0].downloaded.size());
    ASSERT_EQ(big.oldPrepaid.size(), read[0].oldPrepaid.size());
    for (std::size_t i = 0; i < big.downloaded.size(); ++i) {
        EXPECT_EQ(big.downloaded[i].id, read[0].downloaded[i].id);
        EXPECT_EQ(big.downloaded[i].name, read[0].downloaded[i].name);
        EXPECT_EQ(big.downloaded[i].size, read[0].downloaded[i].size);
    }
    // The session goes on after a reply of several packets.
    ASSERT_EQ(0, c->_call(-69));
    EXPECT_EQ("5.1.9", getText(*c));
    EXPECT_EQ(0, c->end_call());
}

TEST_F(FunctionsTest, MessagesFromTheAskedTimeOn)
{
    Account a = alice();
    a.messages = {{3000, "third", "<p>third</p>"}, {1000, "first", "<p>first</p>"}, {2000, "second", "<p>second</p>"}};
    sim->putAccount(a);
    auto c = login(*sim, "alice", "wonderland");

    auto fetch = [&](int from, int& last) {
        std::vector<std::string> subjects;
        EXPECT_EQ(0, c->_call(-16424));
        c->rpcstream().data_put<int>(from);
        c->end_output();
        last = get<int>(*c);
        const unsigned count = get<unsigned>(*c);
        int previous = 0;
        for (unsigned i = 0; i < count && i < 10; ++i) {
            const int time = get<int>(*c);
            EXPECT_LE(previous, time); // oldest first
            previous = time;
            EXPECT_EQ(0, get<int>(*c));
            subjects.push_back(getText(*c));
            EXPECT_EQ("<p>" + subjects.back() + "</p>", getText(*c));
        }
        EXPECT_EQ(0, c->end_call());
        return subjects;
    };
    int last = 0;
    EXPECT_EQ((std::vector<std::string>{"second", "third"}), fetch(2000, last));
    EXPECT_EQ(3000, last);
    EXPECT_EQ(2000, sim->lastArgument(-16424));
    // Nothing newer: the time moves on to about now, so the next ask of
    // last + 1 skips nothing that arrives later.
    const int before = static_cast<int>(std::time(nullptr));
    EXPECT_TRUE(fetch(last + 1, last).empty());
    EXPECT_GE(last, before - 1);
    EXPECT_LE(last, static_cast<int>(std::time(nullptr)));
    // A client whose clock is ahead is never sent back in time.
    EXPECT_TRUE(fetch(2000000000, last).empty());
    EXPECT_EQ(1999999999, last);

    sim->withAccount("alice", [](Account& acc) {
        acc.messages.push_back({static_cast<int>(std::time(nullptr)), "new", "<p>new</p>"});
    });
    EXPECT_EQ(std::vector<std::string>{"new"}, fetch(before, last));
}

TEST_F(FunctionsTest, FaultsSpoilOnlyTheCallsTheyName)
{
    auto c = login(*sim);
    Fault f;
    f.kind = Fault::Kind::WrongSize;
    f.function = -16422;
    sim->addFault(f);
    // Another function is not affected and does not use the fault up.
    ASSERT_EQ(0, c->_call(-69));
    EXPECT_EQ("5.1.9", getText(*c));
    EXPECT_EQ(0, c->end_call());
    ASSERT_EQ(0, c->_call(-16422));
    int status = 0;
    EXPECT_EQ(ZEL::ec_inval, c->rpcstream().data_get(status));
    EXPECT_EQ(0, c->end_call());
    // Used up: the next call is whole again.
    ASSERT_EQ(0, c->_call(-16422));
    EXPECT_EQ(1, get<int>(*c));
    EXPECT_EQ(0, c->end_call());

    f.function = 0;
    f.kind = Fault::Kind::WrongCode;
    f.code = ZEL::rc_session_termination;
    sim->addFault(f);
    EXPECT_EQ(ZEL::ec_access, c->_call(-69));

    // A message count of four billion, then the end of the connection: the
    // reader fails instead of waiting or allocating for it.
    auto m = login(*sim);
    f.kind = Fault::Kind::HugeCount;
    sim->addFault(f);
    ASSERT_EQ(0, m->_call(-16424));
    m->rpcstream().data_put<int>(0);
    m->end_output();
    get<int>(*m);
    EXPECT_EQ(0xFFFFFFFFu, get<unsigned>(*m));
    int time = 0;
    EXPECT_NE(0, m->rpcstream().data_get(time));
}

TEST(SimDemoTest, ActivityBringsMessagesAndMovesTheBalanceUntilStopped)
{
    zel5sim::Options o;
    o.port = 0;
    o.demoActivitySeconds = 1;
    BillingSim sim(o);
    Account before;
    ASSERT_TRUE(sim.getAccount("demo", before));
    ASSERT_EQ(2u, before.messages.size());
    const auto start = std::time(nullptr);
    for (const auto& m : before.messages)
        EXPECT_LT(m.time, start);
    ASSERT_EQ(0, sim.start());
    Account after;
    EXPECT_TRUE(sim.waitFor([&] { return sim.getAccount("demo", after) && after.messages.size() >= 3; }));
    EXPECT_GE(after.messages.back().time, start);
    EXPECT_LT(after.balance, before.balance); // a charge: payments come later
    EXPECT_GT(after.balance, before.balance - 5);
    // Stopping does not wait for the next round.
    const auto t0 = std::chrono::steady_clock::now();
    sim.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(900));
}

} // namespace
