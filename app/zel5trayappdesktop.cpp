// The controller's part in the desktop: notifications of new messages and
// of a low balance, checks of the session after a wake-up or when the
// network comes back, retries after failures, and the wait for a tray host.
#include "zel5trayapp.h"

#include "config.h"
#include "desktopnotifier.h"
#include "networkmonitor.h"
#include "zel5icon.h"

#include <QDBusConnection>
#include <QDateTime>
#include <QSystemTrayIcon>
#include <QTimer>

#include <algorithm>

namespace {
// How often to look for a tray host while there is none.
const int trayWatchMs = 1000;
} // namespace

void ZEL5TrayApp::watchDesktop()
{
    notifier = new DesktopNotifier(icon, this);
    connect(notifier, &DesktopNotifier::actionInvoked, this, &ZEL5TrayApp::onNotificationAction);

    retryTimer = new QTimer(this);
    retryTimer->setSingleShot(true);
    connect(retryTimer, &QTimer::timeout, this, &ZEL5TrayApp::tryToConnect);
    retryDelayMs = firstRetryMs;

    QDBusConnection::systemBus().connect(QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
                                         QStringLiteral("org.freedesktop.login1.Manager"),
                                         QStringLiteral("PrepareForSleep"), this, SLOT(onPrepareForSleep(bool)));

    network = new NetworkMonitor(QDBusConnection::systemBus(), this);
    connect(network, &NetworkMonitor::onlineChanged, this, [this](bool online) {
        if (online)
            checkSessionSoon();
        else if (!clientConnected() && icon)
            displayUpdates(false); // the offline reason becomes "No network"
    });
}

void ZEL5TrayApp::onPrepareForSleep(bool sleeping)
{
    if (!sleeping)
        checkSessionSoon();
}

void ZEL5TrayApp::checkSessionSoon()
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (lastSessionCheck >= 0 && now - lastSessionCheck < sessionCheckGapMs)
        return;
    lastSessionCheck = now;
    // A fresh start: the next failure waits the shortest delay again.
    retryTimer->stop();
    retryDelayMs = firstRetryMs;
    if (thread->busy())
        sessionCheckPending = true;
    else
        runSessionCheck();
}

void ZEL5TrayApp::runSessionCheck()
{
    sessionCheckPending = false;
    if (!clientConnected()) {
        tryToConnect();
        return;
    }
    // A session that did not survive the sleep fails this read at once.
    reconnectIfCheckFails = true;
    submit(TryToConnectThread::Status);
}

void ZEL5TrayApp::scheduleRetry(const TryToConnectThread::Outcome& outcome)
{
    if (view.connected) {
        retryTimer->stop();
        retryDelayMs = firstRetryMs;
        return;
    }
    // Incomplete settings do not get better by trying; a dropped session
    // after accepted settings is no failure.
    if (outcome.connectResult == MiniClient::rcIncompleteSettings || outcome.steps == TryToConnectThread::Disconnect)
        return;
    // Trying a refused password again and again could lock the account; the
    // refresh tick and a click still try.
    if (offlineReason == LoginRefused)
        return;
    if (retryTimer->isActive())
        return;
    retryTimer->start(retryDelayMs);
    retryDelayMs = std::min(retryDelayMs * 2, std::max(firstRetryMs, _cfg->refreshRate * 1000));
}

void ZEL5TrayApp::noteFailedConnect(int result, int error)
{
    // errno-style reasons of the protocol library: 13 refused, 74 not the
    // protocol; the rest (time-outs, refused connections, no route) mean
    // the server cannot be reached.
    if (result == MiniClient::rcIncompleteSettings)
        offlineReason = IncompleteSettings;
    else if (result == MiniClient::rcSessionFailed && error == 13)
        offlineReason = LoginRefused;
    else if (result == MiniClient::rcSessionFailed && error == 74)
        offlineReason = NotABillingServer;
    else
        offlineReason = Unreachable;
    if (offlineReason != LoginRefused || loginRefusalTold || !notifier)
        return;
    loginRefusalTold = true;
    notifier->notify(DesktopNotifier::LoginRefused, tr("Login refused"),
                     tr("The billing server refused the login. Check the login and password in the settings."),
                     DesktopNotifier::Normal, {QStringLiteral("settings"), tr("Settings")});
}

