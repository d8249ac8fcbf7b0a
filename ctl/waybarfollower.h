// `zel5ctl waybar`: a line for a status bar at start and again whenever the
// account's state changes (never the same line twice in a row). With a tray
// it follows the tray's PropertiesChanged signals; without one it refreshes
// every refresh period of the settings with a session of its own, opened
// again when it drops. When the tray appears or goes meanwhile it follows.
#ifndef ZEL5_CTL_WAYBARFOLLOWER_H
#define ZEL5_CTL_WAYBARFOLLOWER_H

#include "accountstate.h"
#include "barline.h"
#include "failure.h"

#include <QDBusConnection>
#include <QDBusServiceWatcher>
#include <QObject>

class QEventLoop;

class WaybarFollower : public QObject {
public:
    // once: one line, then the exit code of that state; plainText: Polybar's
    // plain lines instead of Waybar's JSON.
    WaybarFollower(bool once, bool plainText);
    // Returns when done (--once) or when standard output is gone.
    int run();

private:
    // Each returns true when the run is over (exit code in `code`), false
    // when the tray appeared or went and the other one takes over.
    bool followTray(int& code);
    bool followDirect(int& code);
    // Prints the line for `state` unless it is the last one printed; false
    // when standard output is gone.
    bool show(const AccountState& state, const QString& offlineReason);
    // Shows the line; true when following ends with it (--once, in `code`,
    // or standard output gone).
    bool shownLast(const AccountState& state, const Failure& why, int& code);
    // Waits at most ms for a change of the tray's state or presence.
    void wait(int ms);
    void wake(bool presence);
    void loadSettings(int& refreshMs);

    const bool once;
    const bool plainText;
    QDBusConnection bus;
    QDBusServiceWatcher watcher;
    BarLine bar;
    QString lastLine;
    QEventLoop* waiting = nullptr;
    bool presenceChanged = false;
    bool stateChanged = false;
};

#endif
