#include "zel5trayapp.h"

#include "accountoverview.h"
#include "autostartentry.h"
#include "balancehistory.h"
#include "config.h"
#include "desktopnotifier.h"
#include "filefinderqt.h"
#include "messagecollector.h"
#include "storelock.h"
#include "traybusservice.h"
#include "zel5icon.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QMutex>
#include <QTimer>
#include <QTimerEvent>

#include <malloc.h>

namespace {
// How long shut-down waits for the worker to give up its exchange. The
// exchange is cancelled first, so this only covers a name lookup that
// cannot be interrupted; then the process ends without waiting for it.
const int shutdownWaitMs = 500;
}

ZEL5TrayApp* ZEL5TrayApp::_app = nullptr;
Config<QString>* ZEL5TrayApp::_cfg = nullptr;
MiniClient* ZEL5TrayApp::_miniClient = nullptr;
MessageCollector* ZEL5TrayApp::_messageCollector = nullptr;
bool ZEL5TrayApp::firstTimeConnect = true;

ZEL5TrayApp::ZEL5TrayApp() = default;

ZEL5TrayApp::~ZEL5TrayApp() = default;

ZEL5TrayApp* ZEL5TrayApp::instance()
{
    if (!_app)
        _app = new ZEL5TrayApp;
    return _app;
}

int ZEL5TrayApp::init()
{
    _cfg = new Config<QString>;
    _cfg->init();

    fileFinder = new FileFinderQT;
    _messageCollector = new MessageCollector(fileFinder);

    _miniClient = new MiniClient;
    _miniClient->setMessageCollector(_messageCollector);
    configureClient(*_miniClient);
    thread = new TryToConnectThread(_miniClient, this);

    icon = new ZEL5Icon;
    icon->init();
    // The menu may open before the first report arrives; it then shows an
    // empty one.
    icon->reports = &reports;

    connect(icon, &ZEL5Icon::viewAboutSelected, this, &ZEL5TrayApp::showAbout);
    connect(icon, &ZEL5Icon::configureAppSelected, this, &ZEL5TrayApp::showSettings);
    connect(icon, &ZEL5Icon::switchInternetSelected, this, &ZEL5TrayApp::changeInternetStatus);
    connect(icon, &ZEL5Icon::menuAboutToShow, this, &ZEL5TrayApp::updateMenuAndPrepaid);
    connect(icon, &ZEL5Icon::menuAboutToShow, this, &ZEL5TrayApp::showNewMessages);
    connect(icon, &ZEL5Icon::iconSelected, this, &ZEL5TrayApp::tryToConnect);
    connect(icon, &ZEL5Icon::iconSelected, this, &ZEL5TrayApp::iconClicked);
    connect(icon, &ZEL5Icon::viewMessagesSelected, this, &ZEL5TrayApp::showMessages);
    connect(icon, &ZEL5Icon::ZELAtWebSelected, this, &ZEL5TrayApp::showZELAtWeb);

    if (_cfg->_load()) {
        _cfg->loaded = true;
        // The autostart entry follows the stored setting, whatever changed it.
        applyAutostart();
    } else {
        showSettings();
    }

    history = new BalanceHistory(BalanceHistory::defaultPath());
    if (!history->load())
        qWarning("zel5_tray: %s", qUtf8Printable(history->errorString()));
    busService = new TrayBusService(this);
    busService->registerOnBus();

    prepaidStale = true;
    watchDesktop();
    tryToConnect();
    runTimer();
    watchForTray();
    return 0;
}