QString ZEL5TrayApp::offlineText() const
{
    const QString server = _cfg ? _cfg->address : QString();
    const QString port = _cfg ? QString::number(_cfg->port) : QString();
    QString reason;
    if (network && !network->online())
        reason = tr("No network");
    else if (attemptRunning || offlineReason == NotYetKnown)
        reason = tr("Connecting…");
    else if (offlineReason == IncompleteSettings)
        reason = tr("Settings incomplete");
    else if (offlineReason == LoginRefused)
        reason = tr("Login refused: check the login and password in the settings");
    else if (offlineReason == NotABillingServer)
        reason = tr("Not a billing server at %1:%2").arg(server, port);
    else
        reason = tr("Server not reachable: %1:%2").arg(server, port);
    return reason + QLatin1Char('\n') + tr("Click to try again");
}

void ZEL5TrayApp::tellNewMessages(int count, const QString& newest)
{
    if (count <= 0 || !notifier || !_cfg || !_cfg->notifications)
        return;
    const QString body = count > 1 ? tr("%n new messages", nullptr, count) : QString();
    notifier->notify(DesktopNotifier::NewMessages, newest, body, DesktopNotifier::Normal,
                     {QStringLiteral("default"), tr("Show"), QStringLiteral("show"), tr("Show")});
}

void ZEL5TrayApp::watchBalance()
{
    if (!_cfg->lowBalanceWarningOn || view.balance >= _cfg->lowBalanceWarning) {
        lowBalanceTold = false;
        return;
    }
    if (lowBalanceTold)
        return;
    lowBalanceTold = true;
    if (!_cfg->notifications || !notifier)
        return;
    notifier->notify(DesktopNotifier::LowBalance, tr("Low balance"),
                     tr("Balance: %1").arg(view.balance, 0, 'f', 2),
                     view.balance < 0 ? DesktopNotifier::Critical : DesktopNotifier::Normal);
}

void ZEL5TrayApp::onNotificationAction(int kind, const QString& action)
{
    if (kind == DesktopNotifier::LoginRefused && action == QLatin1String("settings")) {
        QTimer::singleShot(0, this, &ZEL5TrayApp::showSettings);
        return;
    }
    if (kind != DesktopNotifier::NewMessages || (action != QLatin1String("show") && action != QLatin1String("default")))
        return;
    // As a click on the blinking icon; the dialog runs after this signal.
    QTimer::singleShot(0, this, [this] {
        if (!icon)
            return;
        icon->setNotify(false);
        showMessages();
    });
}

void ZEL5TrayApp::watchForTray()
{
    if (QSystemTrayIcon::isSystemTrayAvailable())
        return;
    trayWatch = new QTimer(this);
    connect(trayWatch, &QTimer::timeout, this, [this] {
        if (!icon)
            return;
        if (QSystemTrayIcon::isSystemTrayAvailable()) {
            // Shown again so that the icon registers with the new host.
            trayWatch->stop();
            icon->hide();
            icon->show();
            return;
        }
        trayWaitedMs += trayWatch->interval();
        if (trayWaitedMs < noTrayNoticeMs || noTrayNoticeSent)
            return;
        noTrayNoticeSent = true;
        notifier->notify(DesktopNotifier::NoTray, tr("The tray icon needs a system tray"),
                         tr("This desktop shows no tray icons. Orvane ZEL5 Tray keeps running and its icon "
                            "appears as soon as a system tray does. On GNOME, install and enable an "
                            "AppIndicator/StatusNotifier extension, such as \"AppIndicator and "
                            "KStatusNotifierItem Support\"."),
                         DesktopNotifier::Normal);
    });
    trayWatch->start(std::min(trayWatchMs, std::max(1, noTrayNoticeMs)));
}
