// What zel5ctl learns about the account, from the tray or from its own
// session, and shows.
#ifndef ZEL5_CTL_ACCOUNTSTATE_H
#define ZEL5_CTL_ACCOUNTSTATE_H

#include <QtGlobal>

struct AccountState {
    bool online = false;
    bool internetOn = false;
    double balance = 0.0;
    quint32 storedMessages = 0;
    // New messages are waiting: the tray's flag, or messages fetched by this
    // run of zel5ctl, newCount of them (0 when only the flag is known).
    bool newMessages = false;
    int newCount = 0;

    bool operator==(const AccountState&) const = default;
};

#endif
