// The running tray over the session bus: zel5ctl asks the tray rather than
// opening a second session with the billing server.
//
// The tray owns the name net.orvane.Zel5Tray and serves the object
// /net/orvane/Zel5Tray with the interface net.orvane.Zel5Tray.Account:
// read-only properties Online (b), InternetOn (b), Balance (d),
// MessageCount (u), NewMessages (b), Report (s, reportJson), LastRefresh (x),
// and the methods Refresh(), SwitchInternet() and Messages() -> s
// (messagesJson). The methods return at once and the tray's worker does the
// exchange, so after Refresh() and SwitchInternet() zel5ctl waits for the
// PropertiesChanged signal that follows, then reads the properties.
#ifndef ZEL5_CTL_TRAYBACKEND_H
#define ZEL5_CTL_TRAYBACKEND_H

#include "backend.h"

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

class QEventLoop;

class TrayBackend : public QObject, public Backend {
    Q_OBJECT
public:
    static const QString service;
    static const QString path;
    static const QString interface;

    // What a command tells when the tray is offline.
    static Failure offlineFailure();
    // Whether a tray owns the name on this bus.
    static bool running(const QDBusConnection& bus);

    explicit TrayBackend(const QDBusConnection& bus, QObject* parent = nullptr);

    // The tray's state as it is, without a refresh.
    bool readState(AccountState& state);

    bool refresh(AccountState& state) override;
    bool switchInternet(AccountState& state) override;
    bool report(Report& report) override;
    bool storedMessages(QJsonArray& list) override;

signals:
    // The tray's account properties changed.
    void changed();

private slots:
    void onPropertiesChanged(const QString& interfaceName, const QVariantMap& changedProperties,
                             const QStringList& invalidated);

private:
    bool call(const QString& method, QVariant* result = nullptr);
    bool properties(QVariantMap& values);
    // Calls method and waits, at most ms, for a change of one of `keys`
    // (any change when empty). false only when the call failed; a bound
    // that passes leaves the caller to read what the tray has.
    bool callAndWait(const QString& method, const QStringList& keys, int ms);

    QDBusConnection bus;
    QStringList seen;           // properties changed since the last callAndWait began
    QEventLoop* waiting = nullptr;
    QStringList awaited;
};

#endif