int ZEL5TrayApp::deinit()
{
    if (timerId != -1) {
        killTimer(timerId);
        timerId = -1;
    }
    // Cut the exchange under way short; what was received before the quit
    // still reaches the store and the settings.
    const bool workerStopped = !thread || thread->stop(shutdownWaitMs);
    takeOutcomesLeft();
    if (heldLastCheck >= 0) {
        storeMessages(heldMessages, heldLastCheck);
        heldMessages.clear();
        heldLastCheck = -1;
    }
    if (_cfg)
        _cfg->_save(_cfg->saveSettings);

    delete trayWatch;
    trayWatch = nullptr;
    delete overview;
    overview = nullptr;
    delete history;
    history = nullptr;
    delete busService; // leaves the bus
    busService = nullptr;

    delete notifier;
    notifier = nullptr;
    delete icon;
    icon = nullptr;

    // A worker stuck in a name lookup keeps the client; the process ends
    // without it.
    if (_miniClient && workerStopped) {
        _miniClient->disconnect();
        delete _miniClient;
        _miniClient = nullptr;
    }

    delete _messageCollector;
    _messageCollector = nullptr;
    delete fileFinder;
    fileFinder = nullptr;
    delete _cfg;
    _cfg = nullptr;
    return 0;
}

void ZEL5TrayApp::runTimer()
{
    if (timerId != -1)
        killTimer(timerId);
    timerId = -1;
    if (_cfg->refreshRate > 0)
        timerId = startTimer(_cfg->refreshRate * 1000);
}

void ZEL5TrayApp::timerEvent(QTimerEvent*)
{
    processTimer();
}

void ZEL5TrayApp::processTimer()
{
    // A tick that finds an exchange under way is skipped: ticks never pile
    // up behind a slow server.
    if (!thread->busy()) {
        if (!clientConnected()) {
            tryToConnect();
        } else {
            bool newMessages = false;
            processTimerRefresh(newMessages);
        }
    }
    // The report is read again only when the menu next opens.
    prepaidStale = true;
}

void ZEL5TrayApp::processTimerRefresh(bool& newMessages)
{
    // The results, new messages included, come with the outcome.
    newMessages = false;
    submit(TryToConnectThread::Status | TryToConnectThread::Messages);
}

void ZEL5TrayApp::tryToConnect()
{
    // Guards only the act of starting; the worker runs one request at a time.
    static QMutex startMutex;
    if (clientConnected())
        return;
    if (thread->busy()) {
        // Tried again as soon as the exchange under way is over.
        reconnectPending = true;
        return;
    }
    if (!startMutex.tryLock())
        return;
    unsigned steps = TryToConnectThread::Connect | TryToConnectThread::Status | TryToConnectThread::Messages;
    if (firstTimeConnect && _cfg->switchInternetOnStart)
        steps |= TryToConnectThread::SwitchIfOff;
    if (prepaidStale) {
        prepaidStale = false;
        steps |= TryToConnectThread::Prepaid;
    }
    reconnectPending = false;
    submit(steps);
    attemptRunning = true;
    if (!icon->online)
        displayUpdates(false); // "Connecting…"
    startMutex.unlock();
}

void ZEL5TrayApp::submit(unsigned steps)
{
    TryToConnectThread::Request request;
    request.steps = steps;
    request.settings.address = _cfg->address;
    request.settings.port = _cfg->port;
    request.settings.login = _cfg->login;
    request.settings.password = _cfg->password;
    // Messages held for the open dialog already count as received.
    request.lastCheck = heldLastCheck >= 0 ? heldLastCheck : _cfg->lastMessageCheck;
    request.switchOffOnExit = _cfg->switchInternetOnExit;
    request.generation = generation;
    thread->submit(request);
}

void ZEL5TrayApp::customEvent(QEvent* event)
{
    if (event->type() != TryToConnectThread::ConnectedEvent && event->type() != TryToConnectThread::ExchangeEvent)
        return;
    // After shut-down the outcomes were taken already.
    if (!icon || !thread || !thread->takeOutcome(current))
        return;
    applyOutcome(current);
}

