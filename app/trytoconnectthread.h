// The connection worker: one connection attempt per start. Resolving the
// server, connecting and logging in can block for a long time, so they run
// here and not on the interface thread.
#ifndef ZEL5_TRYTOCONNECTTHREAD_H
#define ZEL5_TRYTOCONNECTTHREAD_H

#include <QEvent>
#include <QString>
#include <QThread>

#include <atomic>

class TryToConnectThread : public QThread {
    Q_OBJECT
public:
    // Posted to the controller after a successful attempt; no payload.
    static constexpr QEvent::Type ConnectedEvent = static_cast<QEvent::Type>(QEvent::User + 1);

    // What one attempt connects with. The controller copies it from the
    // configuration when the attempt starts, so editing the settings while
    // an attempt runs cannot change what the attempt reads.
    struct Settings {
        QString address;
        int port = 0;
        QString login;
        QString password;
    };

    explicit TryToConnectThread(QObject* parent = nullptr);

    // Starts one attempt. Refused (false) while an attempt is under way.
    // Interface thread only.
    bool startAttempt(const Settings& settings);

    // True from the start of an attempt until the worker has finished with
    // the billing client. While it is true the worker owns the client and
    // the interface thread must not touch it; once it reads false, every
    // write of the attempt is visible to the reader.
    bool busy() const { return attemptRunning.load(std::memory_order_acquire); }

protected:
    void run() override;

private:
    Settings settings;
    std::atomic<bool> attemptRunning{false};
};

#endif
