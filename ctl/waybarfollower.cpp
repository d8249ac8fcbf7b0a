#include "waybarfollower.h"

#include "commandrunner.h"
#include "config.h"
#include "console.h"
#include "directbackend.h"
#include "traybackend.h"

#include <QEventLoop>
#include <QTimer>

WaybarFollower::WaybarFollower(bool o, bool p)
    : once(o), plainText(p), bus(QDBusConnection::sessionBus()),
      watcher(TrayBackend::service, bus, QDBusServiceWatcher::WatchForOwnerChange)
{
    connect(&watcher, &QDBusServiceWatcher::serviceOwnerChanged, this, [this] { wake(true); });
}

int WaybarFollower::run()
{
    for (;;) {
        // A change seen by the phase that ended tells the next one nothing;
        // left set, it would end every wait at once.
        presenceChanged = stateChanged = false;
        int code = 0;
        const bool over = TrayBackend::running(bus) ? followTray(code) : followDirect(code);
        if (over)
            return code;
    }
}

void WaybarFollower::wake(bool presence)
{
    (presence ? presenceChanged : stateChanged) = true;
    if (waiting)
        waiting->quit();
}

void WaybarFollower::wait(int ms)
{
    if (presenceChanged || stateChanged)
        return;
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    waiting = &loop;
    loop.exec();
    waiting = nullptr;
}

void WaybarFollower::loadSettings(int& refreshMs)
{
    // Read again each time: the tray may have saved new ones. The low
    // balance level is read even from settings that are incomplete.
    Config<QString> settings;
    settings._load();
    bar.lowBalanceOn = settings.lowBalanceWarningOn;
    bar.lowBalance = settings.lowBalanceWarning;
    refreshMs = settings.refreshRate * 1000;
}

bool WaybarFollower::show(const AccountState& state, const QString& offlineReason)
{
    bar.offlineReason = offlineReason;
    const QString line = bar.line(state, plainText);
    if (line == lastLine)
        return true;
    lastLine = line;
    return Console::out(line + QLatin1Char('\n'));
}

bool WaybarFollower::followTray(int& code)
{
    TrayBackend tray(bus);
    connect(&tray, &TrayBackend::changed, this, [this] { wake(false); });
    for (;;) {
        int refreshMs = 0;
        loadSettings(refreshMs);
        stateChanged = false;
        AccountState state;
        const bool known = tray.readState(state);
        if (!known && !TrayBackend::running(bus))
            return false;
        const Failure why = !known ? tray.failure() : state.online ? Failure() : TrayBackend::offlineFailure();
        if (shownLast(state, why, code))
            return true;
        // The signal tells of every change; reading again each refresh
        // period also covers a signal lost on the way.
        wait(refreshMs);
        if (presenceChanged)
            return false;
    }
}

bool WaybarFollower::shownLast(const AccountState& state, const Failure& why, int& code)
{
    if (!show(state, why.message))
        return true; // nobody reads any more
    if (!once)
        return false;
    code = why.failed() ? Console::fail(why) : 0;
    return true;
}

bool WaybarFollower::followDirect(int& code)
{
    int refreshMs = 0;
    loadSettings(refreshMs);
    Failure why;
    std::unique_ptr<Backend> session = CommandRunner::openBackend(why);
    for (;;) {
        AccountState state;
        if (session && session->refresh(state))
            why = state.online ? Failure() : session->failure();
        else if (session)
            why = session->failure();
        if (shownLast(state, why, code))
            return true;
        wait(refreshMs);
        // A tray that appeared takes over; the session is dropped with
        // `session`. Settings that were incomplete are read again.
        if (presenceChanged || !session)
            return false;
        loadSettings(refreshMs);
    }
}
