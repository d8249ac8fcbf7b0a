#include "barline.h"

#include "output.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {
QString newMessagesText(const AccountState& state)
{
    return state.newCount > 0 ? QStringLiteral("%1 new messages").arg(state.newCount) : QStringLiteral("New messages");
}
}

QStringList BarLine::classes(const AccountState& state) const
{
    QStringList list;
    if (!state.online)
        list << QStringLiteral("offline");
    else
        list << (state.internetOn ? QStringLiteral("internet-on") : QStringLiteral("internet-off"));
    if (state.online && lowBalanceOn && state.balance < lowBalance)
        list << QStringLiteral("low-balance");
    if (state.newMessages)
        list << QStringLiteral("new-messages");
    return list;
}

QJsonObject BarLine::waybar(const AccountState& state) const
{
    const QStringList list = classes(state);
    QStringList tooltip;
    if (state.online) {
        tooltip << Output::balanceText(state.balance) << Output::internetText(state.internetOn);
    } else {
        tooltip << QStringLiteral("Offline");
        if (!offlineReason.isEmpty())
            tooltip << offlineReason.left(1).toUpper() + offlineReason.mid(1);
    }
    if (state.newMessages)
        tooltip << newMessagesText(state);
    return QJsonObject{
        {QStringLiteral("text"), state.online ? QString::number(state.balance, 'f', 2) : QStringLiteral("\u2014")},
        {QStringLiteral("tooltip"), tooltip.join(QLatin1Char('\n'))},
        {QStringLiteral("class"), QJsonArray::fromStringList(list)},
        {QStringLiteral("alt"), list.first()}};
}

QString BarLine::text(const AccountState& state) const
{
    QString out = QStringLiteral("offline");
    if (state.online) {
        out = QString::number(state.balance, 'f', 2);
        if (!state.internetOn)
            out += QStringLiteral(" internet off");
        if (lowBalanceOn && state.balance < lowBalance)
            out += QStringLiteral(" low balance");
    }
    if (state.newMessages)
        out += QStringLiteral(" +") + newMessagesText(state).toLower();
    return out;
}

QString BarLine::line(const AccountState& state, bool plainText) const
{
    if (plainText)
        return text(state);
    return QString::fromUtf8(QJsonDocument(waybar(state)).toJson(QJsonDocument::Compact));
}
