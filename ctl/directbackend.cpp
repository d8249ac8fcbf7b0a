#include "directbackend.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <algorithm>

namespace {
// How long the end of the run waits for the worker to give up an exchange;
// it is cancelled first, so this covers only a name lookup in progress.
constexpr int stopWaitMs = 500;
// Beyond the client's own bounds, before the worker counts as stuck.
constexpr int slackMs = 5000;
// A cancelled exchange ends within 50 ms.
constexpr int cancelWaitMs = 1000;
}

DirectBackend::DirectBackend(const Config<QString>& s, int lockWaitMs)
    : settings(s), store(lockWaitMs), client(new MiniClient), worker(new TryToConnectThread(client, this)),
      lastCheck(s.lastMessageCheck)
{
}

DirectBackend::~DirectBackend()
{
    // A worker stuck in a name lookup keeps the client; the process ends
    // without them.
    if (!worker->stop(stopWaitMs))
        return;
    delete worker;
    delete client; // drops the session
}

void DirectBackend::customEvent(QEvent* event)
{
    if ((event->type() == TryToConnectThread::ConnectedEvent || event->type() == TryToConnectThread::ExchangeEvent)
        && waiting)
        waiting->quit();
}

int DirectBackend::boundMs(unsigned steps) const
{
    // Each step is one call, a switch two; the connect has its own bounds.
    int calls = 0;
    for (unsigned step : {TryToConnectThread::Status, TryToConnectThread::Messages, TryToConnectThread::Prepaid})
        calls += (steps & step) ? 1 : 0;
    calls += (steps & TryToConnectThread::Switch) ? 2 : 0;
    int ms = calls * client->callTimeoutMs + slackMs;
    if (steps & TryToConnectThread::Connect)
        ms += client->connectTimeoutMs + client->loginTimeoutMs;
    return ms;
}

bool DirectBackend::awaitOutcome(int ms, TryToConnectThread::Outcome& outcome)
{
    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    connect(&bound, &QTimer::timeout, &loop, &QEventLoop::quit);
    bound.start(ms);
    waiting = &loop;
    // An outcome posted before the loop runs is taken here; the event that
    // announces it then only ends a loop that looks again.
    bool taken = worker->takeOutcome(outcome);
    while (!taken && bound.isActive()) {
        loop.exec();
        taken = worker->takeOutcome(outcome);
    }
    waiting = nullptr;
    return taken;
}

bool DirectBackend::waitForOutcome(int ms, TryToConnectThread::Outcome& outcome)
{
    if (awaitOutcome(ms, outcome))
        return true;
    // The client's bounds should have ended the exchange; cut it short.
    worker->cancelAll();
    return awaitOutcome(cancelWaitMs, outcome);
}

bool DirectBackend::run(unsigned steps, TryToConnectThread::Outcome& outcome)
{
    if (!connected)
        steps |= TryToConnectThread::Connect;
    TryToConnectThread::Request request;
    request.steps = steps;
    request.settings = {settings.address, settings.port, settings.login, settings.password};
    request.lastCheck = lastCheck;
    QElapsedTimer clock;
    clock.start();
    worker->submit(request);
    const bool answered = waitForOutcome(boundMs(steps), outcome);
    connected = answered && outcome.connected;
    const auto callFailure = [&] {
        return Failure::fromCall(clock.elapsed(), client->callTimeoutMs, settings.address, settings.port);
    };
    if (!answered)
        return fail(callFailure());
    if (outcome.connectResult != -1 && outcome.connectResult != MiniClient::rcOk)
        return fail(Failure::fromConnect(outcome.connectResult, outcome.connectError, settings.address, settings.port));
    const bool callsDone = (!(steps & TryToConnectThread::Status) || outcome.statusRead)
        && (!(steps & TryToConnectThread::Messages) || outcome.messagesRead)
        && (!(steps & TryToConnectThread::Switch) || outcome.statusRead)
        && (!(steps & TryToConnectThread::Prepaid) || outcome.prepaidRead);
    return callsDone || fail(callFailure());
}

void DirectBackend::fillState(const TryToConnectThread::Outcome& outcome, AccountState& state) const
{
    state.online = outcome.connected;
    state.internetOn = outcome.internetStatus != 0;
    state.balance = outcome.balance;
    state.newCount = fetched;
    state.newMessages = fetched > 0;
}

bool DirectBackend::refresh(AccountState& state)
{
    TryToConnectThread::Outcome outcome;
    const bool online = run(TryToConnectThread::Status | TryToConnectThread::Messages, outcome);
    // Messages that arrived are stored even when a later step failed.
    if (outcome.messagesRead) {
        int added = 0;
        if (!store.merge(outcome.messages, outcome.lastCheck, added, state.storedMessages))
            return fail(store.failure());
        lastCheck = std::max(lastCheck, outcome.lastCheck);
        fetched += added;
    } else if (!store.count(state.storedMessages)) {
        // Offline the session's failure is the one worth telling.
        return online ? fail(store.failure()) : false;
    }
    fillState(outcome, state);
    return true;
}

bool DirectBackend::switchInternet(AccountState& state)
{
    // The state before tells whether the switch took effect; the server
    // may refuse one, for instance switching on at a low balance.
    TryToConnectThread::Outcome before, after;
    if (!run(TryToConnectThread::Status, before) || !run(TryToConnectThread::Switch, after)) {
        fillState(after, state);
        return false;
    }
    fillState(after, state);
    if (after.internetStatus == before.internetStatus)
        return fail(Failure(Failure::Failed, QStringLiteral("the billing server left the internet access %1")
                                                 .arg(before.internetStatus ? QStringLiteral("on")
                                                                            : QStringLiteral("off"))));
    return true;
}

bool DirectBackend::report(Report& report)
{
    TryToConnectThread::Outcome outcome;
    if (!run(TryToConnectThread::Prepaid, outcome))
        return false;
    report.sizeDivisor = outcome.sizeDivisor;
    report.services.swap(outcome.services);
    return true;
}

bool DirectBackend::storedMessages(QJsonArray& list)
{
    return store.read(list) || fail(store.failure());
}
