// Whether the computer is on a network, as NetworkManager on the system bus
// tells it. The tray checks its session when a network comes back; without
// NetworkManager it counts as online and nothing is reported.
#ifndef ZEL5_NETWORKMONITOR_H
#define ZEL5_NETWORKMONITOR_H

#include <QDBusConnection>
#include <QObject>

class QDBusVariant;

class NetworkMonitor : public QObject {
    Q_OBJECT
public:
    explicit NetworkMonitor(const QDBusConnection& bus, QObject* parent = nullptr);

    bool online() const { return isOnline; }

signals:
    // Each time online() changes: the network went, or came back after
    // NetworkManager said it was gone.
    void onlineChanged(bool online);

private slots:
    void onStateChanged(uint state);
    void onPropertiesChanged(const QString& interface, const QVariantMap& changed, const QStringList& invalidated);

private:
    QDBusConnection bus;
    bool isOnline = true;
};

#endif
