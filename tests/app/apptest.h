// A billing simulator on an ephemeral loopback port, throw-away
// configuration and data directories, and a controller started against them.
#ifndef ZEL5_TESTS_APPTEST_H
#define ZEL5_TESTS_APPTEST_H

#include "billingsim.h"
#include "testapp.h"

#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

template <class TString>
class Config;

class AppTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The subscriber the tests log in as.
    static zel5sim::Account subscriber();
    // The settings a test starts with: the simulator's address and port and
    // the subscriber's credentials.
    void defaultSettings(Config<QString>& cfg) const;
    // Writes the settings file; `edit` adjusts the defaults first.
    void writeSettings(const std::function<void(Config<QString>&)>& edit = {});
    // The settings file as it is on disk now.
    QString settingsFile() const;

    // Starts the controller as the program does.
    void startApp();
    // Waits until the icon shows the client online.
    bool waitOnline(int timeoutMs = 10000);
    // Opens the tray menu as a right click does.
    void openMenu();
    // The tooltip the icon shows.
    QString tooltip() const;

    QTemporaryDir dir;
    std::unique_ptr<zel5sim::BillingSim> sim;
    std::unique_ptr<TestApp> app;
};

// Processes events until pred() holds or the time is up.
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 10000);

#endif
