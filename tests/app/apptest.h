// The controller against a billing simulator on a loopback port, with
// throw-away folders; the test plays the user: it answers the dialogs.
#ifndef ZEL5_TESTS_APPTEST_H
#define ZEL5_TESTS_APPTEST_H

#include "billingsim.h"
#include "config.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"
#include "zel5trayapp.h"

#include <QCoreApplication>
#include <QDialog>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

// Failures show texts, not their bytes.
inline void PrintTo(const QString& text, std::ostream* os) { *os << '"' << text.toStdString() << '"'; }

class TestApp : public ZEL5TrayApp {
public:
    TestApp() { firstTimeConnect = true; } // each test is a fresh program run
    // Also frees what the program leaves to its end: the worker and the client.
    ~TestApp() override
    {
        if (thread) {
            deinit();
            thread->wait();
            QCoreApplication::processEvents(); // the worker's last notice, taken before the worker goes
            delete thread;
            delete _miniClient;
            _miniClient = nullptr;
        }
        if (_app == this)
            _app = nullptr;
    }
    using ZEL5TrayApp::changeInternetStatus, ZEL5TrayApp::tryToConnect, ZEL5TrayApp::notifier;
    using ZEL5TrayApp::firstRetryMs, ZEL5TrayApp::noTrayNoticeMs, ZEL5TrayApp::sessionCheckGapMs;
    ZEL5Icon* trayIcon() const { return icon; }
    TryToConnectThread* worker() const { return thread; }
    // Every request handed to the worker has come back and was applied.
    bool settle(int ms = 10000) { return QTest::qWaitFor([this] { return !thread->busy(); }, ms); }
    bool connected() const { return account().connected; }

    int timeoutMs = 15000; // login and call; short ones keep the fault tests quick
    std::function<int(QDialog&)> answer; // none: every dialog is cancelled
    QStringList dialogs;                 // class names, in order
    int connectedEvents = 0;

protected:
    void configureClient(MiniClient& client) override { client.loginTimeoutMs = client.callTimeoutMs = timeoutMs; }
    int runDialog(QDialog& dialog) override
    {
        dialogs << QString::fromLatin1(dialog.metaObject()->className());
        return answer ? answer(dialog) : QDialog::Rejected;
    }
    void customEvent(QEvent* event) override
    {
        connectedEvents += event->type() == TryToConnectThread::ConnectedEvent;
        ZEL5TrayApp::customEvent(event);
    }
};

class AppTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { app.reset(); sim->stop(); }

    // The settings file: the simulator and the subscriber "anna", then `edit`.
    void writeSettings(const std::function<void(Config<QString>&)>& edit = {});
    void startApp()
    {
        if (!app)
            app = std::make_unique<TestApp>();
        ZEL5TrayApp::_app = app.get();
        app->init();
    }
    void addAccount(const char* login, const char* password, double balance)
    {
        sim->putAccount({.login = login, .password = password, .balance = balance, .internetStatus = 1,
                         .services = {}, .messages = {}});
    }
    void editAccount(const std::function<void(zel5sim::Account&)>& fn) { ASSERT_TRUE(sim->withAccount("anna", fn)); }
    int internetAtServer() const { zel5sim::Account a; return sim->getAccount("anna", a) ? a.internetStatus : -1; }
    ZEL5Icon* icon() const { return app->trayIcon(); }
    QString tooltip() const { return icon()->toolTip(); }
    void openMenu() { icon()->contextMenuAboutToShow(icon()->menu()); } // as a right click does
    bool waitOnline() { return QTest::qWaitFor([this] { return icon()->online; }, 10000); }
    bool waitTooltip(const QString& text) { return QTest::qWaitFor([&] { return tooltip() == text; }, 10000); }
    // Runs one refresh tick and waits until its outcome was applied.
    void tick() { app->processTimer(); ASSERT_TRUE(app->settle()) << "the tick's exchange to end"; }

    QTemporaryDir dir;
    std::unique_ptr<zel5sim::BillingSim> sim;
    std::unique_ptr<TestApp> app;
};

inline QString offline(const QString& reason) { return reason + QStringLiteral("\nClick to try again"); }
inline Config<QString> savedSettings() { Config<QString> saved; EXPECT_TRUE(saved._load()); return saved; }

// Answers the settings dialog with these credentials and "Save settings".
std::function<int(QDialog&)> settingsAnswer(const QString& login, const QString& password, bool accept,
                                            bool save = true);

// One application object for the whole run, nothing on screen.
int runAppTests(int argc, char** argv);

#endif
