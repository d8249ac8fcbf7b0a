// The application's one coordinating object: creates the long-lived objects,
// wires the tray icon to its slots, runs the refresh cycle and tears
// everything down after the event loop ends.
#ifndef ZEL5_ZEL5TRAYAPP_H
#define ZEL5_ZEL5TRAYAPP_H

#include <QObject>
#include <QString>

template <class TString>
class Config;
class FileFinder;
class MessageCollector;
class MiniClient;
class QDialog;
class QEvent;
class QTimerEvent;
class TryToConnectThread;
class ZEL5Icon;

class ZEL5TrayApp : public QObject {
    Q_OBJECT
public:
    ZEL5TrayApp();
    ~ZEL5TrayApp() override;

    // The singleton, created on first use.
    static ZEL5TrayApp* instance();

    int init();
    int deinit();
    void runTimer();
    void processTimer();
    void processTimerRefresh(bool& newMessages);
    void processConnection();
    void displayUpdates(bool newMessages);
    void updatePrepaid();
    void setCoreDisconnectHook();

    static ZEL5TrayApp* _app;
    static Config<QString>* _cfg;
    static MiniClient* _miniClient;
    static MessageCollector* _messageCollector;

protected slots:
    void showAbout();
    void showSettings();
    void tryToConnect();
    void changeInternetStatus();
    void updateMenuAndPrepaid();
    void showMessages();
    void showNewMessages();
    void showZELAtWeb();

protected:
    void timerEvent(QTimerEvent* event) override;
    void customEvent(QEvent* event) override;
    // Runs a dialog modally and returns its result.
    virtual int runDialog(QDialog& dialog);

    bool prepaidStale = false;
    int timerId = -1;
    TryToConnectThread* thread = nullptr;
    ZEL5Icon* icon = nullptr;
    FileFinder* fileFinder = nullptr;
    // The running attempt uses settings that the user has since changed: its
    // session is dropped and a new attempt follows.
    bool reconnectPending = false;

    // Internet access is switched on at most once per process, on the first
    // successful connection.
    static bool firstTimeConnect;

private:
    bool clientConnected() const;
    void attemptFinished();
};

#endif
