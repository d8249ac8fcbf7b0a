// The controller with the user replaced by the test: dialogs are answered by
// the test, connection notices are counted, the objects the tests inspect are reachable.
#ifndef ZEL5_TESTS_TESTAPP_H
#define ZEL5_TESTS_TESTAPP_H

#include "zel5trayapp.h"

#include <QStringList>

#include <functional>

class TestApp : public ZEL5TrayApp {
public:
    TestApp() { firstTimeConnect = true; } // each test is a fresh program run
    // Also frees what the program never frees: the worker, and a client
    // that shut-down left to a hanging attempt.
    ~TestApp() override;

    using ZEL5TrayApp::changeInternetStatus;
    using ZEL5TrayApp::tryToConnect;
    ZEL5Icon* trayIcon() const { return icon; }
    TryToConnectThread* worker() const { return thread; }
    bool reportDue() const { return prepaidStale; }
    bool waitForWorker();

    std::function<int(QDialog&)> answer; // none: every dialog is cancelled
    QStringList dialogs;                 // class names, in order
    int connectedEvents = 0;

protected:
    int runDialog(QDialog& dialog) override;
    void customEvent(QEvent* event) override;
};

#endif
