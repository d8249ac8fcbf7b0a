#include "filefinder.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "rawserver.h"

#include <gtest/gtest.h>

namespace {

typedef RawServer R;
const std::string tooLong("123456789", 9); // wrong-sized for any number

void point(MiniClient& mc, const RawServer& server)
{
    mc.address = "127.0.0.1", mc.port = server.port(), mc.login = "ivan", mc.password = "secret";
}

struct NoFile : FileFinder {
    std::string findFile(fileType) override { return std::string(); }
};

} // namespace

TEST(MiniClientRaw, ReportListsEndAtAnyMarkerButOneAndAFailedReportIsNotPublished)
{
    RawServer server({
        {R::i32(1024), R::i32(-1), "Internet",                           // any non-zero flag opens a service
         R::i32(1), R::i32(7), "Local", R::i64(5000000000LL), R::i32(2), // marker 2 ends old prepaid
         R::i32(0),                                                      // prepaid: empty
         R::i32(1), R::i32(8), std::string("W\0rld", 5), R::i64(-1), R::i32(-7), R::i32(0)},
        {R::i32(2048), R::i32(1), "A", R::i32(0), R::i32(0), R::i32(0), // the second service breaks
         R::i32(1), "B", R::i32(1), R::i32(1), "class", tooLong},
    });
    MiniClient mc;
    point(mc, server);
    ASSERT_EQ(mc.connect(), 0);
    ASSERT_EQ(mc.refreshPrepaid(), 0);
    ASSERT_EQ(mc.services->size(), 1u);
    const MiniClient::ServiceReport net = mc.services->front();
    EXPECT_EQ(net.name, "Internet");
    ASSERT_TRUE(net.oldPrepaid.size() == 1 && net.prepaid.empty() && net.downloaded.size() == 1);
    EXPECT_EQ(net.oldPrepaid[0].size, 5000000000LL);
    EXPECT_EQ(net.downloaded[0].name, std::string("W\0rld", 5)); // names keep their received length
    EXPECT_EQ(net.downloaded[0].size, -1);

    MiniClient::ServiceList* report = mc.services;
    EXPECT_EQ(mc.refreshPrepaid(), 7);
    EXPECT_FALSE(mc.connected);
    EXPECT_EQ(mc.sizeDivisor, 2048); // stored as soon as it was read
    EXPECT_TRUE(mc.services == report && report->front().name == "Internet");
}

TEST(MiniClientRaw, ValuesReadBeforeAFailureStayStored)
{
    RawServer status({{R::i32(1), tooLong}});
    MiniClient mc;
    point(mc, status);
    mc.balance = 10.5;
    ASSERT_EQ(mc.connect(), 0);
    EXPECT_EQ(mc.refreshInternetStatus(), 7);
    EXPECT_TRUE(mc.internetStatus == 1 && mc.balance == 10.5);

    RawServer messages({{R::i32(5000), R::i32(2), R::i32(4000), R::i32(12345), "hello", "<p>body</p>", tooLong}});
    NoFile noFile;
    MessageCollector store(&noFile);
    mc.setMessageCollector(&store);
    point(mc, messages);
    ASSERT_EQ(mc.connect(), 0);
    long lastCheck = 1000;
    bool gotNew = true;
    EXPECT_EQ(mc.refreshMessages(lastCheck, gotNew), 7);
    EXPECT_TRUE(lastCheck == 5000 && !gotNew && !mc.connected);
    std::string subject, text, date;
    ASSERT_TRUE(store.currentMessage(subject, text, date));
    EXPECT_EQ(subject + text + date, "hello<p>body</p>" + mc.convertTimeToString(4000));
}
