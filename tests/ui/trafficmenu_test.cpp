// The "Traffic" submenu built from the account report, and the menu's
// texts in another language.
#include "zel5icon.h"

#include <QAction>
#include <QCoreApplication>
#include <QMenu>
#include <QTranslator>

#include <gtest/gtest.h>

namespace {

MiniClient::ServiceReport service(const char* name, std::vector<MiniClient::TClassReport> old = {},
                                  std::vector<MiniClient::TClassReport> down = {})
{
    return {name, std::move(old), {}, std::move(down)};
}

class TrafficMenuTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        icon.init();
        icon.reports = &services;
        icon.sizeDivisor = 1048576.0;
    }
    QStringList open()
    {
        emit icon.menu()->aboutToShow();
        QStringList texts;
        for (QAction* action : icon.trafficMenu->actions())
            texts << action->text();
        return texts;
    }

    ZEL5Icon icon;
    MiniClient::ServiceList services;
};

TEST_F(TrafficMenuTest, ListsEachServiceWithItsThreeClassLists)
{
    services = {service("Internet", {{3, "Local", 5242880}},
                        {{-7, "World", 0}, {2, "Back", -1048576}, {4, "Half", 1572864}}),
                service("Phone")};
    const QStringList expected = {
        "Service: Internet", "Old Prepaid:", "    Traffic Class: Local (3), Size: 5.00 Mb",
        "Prepaid:", "Downloaded:", "    Traffic Class: World (-7), Size: 0.00 Mb",
        "    Traffic Class: Back (2), Size: -1.00 Mb", "    Traffic Class: Half (4), Size: 1.50 Mb",
        "Service: Phone", "Old Prepaid:", "Prepaid:", "Downloaded:",
    };
    EXPECT_EQ(open(), expected);
    EXPECT_FALSE(icon.trafficMenu->actions().first()->isEnabled()) << "a title is no item";
    EXPECT_EQ(open(), expected) << "rebuilt, not appended";
    services.clear();
    EXPECT_TRUE(open().isEmpty());
    icon.reports = nullptr;
    EXPECT_TRUE(open().isEmpty());
}

TEST_F(TrafficMenuTest, ShowsWhatTheControllerRefreshesWhileTheMenuOpensAndNamesLiterally)
{
    MiniClient::ServiceList fresh = {service("R&D \xD0\xA1\xD0\xB2\xD0\xB5\xD1\x82", {{9, "50%4 %1", 2097152}})};
    QObject::connect(&icon, &ZEL5Icon::menuAboutToShow, [&] {
        icon.reports = &fresh;
        icon.sizeDivisor = 1024.0;
    });
    // A doubled '&' is how a menu shows one ampersand.
    EXPECT_EQ(open(), QStringList({QString::fromUtf8("Service: R&&D Свет"), "Old Prepaid:",
                                   "    Traffic Class: 50%4 %1 (9), Size: 2048.00 Mb", "Prepaid:",
                                   "Downloaded:"}));
}

class FakeTranslator : public QTranslator {
public:
    QString translate(const char* context, const char* source, const char*, int) const override
    {
        return QString::fromLatin1(context) == "ZEL5Icon" ? QString::fromLatin1(source).toUpper() : QString();
    }
    bool isEmpty() const override { return false; }
};

TEST_F(TrafficMenuTest, TextsFollowTheLanguageButTheReportTermsStay)
{
    services = {service("Net", {{1, "Day", 1048576}})};
    FakeTranslator translator;
    QCoreApplication::installTranslator(&translator);
    QCoreApplication::processEvents();
    EXPECT_EQ(icon.menuItem(ZEL5Icon::idTraffic)->text(), "TRAFFIC");
    EXPECT_EQ(open(), QStringList({"SERVICE: Net", "Old Prepaid:", "    TRAFFIC CLASS: Day (1), SIZE: 1.00 Mb",
                                   "Prepaid:", "Downloaded:"}));
    QCoreApplication::removeTranslator(&translator);
    QCoreApplication::processEvents();
    EXPECT_EQ(icon.menuItem(ZEL5Icon::idTraffic)->text(), "Traffic");
}

} // namespace
