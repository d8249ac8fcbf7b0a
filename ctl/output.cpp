#include "output.h"

#include "htmltext.h"
#include "reportformat.h"

#include <QJsonDocument>
#include <QStringList>

namespace {
QString lines(const QStringList& list)
{
    return list.isEmpty() ? QString() : list.join(QLatin1Char('\n')) + QLatin1Char('\n');
}
}

QString Output::internetText(bool on)
{
    return on ? QStringLiteral("Internet: on") : QStringLiteral("Internet: off");
}

QString Output::balanceText(double balance)
{
    // As the tray's tooltip: two decimals, no grouping.
    return QStringLiteral("Balance: %1").arg(balance, 0, 'f', 2);
}

QString Output::statusText(const AccountState& state)
{
    QStringList out;
    if (state.online)
        out << internetText(state.internetOn) << balanceText(state.balance);
    else
        out << QStringLiteral("Offline");
    out << QStringLiteral("Messages: %1").arg(state.storedMessages);
    return lines(out);
}

QJsonObject Output::statusJson(const AccountState& state)
{
    return QJsonObject{{QStringLiteral("online"), state.online},
                       {QStringLiteral("internet"), state.online && state.internetOn},
                       {QStringLiteral("balance"), state.online ? QJsonValue(state.balance) : QJsonValue()},
                       {QStringLiteral("messages"), static_cast<qint64>(state.storedMessages)}};
}

QString Output::reportText(const Backend::Report& report)
{
    return lines(reportLines(report.services, static_cast<double>(report.sizeDivisor)));
}

QJsonObject Output::reportJson(const Backend::Report& report)
{
    return ::reportJson(report.services, report.sizeDivisor);
}

QString Output::messagesText(const QJsonArray& messages)
{
    QStringList blocks;
    for (const QJsonValue& value : messages) {
        const QJsonObject m = value.toObject();
        QString block = m.value(QStringLiteral("date")).toString() + QStringLiteral("  ")
            + m.value(QStringLiteral("subject")).toString() + QLatin1Char('\n');
        const QString body = htmlToText(m.value(QStringLiteral("text")).toString());
        if (!body.isEmpty())
            block += body + QLatin1Char('\n');
        blocks << block;
    }
    return blocks.join(QLatin1Char('\n'));
}

QString Output::json(const QJsonValue& value)
{
    const QJsonDocument document = value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    return QString::fromUtf8(document.toJson(QJsonDocument::Indented));
}