void ZEL5TrayApp::applyOutcome(TryToConnectThread::Outcome& outcome)
{
    bool newMessages = false;
    if (outcome.messagesRead) {
        // Held while the dialog is open or the store is busy, in order.
        heldMessages.insert(heldMessages.end(), outcome.messages.begin(), outcome.messages.end());
        heldLastCheck = outcome.lastCheck;
    }
    if (heldLastCheck >= 0 && !messagesDialogOpen) {
        QString newest;
        const int added = storeMessages(heldMessages, heldLastCheck, &newest);
        if (added >= 0) {
            heldMessages.clear();
            heldLastCheck = -1;
            newMessages = added > 0;
            tellNewMessages(added, newest);
        }
    }
    // A request made before the settings changed tells nothing about the
    // session the new settings open.
    if (outcome.generation == generation) {
        applyState(outcome);
        if (outcome.connectResult == MiniClient::rcOk)
            processConnection();
        else
            displayUpdates(newMessages);
        if (outcome.statusRead && view.connected) {
            lastRefresh = QDateTime::currentSecsSinceEpoch();
            ++refreshes;
            everKnown = true;
            recordBalance(lastRefresh, view.balance);
            watchBalance();
        }
        scheduleRetry(outcome);
        if (reconnectIfCheckFails && !(outcome.steps & TryToConnectThread::Connect)) {
            reconnectIfCheckFails = false;
            if (!view.connected)
                reconnectPending = true;
        }
    }
    updateOverview();
    emit stateChanged();
    if (thread->busy())
        return;
    // The exchange's buffers (the TLS handshake's above all) were freed in
    // the worker's heap; give the pages back while the tray idles.
    ::malloc_trim(0);
    if (sessionCheckPending)
        runSessionCheck();
    else if (reconnectPending)
        tryToConnect();
    else if (refreshPending)
        refreshNow();
}

void ZEL5TrayApp::applyAutostart()
{
    QString why;
    if (!AutostartEntry::apply(_cfg->startOnLogin, QCoreApplication::applicationFilePath(), &why))
        qWarning("zel5_tray: %s", qUtf8Printable(why));
}

void ZEL5TrayApp::recordBalance(qint64 time, double balance)
{
    history->record(time, balance);
    const QString& error = history->errorString();
    if (!error.isEmpty() && error != historyErrorLogged)
        qWarning("zel5_tray: %s", qUtf8Printable(error));
    historyErrorLogged = error;
}

void ZEL5TrayApp::refreshNow()
{
    if (thread->busy()) {
        refreshPending = true;
        return;
    }
    refreshPending = false;
    if (!clientConnected()) {
        tryToConnect();
        return;
    }
    bool newMessages = false;
    processTimerRefresh(newMessages);
}

bool ZEL5TrayApp::newMessagesSignalled() const
{
    return icon && icon->notify;
}

void ZEL5TrayApp::showAccount()
{
    // Made on first use: a tray that is never asked for it stays lean.
    if (!overview)
        overview = new AccountOverview;
    updateOverview(true);
    overview->show();
    overview->raise();
    overview->activateWindow();
}

void ZEL5TrayApp::iconClicked()
{
    if (icon->notify)
        showNewMessages();
    else
        showAccount();
}

void ZEL5TrayApp::updateOverview(bool evenHidden)
{
    // Hidden, it is brought up to date when shown again.
    if (!overview || !_cfg || (!evenHidden && !overview->isVisible()))
        return;
    AccountOverview::State state;
    state.online = view.connected;
    state.known = everKnown;
    state.internetOn = view.internetStatus != 0;
    state.balance = view.balance;
    if (lastRefresh > 0)
        state.lastRefresh = QDateTime::fromSecsSinceEpoch(lastRefresh);
    state.sizeDivisor = view.sizeDivisor != 0 ? double(view.sizeDivisor) : 1048576.0;
    state.reports = &reports;
    state.history = history;
    overview->setState(state);
}

