// zel5ctl's own session with the billing server, for when no tray runs:
// the tray's settings, the tray's connection worker with the client's
// bounds (connect 10 s, login 15 s, each call 30 s), and the tray's store.
// The session stays open between requests and is opened again when it was
// lost; it is dropped when the object goes.
#ifndef ZEL5_CTL_DIRECTBACKEND_H
#define ZEL5_CTL_DIRECTBACKEND_H

#include "backend.h"
#include "config.h"
#include "localstore.h"
#include "trytoconnectthread.h"

#include <QObject>

class QEventLoop;

class DirectBackend : public QObject, public Backend {
public:
    // lockWaitMs: how long a store operation waits for the store's lock.
    DirectBackend(const Config<QString>& settings, int lockWaitMs);
    ~DirectBackend() override;

    bool refresh(AccountState& state) override;
    bool switchInternet(AccountState& state) override;
    bool report(Report& report) override;
    bool storedMessages(QJsonArray& list) override;

protected:
    void customEvent(QEvent* event) override;

private:
    // Runs steps (with a connect first when there is no session) and waits
    // for the outcome; false when the connect or a call failed.
    bool run(unsigned steps, TryToConnectThread::Outcome& outcome);
    bool waitForOutcome(int boundMs, TryToConnectThread::Outcome& outcome);
    bool awaitOutcome(int ms, TryToConnectThread::Outcome& outcome);
    void fillState(const TryToConnectThread::Outcome& outcome, AccountState& state) const;
    int boundMs(unsigned steps) const;

    Config<QString> settings;
    LocalStore store;
    MiniClient* client;
    TryToConnectThread* worker;
    QEventLoop* waiting = nullptr;
    bool connected = false;
    long lastCheck;
    int fetched = 0; // new messages this run has put into the store
};

#endif
