#include "balancehistory.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr qint64 Day = 86400;
// The forecast looks this far back, and needs a falling span this long.
constexpr qint64 ForecastWindow = 90 * Day;
constexpr qint64 ForecastMinSpan = 7 * Day;

bool earlier(const BalanceHistory::Sample& a, const BalanceHistory::Sample& b)
{
    return a.time < b.time;
}

// One line "time balance"; anything else, or a balance that is not a
// number, is no sample.
std::optional<BalanceHistory::Sample> parseLine(const QByteArray& line)
{
    const QList<QByteArray> fields = line.trimmed().split(' ');
    if (fields.size() != 2)
        return std::nullopt;
    bool timeOk = false, balanceOk = false;
    const qint64 time = fields[0].toLongLong(&timeOk);
    const double balance = fields[1].toDouble(&balanceOk);
    if (!timeOk || !balanceOk || !std::isfinite(balance))
        return std::nullopt;
    return BalanceHistory::Sample{time, balance};
}

} // namespace

BalanceHistory::BalanceHistory(const QString& path)
    : file(path)
{
}

QString BalanceHistory::defaultPath()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return base.isEmpty() ? QString() : base + QStringLiteral("/zel5_tray/balance_history");
}

bool BalanceHistory::load()
{
    list.clear();
    error.clear();
    QFile in(file);
    if (!in.exists())
        return true;
    if (!in.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("cannot read the balance history %1: %2").arg(file, in.errorString());
        return false;
    }
    while (!in.atEnd()) {
        if (const auto sample = parseLine(in.readLine()))
            list.append(*sample);
    }
    // A file edited by hand or written by a clock that went back still
    // gives a history in time order.
    std::stable_sort(list.begin(), list.end(), earlier);
    // Too old samples go at the next record, which knows the current time.
    if (list.size() > MaxSamples)
        list.erase(list.begin(), list.end() - MaxSamples);
    return true;
}

bool BalanceHistory::record(qint64 time, double balance)
{
    if (!std::isfinite(balance))
        return false;
    // Samples later than this one were taken while the clock ran ahead; kept,
    // they would stand for the current balance until the clock caught up.
    const auto later = std::upper_bound(list.begin(), list.end(), Sample{time, 0.0}, earlier);
    bool changed = later != list.end();
    list.erase(later, list.end());
    const bool added = list.isEmpty() || list.constLast().balance != balance;
    if (added)
        list.append(Sample{time, balance});
    changed = trim(time) || changed;
    if (added || changed)
        save();
    return added;
}

QVector<BalanceHistory::Sample> BalanceHistory::since(qint64 from) const
{
    const auto first = std::lower_bound(list.begin(), list.end(), Sample{from, 0.0}, earlier);
    return QVector<Sample>(first, list.end());
}

std::optional<int> BalanceHistory::daysLeft(qint64 now) const
{
    const QVector<Sample> recent = since(now - ForecastWindow);
    if (recent.size() < 2)
        return std::nullopt;
    // Only what came after the latest rise: a payment starts a new span.
    qsizetype start = 0;
    for (qsizetype i = 1; i < recent.size(); ++i) {
        if (recent[i].balance > recent[i - 1].balance)
            start = i;
    }
    const Sample& first = recent[start];
    const Sample& last = recent.constLast();
    const qint64 span = last.time - first.time;
    if (span < ForecastMinSpan || last.balance <= 0.0 || first.balance <= last.balance)
        return std::nullopt;
    const double perDay = (first.balance - last.balance) / (double(span) / Day);
    const double days = std::ceil(last.balance / perDay);
    if (!(days < double(std::numeric_limits<int>::max())))
        return std::nullopt;
    return int(days);
}

bool BalanceHistory::trim(qint64 now)
{
    const auto young = std::lower_bound(list.begin(), list.end(),
                                        Sample{now - MaxAgeSeconds, 0.0}, earlier);
    const qsizetype before = list.size();
    list.erase(list.begin(), young);
    if (list.size() > MaxSamples)
        list.erase(list.begin(), list.end() - MaxSamples);
    return list.size() != before;
}

// Written to a temporary file that then replaces the old one, so the file
// is always either the old history or the new one, never part of either.
bool BalanceHistory::save() const
{
    if (file.isEmpty())
        return false;
    const QString dir = QFileInfo(file).absolutePath();
    QByteArray text;
    text.reserve(list.size() * 32);
    for (const Sample& s : list)
        text += QByteArray::number(s.time) + ' ' + QByteArray::number(s.balance, 'g', 17) + '\n';

    QSaveFile out(file);
    const bool ok = QDir().mkpath(dir) && out.open(QIODevice::WriteOnly)
                 && out.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
                 && out.write(text) == text.size() && out.commit();
    error.clear();
    if (!ok)
        error = QStringLiteral("cannot save the balance history %1: %2").arg(file, out.errorString());
    return ok;
}
