// The controller as the tests drive it: dialogs are answered by the test
// instead of the user, connection notices are counted, and the parts the
// tests inspect are reachable.
#ifndef ZEL5_TESTS_TESTAPP_H
#define ZEL5_TESTS_TESTAPP_H

#include "zel5trayapp.h"

#include <QStringList>

#include <functional>

class TestApp : public ZEL5TrayApp {
public:
    TestApp();
    // Waits for the worker and frees what the program itself never frees.
    ~TestApp() override;

    using ZEL5TrayApp::changeInternetStatus;
    using ZEL5TrayApp::showSettings;
    using ZEL5TrayApp::showZELAtWeb;
    using ZEL5TrayApp::tryToConnect;

    ZEL5Icon* trayIcon() const { return icon; }
    TryToConnectThread* worker() const { return thread; }
    bool reportDue() const { return prepaidStale; }
    int refreshTimer() const { return timerId; }
    // Waits (bounded) until no connection attempt runs.
    bool waitForWorker(int timeoutMs = 10000);

    // Answers each dialog; without it every dialog is cancelled.
    std::function<int(QDialog&)> answer;
    // Class names of the dialogs opened, in order.
    QStringList dialogs;
    int connectedEvents = 0;

protected:
    int runDialog(QDialog& dialog) override;
    void customEvent(QEvent* event) override;
};

#endif
