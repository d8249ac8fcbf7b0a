#include "trytoconnectthread.h"

#include "rpcctx.h"

#include <QCoreApplication>

#include <chrono>

namespace {
// The client version that the billing server's version check expects.
const char* const clientVersion = "5.1.9";
}

TryToConnectThread::TryToConnectThread(MiniClient* c, QObject* r, QObject* parent)
    : QThread(parent), client(c), receiver(r)
{
}

TryToConnectThread::~TryToConnectThread()
{
    stop(-1);
    wait();
}

void TryToConnectThread::submit(const Request& request)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (stopping)
            return;
        queue.push_back(request);
    }
    ++pending;
    wake.notify_one();
    if (!isRunning())
        start();
}

bool TryToConnectThread::startAttempt(const Settings& settings)
{
    if (busy())
        return false;
    Request request;
    request.steps = Connect;
    request.settings = settings;
    submit(request);
    return true;
}

void TryToConnectThread::cancelAll()
{
    std::lock_guard<std::mutex> lock(mutex);
    pending -= static_cast<int>(queue.size());
    queue.clear();
    // The flag is cleared under the same lock when the next request starts,
    // so it reaches exactly the request running now.
    if (running)
        client->cancel();
}

bool TryToConnectThread::stop(int ms)
{
    std::unique_lock<std::mutex> lock(mutex);
    stopping = true;
    pending -= static_cast<int>(queue.size());
    queue.clear();
    if (running)
        client->cancel();
    wake.notify_all();
    if (!isRunning() && !running)
        return true;
    auto ended = [this] { return finished; };
    if (ms < 0) {
        wake.wait(lock, ended);
        return true;
    }
    return wake.wait_for(lock, std::chrono::milliseconds(ms), ended);
}

bool TryToConnectThread::takeOutcome(Outcome& out)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (done.empty())
        return false;
    out = std::move(done.front());
    done.pop_front();
    --pending;
    return true;
}

void TryToConnectThread::run()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        wake.wait(lock, [this] { return stopping || !queue.empty(); });
        if (stopping)
            break;
        const Request request = std::move(queue.front());
        queue.pop_front();
        client->clearCancel();
        running = true;
        lock.unlock();

        Outcome outcome = execute(request);
        const bool connectedNow = outcome.connectResult == MiniClient::rcOk;

        lock.lock();
        running = false;
        done.push_back(std::move(outcome));
        QCoreApplication::postEvent(receiver, new QEvent(connectedNow ? ConnectedEvent : ExchangeEvent));
    }
    // Nothing of the TLS library's per-thread state may outlive the thread.
    ZEL::RPCCtx::thread_end();
    // Whoever stops the thread may take the client back from here on.
    finished = true;
    wake.notify_all();
}

void TryToConnectThread::connectStep(const Request& request, Outcome& out)
{
    // Host and password travel as 8-bit text, the login as UTF-8: that is
    // what the billing server compares them with.
    client->address = request.settings.address.toLatin1().toStdString();
    client->port = request.settings.port;
    client->login = request.settings.login.toUtf8().toStdString();
    client->password = request.settings.password.toLatin1().toStdString();
    client->requiredVersion = clientVersion;
    out.connectResult = client->connect();
    out.connectError = client->lastError;
}

TryToConnectThread::Outcome TryToConnectThread::execute(const Request& request)
{
    Outcome out;
    out.steps = request.steps;
    out.generation = request.generation;
    const unsigned steps = request.steps;
    if (steps & Disconnect)
        client->disconnect();
    if (steps & Connect)
        connectStep(request, out);
    if (steps & Status)
        out.statusRead = client->refreshInternetStatus() == MiniClient::rcOk;
    if (steps & Messages) {
        out.lastCheck = request.lastCheck;
        out.messagesRead = client->fetchMessages(out.lastCheck, out.messages) == MiniClient::rcOk;
    }
    // The server decides the new state; we only learn it from the status read.
    const bool switchOn = (steps & SwitchIfOff) && out.statusRead && client->internetStatus == 0;
    if (switchOn || (steps & Switch)) {
        client->changeInternetStatus();
        out.statusRead = client->refreshInternetStatus() == MiniClient::rcOk;
    }
    if (steps & Connect)
        client->setCoreDisconnectHook(request.switchOffOnExit);
    if ((steps & Prepaid) && client->refreshPrepaid() == MiniClient::rcOk) {
        out.prepaidRead = true;
        out.sizeDivisor = client->sizeDivisor;
        out.services.swap(*client->services);
    }
    out.connected = client->connected;
    out.internetStatus = client->internetStatus;
    out.balance = client->balance;
    return out;
}
