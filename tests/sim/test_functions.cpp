// The billing functions' wire results as the protocol library reads them.
#include "simtestclient.h"

#include <ctime>

using namespace simtest;
using zel5sim::Account;
using zel5sim::Service;

namespace {

class FunctionsTest : public ::testing::Test {
protected:
    std::unique_ptr<zel5sim::BillingSim> sim = startSim();
    std::unique_ptr<ZEL::RPCClient> c = login(sim->port());
};

TEST_F(FunctionsTest, SwitchTogglesTheStatusThatIsReadWithTheBalance)
{
    for (int expected : {1, 0, 1}) {
        ASSERT_EQ(0, c->_call(-16422));
        EXPECT_EQ(expected, get<int>(*c));
        EXPECT_EQ(127.45, get<double>(*c));
        EXPECT_EQ(0, c->end_call());

        ASSERT_EQ(0, c->_call(-16391));
        ASSERT_EQ(0, c->rpcstream().data_put<int>(7));
        c->end_output();
        EXPECT_EQ(0, c->end_call());
        EXPECT_EQ(7, sim->lastArgument(-16391));
    }
}

TEST_F(FunctionsTest, ReportLargerThanOnePacketReadsBackWhole)
{
    Service big{"Internet", {}, {}, {}};
    for (int i = 0; i < 600; ++i) {
        // Sizes over 32 bits and negative ids check the 64- and 32-bit forms.
        zel5sim::TrafficClass t{-i, "class " + std::string(40, 'a' + i % 26) + std::to_string(i),
                                (1LL << 40) + i * 4099LL};
        (i % 3 == 0 ? big.oldPrepaid : i % 3 == 1 ? big.prepaid : big.downloaded).push_back(t);
    }
    Account want, got;
    want.services = {big, Service{"Nothing yet", {}, {}, {}}};
    sim->withAccount("demo", [&](Account& a) { a.services = want.services; });

    ASSERT_EQ(0, c->_call(-16423));
    EXPECT_EQ(1048576, get<int>(*c));
    while (get<int>(*c) != 0 && got.services.size() < 10) {
        Service& s = got.services.emplace_back(Service{getText(*c), {}, {}, {}});
        for (auto* list : {&s.oldPrepaid, &s.prepaid, &s.downloaded}) {
            while (get<int>(*c) == 1 && list->size() < 1000)
                list->push_back({get<int>(*c), getText(*c), get<long long>(*c)});
        }
    }
    EXPECT_EQ(0, c->end_call());
    EXPECT_EQ(image(want), image(got));
    // The session goes on after a reply of several packets.
    EXPECT_EQ("5.1.9", version(*c));
}

TEST_F(FunctionsTest, MessagesNewerThanTheAskedTime)
{
    sim->withAccount("demo", [](Account& a) {
        a.messages = {{3000, "third", "<p>third</p>"}, {1000, "first", "<p>first</p>"},
                      {2000, "second", "<p>second</p>"}};
    });
    int last = 0;
    // The subjects sent, oldest first; last gets the time to ask from next.
    auto fetch = [&](int from) {
        std::vector<std::string> subjects;
        EXPECT_EQ(0, c->_call(-16424));
        c->rpcstream().data_put<int>(from);
        c->end_output();
        last = get<int>(*c);
        for (unsigned i = 0, count = get<unsigned>(*c); i < count && i < 10; ++i) {
            get<int>(*c); // the time
            EXPECT_EQ(0, get<int>(*c));
            subjects.push_back(getText(*c));
            EXPECT_EQ("<p>" + subjects.back() + "</p>", getText(*c));
        }
        EXPECT_EQ(0, c->end_call());
        return subjects;
    };
    EXPECT_EQ((std::vector<std::string>{"second", "third"}), fetch(2000));
    EXPECT_EQ(3000, last);
    // Nothing newer: the time moves on to about now, so the next ask of
    // last + 1 skips nothing that arrives later.
    const int before = static_cast<int>(std::time(nullptr));
    EXPECT_TRUE(fetch(last + 1).empty());
    EXPECT_GE(last, before - 1);
    EXPECT_LE(last, static_cast<int>(std::time(nullptr)));
    sim->withAccount("demo", [](Account& a) {
        a.messages.push_back({static_cast<int>(std::time(nullptr)), "new", "<p>new</p>"});
    });
    EXPECT_EQ(std::vector<std::string>{"new"}, fetch(last + 1));
    // A client whose clock is ahead is never sent back in time.
    EXPECT_TRUE(fetch(2000000000).empty());
    EXPECT_EQ(1999999999, last);
}

} // namespace
