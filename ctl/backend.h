// Where zel5ctl's commands get the account from: the running tray over
// D-Bus (TrayBackend) or a session of zel5ctl's own (DirectBackend). Every
// method waits, bounded, for its answer; false means failure() says why.
#ifndef ZEL5_CTL_BACKEND_H
#define ZEL5_CTL_BACKEND_H

#include "accountstate.h"
#include "failure.h"
#include "miniclient.h"

#include <QJsonArray>

class Backend {
public:
    struct Report {
        int sizeDivisor = 0;
        MiniClient::ServiceList services;
    };

    virtual ~Backend() = default;

    // Reads the internet status and the balance and fetches new messages
    // into the store, as the tray's refresh does. false when nothing could
    // be learnt; otherwise `state` holds what is known, and when it is not
    // online failure() tells why (offline the number of stored messages is
    // still known).
    virtual bool refresh(AccountState& state) = 0;
    // Switches the internet access; `state` holds the state after it.
    virtual bool switchInternet(AccountState& state) = 0;
    virtual bool report(Report& report) = 0;
    // The store, as messagesJson gives it.
    virtual bool storedMessages(QJsonArray& list) = 0;

    const Failure& failure() const { return why; }

protected:
    bool fail(const Failure& failure)
    {
        why = failure;
        return false;
    }

private:
    Failure why;
};

#endif
