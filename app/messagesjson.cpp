#include "messagesjson.h"

#include "messagecollector.h"

#include <QJsonObject>
#include <QString>

QJsonArray messagesJson(MessageCollector& store)
{
    QJsonArray list;
    const std::size_t count = store.count();
    if (count == 0)
        return list;
    // The store offers no other way through its list than the cursor.
    const std::size_t at = store.currentIndex();
    for (std::size_t i = 0; i < at; ++i)
        store.prevMessage();
    std::string subject, text, date;
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0)
            store.nextMessage();
        store.currentMessage(subject, text, date);
        list.append(QJsonObject{{QStringLiteral("date"), QString::fromStdString(date)},
                                {QStringLiteral("subject"), QString::fromStdString(subject)},
                                {QStringLiteral("text"), QString::fromStdString(text)}});
    }
    for (std::size_t i = count - 1; i > at; --i)
        store.prevMessage();
    return list;
}
