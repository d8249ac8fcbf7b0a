// The message store as JSON, the form the tray's D-Bus Messages() method
// returns and zel5ctl prints: a list, oldest first, of
// {"date": s, "subject": s, "text": s} with the text (HTML) as stored.
#ifndef ZEL5_MESSAGESJSON_H
#define ZEL5_MESSAGESJSON_H

#include <QJsonArray>

class MessageCollector;

// Walks the store with its cursor and leaves the cursor where it was, so an
// open messages dialog keeps its place.
QJsonArray messagesJson(MessageCollector& store);

#endif
