// The controller started against a billing simulator on an ephemeral
// loopback port, with throw-away configuration and data directories.
#ifndef ZEL5_TESTS_APPTEST_H
#define ZEL5_TESTS_APPTEST_H

#include "billingsim.h"
#include "testapp.h"

#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

template <class TString>
class Config;

class AppTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The settings file: the simulator and the subscriber "anna", then `edit`.
    void writeSettings(const std::function<void(Config<QString>&)>& edit = {});
    QString settingsFile() const;
    void addAccount(const std::string& login, const std::string& password, double balance);
    void startApp();
    bool waitOnline();
    bool waitTooltip(const QString& text);
    void openMenu(); // as a right click does
    QString tooltip() const;
    int internetAtServer(const std::string& login = "anna") const;

    QTemporaryDir dir;
    std::unique_ptr<zel5sim::BillingSim> sim;
    std::unique_ptr<TestApp> app;
};

// Processes events until pred() holds; false after the time is up.
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 10000);

// Answers the settings dialog: types the credentials, clears "Save settings"
// when asked to, and accepts or cancels.
std::function<int(QDialog&)> settingsAnswer(const QString& login, const QString& password, bool accept,
                                            bool save = true);

// A fault that cuts the connection on the given call, or one that stalls
// the greeting of a new connection.
zel5sim::Fault dropOnCall(int function);
zel5sim::Fault stallGreeting(int ms);

#endif
