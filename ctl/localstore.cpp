#include "localstore.h"

#include "config.h"
#include "filefinderqt.h"
#include "messagesjson.h"
#include "storelock.h"



template <class Work> bool LocalStore::locked(Work work)
{
    StoreLock lock(lockWaitMs);
    if (!lock.locked()) {
        why = Failure(Failure::Failed, QStringLiteral("the message store is locked by another program (%1); "
                                                      "try again")
                                           .arg(StoreLock::path()));
        return false;
    }
    // The store reads its file when made and writes it when it goes: both
    // inside the lock.
    FileFinderQT finder;
    MessageCollector store(&finder);
    if (store.file().empty()) {
        why = Failure(Failure::Failed, QStringLiteral("no data directory for the message store"));
        return false;
    }
    return work(store);
}

bool LocalStore::merge(const std::vector<MessageCollector::ZELMessage>& received, long lastCheck, int& added,
                       quint32& stored)
{
    return locked([&](MessageCollector& store) {
        added = 0;
        for (MessageCollector::ZELMessage m : received) {
            if (store.contains(m))
                continue;
            store.insertMessage(m.subject, m.text, m.date);
            ++added;
        }
        stored = static_cast<quint32>(store.count());
        if (!store.synchronize(true)) {
            why = Failure(Failure::Failed,
                          QStringLiteral("cannot write the message store %1").arg(QString::fromStdString(store.file())));
            return false;
        }
        // Only the time stamp is written; the rest of the file stays as the
        // tray saved it.
        Config<QString> settings;
        settings._load();
        if (lastCheck <= settings.lastMessageCheck)
            return true;
        settings.lastMessageCheck = static_cast<int>(lastCheck);
        if (!settings._save(false)) {
            why = Failure(Failure::Failed, QStringLiteral("cannot write the settings file"));
            return false;
        }
        return true;
    });
}

bool LocalStore::read(QJsonArray& list)
{
    return locked([&](MessageCollector& store) {
        list = messagesJson(store);
        return true;
    });
}

bool LocalStore::count(quint32& stored)
{
    return locked([&](MessageCollector& store) {
        stored = static_cast<quint32>(store.count());
        return true;
    });
}
