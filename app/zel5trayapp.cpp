#include "zel5trayapp.h"

#include "config.h"
#include "filefinderqt.h"
#include "messagecollector.h"
#include "miniclient.h"
#include "trytoconnectthread.h"
#include "zel5icon.h"

#include <QDeadlineTimer>
#include <QMutex>
#include <QTimerEvent>

namespace {
// How long shut-down waits for a connection attempt that is still running
// before it leaves the billing client to it.
const int shutdownWaitMs = 3000;
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

    thread = new TryToConnectThread;
    connect(thread, &QThread::finished, this, &ZEL5TrayApp::attemptFinished);

    fileFinder = new FileFinderQT;
    _messageCollector = new MessageCollector(fileFinder);

    _miniClient = new MiniClient;
    _miniClient->setMessageCollector(_messageCollector);

    icon = new ZEL5Icon;
    icon->init();
    // The menu may open before the first report arrives; it then shows the
    // client's empty list.
    icon->reports = _miniClient->services;

    connect(icon, &ZEL5Icon::viewAboutSelected, this, &ZEL5TrayApp::showAbout);
    connect(icon, &ZEL5Icon::configureAppSelected, this, &ZEL5TrayApp::showSettings);
    connect(icon, &ZEL5Icon::switchInternetSelected, this, &ZEL5TrayApp::changeInternetStatus);
    connect(icon, &ZEL5Icon::menuAboutToShow, this, &ZEL5TrayApp::updateMenuAndPrepaid);
    connect(icon, &ZEL5Icon::menuAboutToShow, this, &ZEL5TrayApp::showNewMessages);
    connect(icon, &ZEL5Icon::iconSelected, this, &ZEL5TrayApp::tryToConnect);
    connect(icon, &ZEL5Icon::iconSelected, this, &ZEL5TrayApp::showNewMessages);
    connect(icon, &ZEL5Icon::viewMessagesSelected, this, &ZEL5TrayApp::showMessages);
    connect(icon, &ZEL5Icon::ZELAtWebSelected, this, &ZEL5TrayApp::showZELAtWeb);

    if (_cfg->_load())
        _cfg->loaded = true;
    else
        showSettings();

    prepaidStale = true;
    tryToConnect();
    runTimer();
    return 0;
}

int ZEL5TrayApp::deinit()
{
    if (timerId != -1) {
        killTimer(timerId);
        timerId = -1;
    }
    if (_cfg)
        _cfg->_save(_cfg->saveSettings);

    delete icon;
    icon = nullptr;

    if (_miniClient) {
        const bool workerDone = !thread || !thread->busy() || thread->wait(QDeadlineTimer(shutdownWaitMs));
        if (workerDone) {
            _miniClient->disconnect();
            delete _miniClient;
            _miniClient = nullptr;
        }
        // Otherwise an attempt still hangs in the client: it stays with the
        // worker, and the process ends without it.
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
    if (!clientConnected()) {
        tryToConnect();
    } else {
        bool newMessages = false;
        processTimerRefresh(newMessages);
        displayUpdates(newMessages);
    }
    // The report is read again only when the menu next opens.
    prepaidStale = true;
}

void ZEL5TrayApp::processTimerRefresh(bool& newMessages)
{
    _miniClient->refreshInternetStatus();
    long lastCheck = _cfg->lastMessageCheck;
    _miniClient->refreshMessages(lastCheck, newMessages);
    _cfg->lastMessageCheck = static_cast<int>(lastCheck);
}

void ZEL5TrayApp::tryToConnect()
{
    // Guards only the act of starting; the worker itself refuses a second
    // attempt while one runs.
    static QMutex startMutex;
    if (clientConnected())
        return;
    if (!startMutex.tryLock())
        return;
    TryToConnectThread::Settings settings;
    settings.address = _cfg->address;
    settings.port = _cfg->port;
    settings.login = _cfg->login;
    settings.password = _cfg->password;
    if (thread->startAttempt(settings))
        reconnectPending = false;
    startMutex.unlock();
}

void ZEL5TrayApp::customEvent(QEvent* event)
{
    // After shut-down (no icon) a late notice has nothing left to update.
    if (event->type() != TryToConnectThread::ConnectedEvent || !icon)
        return;
    // A notice can be overtaken: the session it announced may be gone by
    // now, or a newer attempt may be running.
    if (!clientConnected())
        return;
    if (reconnectPending) {
        _miniClient->disconnect();
        displayUpdates(false);
        return;
    }
    processConnection();
}

void ZEL5TrayApp::attemptFinished()
{
    if (reconnectPending && icon)
        tryToConnect();
}

void ZEL5TrayApp::processConnection()
{
    bool newMessages = false;
    processTimerRefresh(newMessages);
    if (firstTimeConnect && _cfg->switchInternetOnStart && _miniClient->internetStatus == 0) {
        _miniClient->changeInternetStatus();
        _miniClient->refreshInternetStatus();
    }
    setCoreDisconnectHook();
    updatePrepaid();
    displayUpdates(newMessages);
    firstTimeConnect = false;
}

void ZEL5TrayApp::setCoreDisconnectHook()
{
    _miniClient->setCoreDisconnectHook(_cfg->switchInternetOnExit);
}

void ZEL5TrayApp::updatePrepaid()
{
    // While an attempt runs the report stays due and is read next time.
    if (!prepaidStale || thread->busy())
        return;
    prepaidStale = false;
    _miniClient->refreshPrepaid();
    icon->reports = _miniClient->services;
    icon->sizeDivisor = static_cast<double>(_miniClient->sizeDivisor);
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
        icon->setInternetStatus(_miniClient->internetStatus != 0);
        icon->setTooltip(tr("Balance: %1").arg(_miniClient->balance, 0, 'f', 2));
    } else {
        icon->setOnlineStatus(false);
        icon->setTooltip(QString());
    }
    if (newMessages)
        icon->setNotify(true);
}

void ZEL5TrayApp::changeInternetStatus()
{
    if (clientConnected()) {
        _miniClient->changeInternetStatus();
        _miniClient->refreshInternetStatus();
    }
    displayUpdates(false);
}

bool ZEL5TrayApp::clientConnected() const
{
    // An attempt under way means "not connected yet"; the flag is checked
    // first so that the client is not read while the worker writes it.
    return !thread->busy() && _miniClient->connected;
}
