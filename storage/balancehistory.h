// The account balance over time, kept in a small text file in the user's
// data folder: one line "time balance" per change of the balance. It feeds
// the overview's chart and the forecast of how long the balance lasts.
#ifndef ZEL5_BALANCEHISTORY_H
#define ZEL5_BALANCEHISTORY_H

#include <QString>
#include <QVector>

#include <optional>

class BalanceHistory {
public:
    struct Sample {
        qint64 time; // seconds since the epoch
        double balance;
    };

    // Samples older than this, counted back from the time of a record, are dropped.
    static constexpr qint64 MaxAgeSeconds = 730 * 86400;
    // A balance that keeps flapping cannot grow the file past this many lines.
    static constexpr int MaxSamples = 5000;

    explicit BalanceHistory(const QString& path);

    // $XDG_DATA_HOME/zel5_tray/balance_history, next to the message store;
    // empty when there is no data folder.
    static QString defaultPath();

    const QString& path() const { return file; }

    // Replaces the samples in memory with the file's. A missing file is an
    // empty history; lines that do not read as a sample are skipped. False
    // only when the file exists but cannot be read.
    bool load();

    // Adds a sample when `balance` differs from the newest sample's, drops
    // what has grown too old or too many, and any sample later than `time`
    // (the clock went back), and saves the file whole. Returns
    // whether a sample was added; a failed save is in errorString(), made good by
    // the next one, as every save writes the whole history.
    bool record(qint64 time, double balance);

    // Why the last load or save failed; empty after one that worked.
    const QString& errorString() const { return error; }

    // Sorted by time, oldest first.
    const QVector<Sample>& samples() const { return list; }
    // The samples at or after `from`.
    QVector<Sample> since(qint64 from) const;

    // Days until the balance reaches zero at the rate it has been falling,
    // judged from the last 90 days after the latest rise (a payment). Only
    // when that span covers at least 7 days, the balance fell in it and is
    // still positive.
    std::optional<int> daysLeft(qint64 now) const;

private:
    bool trim(qint64 now);
    bool save() const;

    QString file;
    QVector<Sample> list;
    mutable QString error;
};

#endif
