// The traffic report read from a reply of several packets: every record in
// order whatever the lengths of the lists before it, and a second report
// that replaces the first without leftovers.
#include "billingsim.h"
#include "miniclient.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<zel5sim::TrafficClass> classes(int count, int seed)
{
    std::vector<zel5sim::TrafficClass> out;
    for (int i = 0; i < count; ++i)
        out.push_back({seed + i, std::string(static_cast<std::size_t>((seed + i) % 41), char('a' + i % 26)),
                       (1LL << 40) * (i % 3) - i});
    return out;
}

// The client's report equals the account's, record by record.
::testing::AssertionResult sameReport(const MiniClient& mc, const zel5sim::Account& account)
{
    if (mc.services->size() != account.services.size())
        return ::testing::AssertionFailure() << mc.services->size() << " services";
    auto got = mc.services->begin();
    for (const zel5sim::Service& want : account.services) {
        const MiniClient::ServiceReport& s = *got++;
        const std::pair<const std::vector<MiniClient::TClassReport>*, const std::vector<zel5sim::TrafficClass>*>
            lists[] = {{&s.oldPrepaid, &want.oldPrepaid}, {&s.prepaid, &want.prepaid},
                       {&s.downloaded, &want.downloaded}};
        if (s.name != want.name)
            return ::testing::AssertionFailure() << "service " << s.name;
        for (const auto& [have, expected] : lists) {
            if (have->size() != expected->size())
                return ::testing::AssertionFailure() << s.name << ": " << have->size() << " records";
            for (std::size_t i = 0; i < have->size(); ++i) {
                const MiniClient::TClassReport& r = (*have)[i];
                const zel5sim::TrafficClass& e = (*expected)[i];
                if (r.id != e.id || r.name != e.name || r.size != e.size)
                    return ::testing::AssertionFailure() << s.name << ": record " << i << " differs";
            }
        }
    }
    return ::testing::AssertionSuccess();
}

} // namespace

TEST(MiniClientReport, RecordsSpanningPacketsReadWholeAndANewReportLeavesNothingBehind)
{
    zel5sim::BillingSim sim{zel5sim::Options{.port = 0}};
    ASSERT_EQ(sim.start(), 0);
    // Long, empty and short lists one after the other; about 90 KB in all.
    zel5sim::Account account{.login = "ivan", .password = "secret", .sizeDivisor = 1000,
        .services = {{"Интернет", classes(1500, 1), {}, classes(3, 7)},
                     {std::string(200, 'S'), classes(2, 9), classes(1500, 11), {}},
                     {"", {}, {}, {}}},
        .messages = {}};
    sim.putAccount(account);
    MiniClient mc;
    mc.address = "127.0.0.1", mc.port = sim.port(), mc.login = "ivan", mc.password = "secret";
    ASSERT_EQ(mc.connect(), 0);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    EXPECT_EQ(mc.sizeDivisor, 1000);
    EXPECT_TRUE(sameReport(mc, account));

    account.services = {{"Mail", classes(1, 3), classes(1, 4), classes(1, 5)}};
    sim.putAccount(account);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    EXPECT_TRUE(sameReport(mc, account));
    mc.disconnect();
}
