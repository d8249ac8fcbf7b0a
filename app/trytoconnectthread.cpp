#include "trytoconnectthread.h"

#include "miniclient.h"
#include "zel5trayapp.h"

#include <QCoreApplication>

namespace {
// The client version that the billing server's version check expects.
const char* const clientVersion = "5.1.9";
}

TryToConnectThread::TryToConnectThread(QObject* parent)
    : QThread(parent)
{
}

bool TryToConnectThread::startAttempt(const Settings& s)
{
    if (busy())
        return false;
    // The previous attempt has already let go of the client and at most
    // still returns from run(); waiting for that is immediate.
    if (isRunning())
        wait();
    settings = s;
    // Starting the thread orders these writes before run() reads them.
    attemptRunning.store(true, std::memory_order_relaxed);
    start();
    return true;
}

void TryToConnectThread::run()
{
    MiniClient* client = ZEL5TrayApp::_miniClient;
    // Host and password travel as 8-bit text, the login as UTF-8: that is
    // what the billing server compares them with.
    client->address = settings.address.toLatin1().toStdString();
    client->port = settings.port;
    client->login = settings.login.toUtf8().toStdString();
    client->password = settings.password.toLatin1().toStdString();
    client->requiredVersion = clientVersion;
    client->connect();
    const bool connected = client->connected;

    // Hand the client back before telling the interface thread, so that the
    // event never finds it still marked as in use.
    attemptRunning.store(false, std::memory_order_release);
    if (connected)
        QCoreApplication::postEvent(ZEL5TrayApp::instance(), new QEvent(ConnectedEvent));
}
