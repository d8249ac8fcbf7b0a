// The connection worker: the one thread that talks to the billing server.
// The interface thread hands it requests (connect, refresh, switch, report,
// drop); it runs them one at a time on the billing client and hands back an
// outcome, a snapshot of what the client learnt, announced by a posted event.
// So the interface thread never waits on the network.
#ifndef ZEL5_TRYTOCONNECTTHREAD_H
#define ZEL5_TRYTOCONNECTTHREAD_H

#include "miniclient.h"

#include <QEvent>
#include <QString>
#include <QThread>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>

class TryToConnectThread : public QThread {
    Q_OBJECT
public:
    // Posted to the receiver after a request whose connect step succeeded.
    static constexpr QEvent::Type ConnectedEvent = static_cast<QEvent::Type>(QEvent::User + 1);
    // Posted after every other request.
    static constexpr QEvent::Type ExchangeEvent = static_cast<QEvent::Type>(QEvent::User + 2);

    // What a connect step connects with, copied from the configuration when
    // the request is made, so editing the settings meanwhile changes nothing.
    struct Settings {
        QString address;
        int port = 0;
        QString login;
        QString password;
    };

    // The steps of a request; they run in this order, each as the billing
    // client's method of that name does.
    enum Step : unsigned {
        Disconnect = 1,     // drop the session
        Connect = 2,        // open a session with `settings`
        Status = 4,         // refreshInternetStatus
        Messages = 8,       // fetchMessages from `lastCheck`
        SwitchIfOff = 16,   // changeInternetStatus and Status, if access is off
        Switch = 32,        // changeInternetStatus and Status
        Prepaid = 64,       // refreshPrepaid
    };

    struct Request {
        unsigned steps = 0;
        Settings settings;
        long lastCheck = 0;
        bool switchOffOnExit = false; // handed to the client's disconnect hook
        int generation = 0;           // the controller's, returned as is
    };

    struct Outcome {
        unsigned steps = 0;
        int generation = 0;
        int connectResult = -1; // connect's code; -1 when not asked
        int connectError = 0;   // the client's lastError after it
        bool connected = false;
        int internetStatus = 0;
        double balance = 0.0;
        bool statusRead = false;
        bool messagesRead = false;
        long lastCheck = 0;
        std::vector<MessageCollector::ZELMessage> messages;
        bool prepaidRead = false;
        int sizeDivisor = 0;
        MiniClient::ServiceList services;
    };

    // The worker uses `client` only on its own thread, from start() until
    // stop() has returned true.
    TryToConnectThread(MiniClient* client, QObject* receiver, QObject* parent = nullptr);
    ~TryToConnectThread() override;

    // Interface thread. Queues a request; the thread starts with the first.
    void submit(const Request& request);
    // Queues a connect request unless one is under way; false when refused.
    bool startAttempt(const Settings& settings);
    // True from a submit until its outcome was taken.
    bool busy() const { return pending > 0; }
    // Cuts the running request short and drops the queued ones.
    void cancelAll();
    // Cancels everything and ends the thread, waiting at most `ms`. True when
    // it ended: the client is the caller's again.
    bool stop(int ms);
    // The next finished outcome, in the order of the requests.
    bool takeOutcome(Outcome& out);

protected:
    void run() override;

private:
    Outcome execute(const Request& request);
    void connectStep(const Request& request, Outcome& out);

    MiniClient* const client;
    QObject* const receiver;
    int pending = 0; // interface thread only

    std::mutex mutex; // guards everything below
    std::condition_variable wake;
    std::deque<Request> queue;
    std::deque<Outcome> done;
    bool running = false;
    bool stopping = false;
    bool finished = false;
};

#endif
