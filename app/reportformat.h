// The account report, traffic per service and traffic class, in the two
// forms the programs show it: the text lines of the tray's "Traffic" submenu
// (also printed by zel5ctl) and JSON (the tray's D-Bus Report property and
// zel5ctl's --json output), which reportFromJson reads back.
//
// JSON: {"sizeDivisor": n, "services": [{"name": s, "oldPrepaid": [...],
// "prepaid": [...], "downloaded": [...]}]}, each list of
// {"id": n, "name": s, "bytes": n}.
#ifndef ZEL5_REPORTFORMAT_H
#define ZEL5_REPORTFORMAT_H

#include "miniclient.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

// The lines as shown: "Service: <name>", then the headings "Old Prepaid:",
// "Prepaid:" and "Downloaded:", each followed by its classes as
// "    Traffic Class: <name> (<id>), Size: <size / divisor, 2 decimals> Mb".
// Names are the server's text unchanged: a menu must double their '&'.
QStringList reportLines(const MiniClient::ServiceList& services, double divisor);
// The same lines, one list per service, its "Service:" line first: the menu
// shows that one as a title row.
QList<QStringList> reportServiceLines(const MiniClient::ServiceList& services, double divisor);

QJsonObject reportJson(const MiniClient::ServiceList& services, int sizeDivisor);

// false, with what is wrong in `error`, when json is not a report of the
// form above; the arguments are then unchanged.
bool reportFromJson(const QJsonObject& json, MiniClient::ServiceList& services, int& sizeDivisor,
                    QString& error);

#endif
