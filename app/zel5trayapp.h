// The application's one coordinating object: creates the long-lived objects,
// wires the tray icon to its slots, runs the refresh cycle and tears
// everything down after the event loop ends. The billing traffic itself runs
// on the connection worker; this object hands it requests and applies what
// comes back, so the interface never waits on the network.
#ifndef ZEL5_ZEL5TRAYAPP_H
#define ZEL5_ZEL5TRAYAPP_H

#include "miniclient.h"
#include "trytoconnectthread.h"

#include <QObject>
#include <QString>

template <class TString>
class Config;
class FileFinder;
class QDialog;
class QEvent;
class QTimer;
class QTimerEvent;
class AccountOverview;
class BalanceHistory;
class DesktopNotifier;
class NetworkMonitor;
class TrayBusService;
class ZEL5Icon;

class ZEL5TrayApp : public QObject {
    Q_OBJECT
public:
    ZEL5TrayApp();
    ~ZEL5TrayApp() override;

    // The singleton, created on first use.
    static ZEL5TrayApp* instance();

    int init();
    int deinit();
    void runTimer();
    void processTimer();
    void processTimerRefresh(bool& newMessages);
    void processConnection();
    void displayUpdates(bool newMessages);
    void updatePrepaid();

    static ZEL5TrayApp* _app;
    static Config<QString>* _cfg;
    static MiniClient* _miniClient;
    static MessageCollector* _messageCollector;

    // What the interface knows of the account: the last outcome's values.
    struct AccountView {
        bool connected = false;
        int internetStatus = 0;
        double balance = 0.0;
        int sizeDivisor = 0;
    };
    const AccountView& account() const { return view; }
    // What the tray shows, for the session bus and the overview.
    const MiniClient::ServiceList& report() const { return reports; }
    bool newMessagesSignalled() const;
    qint64 lastRefreshTime() const { return lastRefresh; }
    // Completed status reads so far: tells two refreshes within one second apart.
    int refreshCount() const { return refreshes; }
    MessageCollector* store() const { return _messageCollector; }
    AccountOverview* accountOverview() const { return overview; }

signals:
    // After every change of what the tray shows.
    void stateChanged();

public slots:
    // A refresh at once, as a tick does (a connection attempt when offline);
    // after the exchange under way if there is one.
    void refreshNow();
    // The overview window: opened, or raised when open.
    void showAccount();

protected slots:
    void showAbout();
    void showSettings();
    void tryToConnect();
    void changeInternetStatus();
    void updateMenuAndPrepaid();
    void showMessages();
    void showNewMessages();
    void showZELAtWeb();
    // A left click: the signalled messages, or else the overview.
    void iconClicked();
    // The machine woke up (false) or is going to sleep (true).
    void onPrepareForSleep(bool sleeping);

protected:
    void timerEvent(QTimerEvent* event) override;
    void customEvent(QEvent* event) override;
    // Runs a dialog modally and returns its result.
    virtual int runDialog(QDialog& dialog);
    // Called once the billing client exists, before the worker uses it.
    virtual void configureClient(MiniClient&) {}
    // After a wake-up or a network coming back: the session is checked at
    // once, not at the next tick. Events within sessionCheckGapMs make one check.
    void checkSessionSoon();

    // Delays: the first retry after a failure (doubling up to the refresh
    // period), how long to wait for a tray host before saying so, and the
    // gap within which wake-ups and network returns make one check.
    int firstRetryMs = 5000;
    int sessionCheckGapMs = 2000;
    int noTrayNoticeMs = 30000;
    // The store's lock is held by others only around a save: milliseconds.
    int storeLockWaitMs = 500;
    DesktopNotifier* notifier = nullptr;

    bool prepaidStale = false;
    int timerId = -1;
    TryToConnectThread* thread = nullptr;
    ZEL5Icon* icon = nullptr;
    FileFinder* fileFinder = nullptr;
    // Accepted settings wait for the worker to finish with the old ones.
    bool reconnectPending = false;

    // Internet access is switched on at most once per process, on the first
    // successful connection.
    static bool firstTimeConnect;

private:
    bool clientConnected() const { return view.connected; }
    void submit(unsigned steps);
    void applyOutcome(TryToConnectThread::Outcome& outcome);
    void applyState(TryToConnectThread::Outcome& outcome);
    // The number of messages new to the store, -1 when the store is locked
    // by another program; `newest` the last one's subject.
    int storeMessages(std::vector<MessageCollector::ZELMessage>& messages, long lastCheck, QString* newest = nullptr);
    void tellNewMessages(int count, const QString& newest);
    void watchBalance();
    // The autostart entry in line with "start_on_login"; a failure is logged.
    void applyAutostart();
    void recordBalance(qint64 time, double balance);
    void scheduleRetry(const TryToConnectThread::Outcome& outcome);
    void runSessionCheck();
    void watchDesktop();
    void onNotificationAction(int kind, const QString& action);
    // Why the tray is offline, in the user's words, and what helps.
    enum OfflineReason { NotYetKnown, IncompleteSettings, Unreachable, LoginRefused, NotABillingServer };
    void noteFailedConnect(int result, int error);
    QString offlineText() const;
    void storePendingMessages();
    void takeOutcomesLeft();
    void watchForTray();

    TryToConnectThread::Outcome current; // the outcome being applied
    AccountView view;
    MiniClient::ServiceList reports;
    // Raised when the settings change: outcomes of requests made before
    // still bring their messages, but no longer the account's state.
    int generation = 0;
    // While the messages dialog is open its store stays as the user sees
    // it; retrieved messages wait here with the time that goes with them.
    bool messagesDialogOpen = false;
    std::vector<MessageCollector::ZELMessage> heldMessages;
    long heldLastCheck = -1;
    QTimer* trayWatch = nullptr;
    int trayWaitedMs = 0;
    bool noTrayNoticeSent = false;
    QTimer* retryTimer = nullptr;
    int retryDelayMs = 0;
    qint64 lastSessionCheck = -1; // ms since the epoch
    bool sessionCheckPending = false;
    bool reconnectIfCheckFails = false;
    bool lowBalanceTold = false;
    NetworkMonitor* network = nullptr;
    bool attemptRunning = false;
    OfflineReason offlineReason = NotYetKnown;
    // A refused login is told once until the login or password changes.
    bool loginRefusalTold = false;
    bool refreshPending = false;
    qint64 lastRefresh = 0;   // seconds since the epoch of the last status read
    int refreshes = 0;
    bool everKnown = false;   // a status was ever read
    BalanceHistory* history = nullptr;
    QString historyErrorLogged; // a failing save is logged once, not every refresh
    AccountOverview* overview = nullptr;
    TrayBusService* busService = nullptr;
    void updateOverview(bool evenHidden = false);
};

#endif