void ZEL5TrayApp::applyState(TryToConnectThread::Outcome& outcome)
{
    if (outcome.steps & TryToConnectThread::Connect) {
        attemptRunning = false;
        if (outcome.connectResult != MiniClient::rcOk)
            noteFailedConnect(outcome.connectResult, outcome.connectError);
    } else if (view.connected && !outcome.connected) {
        // A session lost in a call: the server stopped answering.
        offlineReason = Unreachable;
    }
    view.connected = outcome.connected;
    view.internetStatus = outcome.internetStatus;
    view.balance = outcome.balance;
    if (outcome.prepaidRead) {
        reports.swap(outcome.services);
        view.sizeDivisor = outcome.sizeDivisor;
        icon->reports = &reports;
        icon->sizeDivisor = static_cast<double>(view.sizeDivisor);
        icon->rebuildTrafficMenu();
    } else if ((outcome.steps & TryToConnectThread::Prepaid) && !outcome.connected) {
        // Not read for want of a session: read it with the next one.
        prepaidStale = true;
    }
}

void ZEL5TrayApp::processConnection()
{
    // The worker has already refreshed the session, switched internet on
    // if asked, set the disconnect hook and read the report; show it.
    displayUpdates(current.messagesRead && !current.messages.empty());
    firstTimeConnect = false;
}

int ZEL5TrayApp::storeMessages(std::vector<MessageCollector::ZELMessage>& messages, long lastCheck,
                               QString* newest)
{
    if (!_messageCollector || !_cfg)
        return 0;
    // zel5ctl may write the store while no tray runs, and a tray may start
    // meanwhile: the store is read again under the lock before it is saved.
    StoreLock lock(storeLockWaitMs);
    if (!lock.locked())
        return -1;
    _messageCollector->synchronize(false);
    // A store saved just before a crash may hold messages whose time stamp
    // was not saved yet; they come again and are kept once.
    int added = 0;
    for (MessageCollector::ZELMessage& m : messages) {
        if (_messageCollector->contains(m))
            continue;
        _messageCollector->insertMessage(m.subject, m.text, m.date);
        ++added;
        if (newest)
            *newest = QString::fromStdString(m.subject);
    }
    _messageCollector->synchronize(true);
    // The time stamp follows the store at once, whatever "Save settings" says.
    if (lastCheck != _cfg->lastMessageCheck) {
        _cfg->lastMessageCheck = static_cast<int>(lastCheck);
        _cfg->_save(false);
    }
    return added;
}

void ZEL5TrayApp::storePendingMessages()
{
    if (heldLastCheck < 0)
        return;
    QString newest;
    const int added = storeMessages(heldMessages, heldLastCheck, &newest);
    if (added < 0)
        return; // the store is busy: tried again with the next outcome
    heldMessages.clear();
    heldLastCheck = -1;
    if (added > 0 && icon) {
        icon->setNotify(true);
        tellNewMessages(added, newest);
    }
}

void ZEL5TrayApp::takeOutcomesLeft()
{
    if (!thread)
        return;
    TryToConnectThread::Outcome outcome;
    while (thread->takeOutcome(outcome)) {
        if (!outcome.messagesRead)
            continue;
        heldMessages.insert(heldMessages.end(), outcome.messages.begin(), outcome.messages.end());
        heldLastCheck = outcome.lastCheck;
    }
}

void ZEL5TrayApp::updatePrepaid()
{
    // Offline the last report stays shown and is read with the next session.
    if (!prepaidStale || !clientConnected())
        return;
    prepaidStale = false;
    submit(TryToConnectThread::Prepaid);
}

void ZEL5TrayApp::updateMenuAndPrepaid()
{
    updatePrepaid();
    icon->setMessagesStatus(!_messageCollector->empty());
}

void ZEL5TrayApp::displayUpdates(bool newMessages)
{
    if (clientConnected()) {
        icon->setOnlineStatus(true);
        icon->setInternetStatus(view.internetStatus != 0);
        icon->setTooltip(tr("Balance: %1").arg(view.balance, 0, 'f', 2));
    } else {
        icon->setOnlineStatus(false);
        icon->setTooltip(offlineText());
    }
    if (newMessages)
        icon->setNotify(true);
}

void ZEL5TrayApp::changeInternetStatus()
{
    // Queued behind an exchange under way; the outcome shows the new state.
    if (clientConnected())
        submit(TryToConnectThread::Switch);
    else
        displayUpdates(false);
}
