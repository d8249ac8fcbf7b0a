// The lock that the tray and zel5ctl take around every read-change-write of
// the message store and of its time stamp in the settings, so that two
// programs never write them at once and neither saves over messages the
// other has just added. It is a file beside the store,
// $XDG_DATA_HOME/zel5_tray/messages.lock, held through QLockFile: a holder
// that died leaves no lock behind, and a lock older than 30 s counts as
// abandoned, so hold it only around the store's load and save, never
// across a network exchange.
#ifndef ZEL5_STORELOCK_H
#define ZEL5_STORELOCK_H

#include <QLockFile>
#include <QString>

class StoreLock {
public:
    static QString path();

    // Waits at most waitMs (0: a single try) for the lock.
    explicit StoreLock(int waitMs);
    ~StoreLock();
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

    bool locked() const { return held; }

private:
    QLockFile file;
    bool held = false;
};

#endif
