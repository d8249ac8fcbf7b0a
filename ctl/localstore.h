// The tray's message store and its time stamp ("last_message_check" in the
// settings) as zel5ctl changes them without a tray: every load, change and
// save under the StoreLock, and the store written before the time stamp,
// so that a crash between the two fetches messages again (and they are
// skipped as stored) rather than losing them.
#ifndef ZEL5_CTL_LOCALSTORE_H
#define ZEL5_CTL_LOCALSTORE_H

#include "failure.h"
#include "messagecollector.h"

#include <QJsonArray>

#include <vector>

class LocalStore {
public:
    // How long each operation waits for the lock.
    explicit LocalStore(int lockWaitMs) : lockWaitMs(lockWaitMs) {}

    // Adds the messages not stored yet, saves the store, then moves the
    // time stamp to lastCheck (never back: another program may have moved
    // it further meanwhile). added: how many were new; stored: the count after.
    bool merge(const std::vector<MessageCollector::ZELMessage>& received, long lastCheck, int& added,
               quint32& stored);
    bool read(QJsonArray& list);
    bool count(quint32& stored);

    const Failure& failure() const { return why; }

private:
    template <class Work> bool locked(Work work);

    int lockWaitMs;
    Failure why;
};

#endif
