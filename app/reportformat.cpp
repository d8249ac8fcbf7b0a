#include "reportformat.h"

#include <QCoreApplication>
#include <QJsonArray>

#include <cmath>

namespace {

// The tray's menu translates these under its own context; the same context
// keeps the catalogue's entries valid wherever the lines are made.
QString trayText(const char* text)
{
    return QCoreApplication::translate("ZEL5Icon", text);
}

// The values are substituted in one pass, so a name that contains "%4"
// stays as it is.
QString classLine(const MiniClient::TClassReport& report, double divisor)
{
    return QStringLiteral("    %1: %2 (%3), %4: %5 %6")
        .arg(trayText(QT_TRANSLATE_NOOP("ZEL5Icon", "Traffic Class")), QString::fromStdString(report.name),
             QString::number(static_cast<qint64>(report.id)), trayText(QT_TRANSLATE_NOOP("ZEL5Icon", "Size")),
             QString::number(static_cast<double>(report.size) / divisor, 'f', 2), QStringLiteral("Mb"));
}

void addClassLines(QStringList& lines, const QString& heading, const std::vector<MiniClient::TClassReport>& list,
                   double divisor)
{
    lines << heading;
    for (const MiniClient::TClassReport& report : list)
        lines << classLine(report, divisor);
}

QJsonArray classesJson(const std::vector<MiniClient::TClassReport>& list)
{
    QJsonArray array;
    for (const MiniClient::TClassReport& report : list) {
        array.append(QJsonObject{{QStringLiteral("id"), report.id},
                                 {QStringLiteral("name"), QString::fromStdString(report.name)},
                                 {QStringLiteral("bytes"), static_cast<qint64>(report.size)}});
    }
    return array;
}

// A JSON number that is a whole number in [low, high]; JSON has only doubles.
bool wholeNumber(const QJsonValue& value, double low, double high, double& out)
{
    if (!value.isDouble())
        return false;
    const double d = value.toDouble();
    if (!(d >= low && d <= high) || std::floor(d) != d)
        return false;
    out = d;
    return true;
}

bool classesFromJson(const QJsonValue& value, const QString& where, std::vector<MiniClient::TClassReport>& out,
                     QString& error)
{
    if (!value.isArray()) {
        error = where + QStringLiteral(" is not a list");
        return false;
    }
    const QJsonArray array = value.toArray();
    for (qsizetype i = 0; i < array.size(); ++i) {
        const QString at = QStringLiteral("%1[%2]").arg(where).arg(i);
        const QJsonObject item = array.at(i).toObject();
        double id = 0, bytes = 0;
        if (!wholeNumber(item.value(QStringLiteral("id")), -2147483648.0, 2147483647.0, id)
            || !item.value(QStringLiteral("name")).isString()
            || !wholeNumber(item.value(QStringLiteral("bytes")), 0, 9007199254740992.0, bytes)) {
            error = at + QStringLiteral(" needs a whole \"id\", a \"name\" and a whole \"bytes\" from 0");
            return false;
        }
        out.push_back({static_cast<int>(id), item.value(QStringLiteral("name")).toString().toStdString(),
                       static_cast<long long>(bytes)});
    }
    return true;
}

} // namespace

QList<QStringList> reportServiceLines(const MiniClient::ServiceList& services, double divisor)
{
    QList<QStringList> all;
    for (const MiniClient::ServiceReport& service : services) {
        QStringList lines{trayText(QT_TRANSLATE_NOOP("ZEL5Icon", "Service: ")) + QString::fromStdString(service.name)};
        addClassLines(lines, QStringLiteral("Old Prepaid:"), service.oldPrepaid, divisor);
        addClassLines(lines, QStringLiteral("Prepaid:"), service.prepaid, divisor);
        addClassLines(lines, QStringLiteral("Downloaded:"), service.downloaded, divisor);
        all << lines;
    }
    return all;
}

QStringList reportLines(const MiniClient::ServiceList& services, double divisor)
{
    QStringList lines;
    for (const QStringList& service : reportServiceLines(services, divisor))
        lines << service;
    return lines;
}

QJsonObject reportJson(const MiniClient::ServiceList& services, int sizeDivisor)
{
    QJsonArray list;
    for (const MiniClient::ServiceReport& service : services) {
        list.append(QJsonObject{{QStringLiteral("name"), QString::fromStdString(service.name)},
                                {QStringLiteral("oldPrepaid"), classesJson(service.oldPrepaid)},
                                {QStringLiteral("prepaid"), classesJson(service.prepaid)},
                                {QStringLiteral("downloaded"), classesJson(service.downloaded)}});
    }
    return QJsonObject{{QStringLiteral("sizeDivisor"), sizeDivisor}, {QStringLiteral("services"), list}};
}

bool reportFromJson(const QJsonObject& json, MiniClient::ServiceList& services, int& sizeDivisor, QString& error)
{
    double divisor = 0;
    if (!wholeNumber(json.value(QStringLiteral("sizeDivisor")), -2147483648.0, 2147483647.0, divisor)) {
        error = QStringLiteral("\"sizeDivisor\" is not a whole number");
        return false;
    }
    const QJsonValue list = json.value(QStringLiteral("services"));
    if (!list.isArray()) {
        error = QStringLiteral("\"services\" is not a list");
        return false;
    }
    MiniClient::ServiceList read;
    const QJsonArray array = list.toArray();
    for (qsizetype i = 0; i < array.size(); ++i) {
        const QString at = QStringLiteral("services[%1]").arg(i);
        const QJsonObject item = array.at(i).toObject();
        if (!item.value(QStringLiteral("name")).isString()) {
            error = at + QStringLiteral(" has no \"name\"");
            return false;
        }
        MiniClient::ServiceReport service;
        service.name = item.value(QStringLiteral("name")).toString().toStdString();
        if (!classesFromJson(item.value(QStringLiteral("oldPrepaid")), at + QStringLiteral(".oldPrepaid"),
                             service.oldPrepaid, error)
            || !classesFromJson(item.value(QStringLiteral("prepaid")), at + QStringLiteral(".prepaid"),
                                service.prepaid, error)
            || !classesFromJson(item.value(QStringLiteral("downloaded")), at + QStringLiteral(".downloaded"),
                                service.downloaded, error))
            return false;
        read.push_back(std::move(service));
    }
    services.swap(read);
    sizeDivisor = static_cast<int>(divisor);
    return true;
}
