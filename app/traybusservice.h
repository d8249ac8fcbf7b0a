// The running tray on the session bus: the account's state as properties,
// the tray's own actions as methods, and one PropertiesChanged signal per
// refresh that changed something. Scripts, status bars and zel5ctl use it
// instead of opening a second session on the billing server.
#ifndef ZEL5_TRAYBUSSERVICE_H
#define ZEL5_TRAYBUSSERVICE_H

#include <QObject>
#include <QString>
#include <QVariantMap>

class ZEL5TrayApp;

class TrayBusService : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "net.orvane.Zel5Tray.Account")
    Q_PROPERTY(bool Online READ online)
    Q_PROPERTY(bool InternetOn READ internetOn)
    Q_PROPERTY(double Balance READ balance)
    Q_PROPERTY(uint MessageCount READ messageCount)
    Q_PROPERTY(bool NewMessages READ newMessages)
    Q_PROPERTY(QString Report READ report)
    Q_PROPERTY(qlonglong LastRefresh READ lastRefresh)
public:
    static const char* const serviceName;
    static const char* const objectPath;
    static const char* const interfaceName;

    explicit TrayBusService(ZEL5TrayApp* app);
    // Takes the name and exports the object; false when the session bus is
    // missing or the name is another program's.
    bool registerOnBus();

    bool online() const;
    bool internetOn() const;
    double balance() const;
    uint messageCount() const;
    bool newMessages() const;
    QString report() const;
    qlonglong lastRefresh() const;

public slots:
    // Each returns at once; the work runs as the tray's own actions do.
    Q_SCRIPTABLE void Refresh();
    Q_SCRIPTABLE void SwitchInternet();
    Q_SCRIPTABLE void ShowMessages();
    Q_SCRIPTABLE void ShowSettings();
    Q_SCRIPTABLE void ShowAccount();
    Q_SCRIPTABLE QString Messages() const;

    // The tray's state may have changed: the changes go out together once
    // the event loop is idle.
    void stateChanged();

private:
    QVariantMap snapshot() const;
    void publish();

    ZEL5TrayApp* const app;
    QVariantMap published;
    int publishedRefreshes = 0;
    bool publishQueued = false;
};

#endif
