#include "simaccountsfile.h"

#include "simreply.h"

#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>
#include <QStringList>

#include <cmath>
#include <cstdint>
#include <set>

namespace zel5sim {

const long long SimAccountsFile::maxFileBytes = 64LL * 1024 * 1024;

namespace {

// Thrown inside the reader only; where says which item is wrong.
struct FormatError {
    std::string text;
};

[[noreturn]] void fail(const std::string& where, const std::string& what)
{
    throw FormatError{where + ": " + what};
}

// Typos in key names would otherwise silently fall back to defaults.
void onlyKeys(const QJsonObject& o, const QStringList& allowed, const std::string& where)
{
    for (const QString& key : o.keys())
        if (!allowed.contains(key))
            fail(where, "unknown key \"" + key.toStdString() + "\"");
}

QJsonValue required(const QJsonObject& o, const char* key, const std::string& where)
{
    if (!o.contains(QLatin1String(key)))
        fail(where, std::string("missing \"") + key + "\"");
    return o.value(QLatin1String(key));
}

std::string text(const QJsonValue& v, const std::string& where, const char* key)
{
    if (!v.isString())
        fail(where, std::string("\"") + key + "\" must be a string");
    const std::string s = v.toString().toStdString();
    if (static_cast<long long>(s.size()) > SimReply::maxValueBytes)
        fail(where, std::string("\"") + key + "\" is longer than " + std::to_string(SimReply::maxValueBytes) + " bytes");
    return s;
}

long long whole(const QJsonValue& v, double lo, double hi, const std::string& where, const char* key)
{
    const double d = v.toDouble();
    if (!v.isDouble() || std::floor(d) != d || d < lo || d > hi)
        fail(where, std::string("\"") + key + "\" must be a whole number from " + std::to_string((long long)lo) +
                        " to " + std::to_string((long long)hi));
    return static_cast<long long>(d);
}

QJsonArray list(const QJsonObject& o, const char* key, const std::string& where)
{
    const QJsonValue v = o.value(QLatin1String(key));
    if (v.isUndefined())
        return QJsonArray();
    if (!v.isArray())
        fail(where, std::string("\"") + key + "\" must be a list");
    return v.toArray();
}

QJsonObject object(const QJsonValue& v, const std::string& where)
{
    if (!v.isObject())
        fail(where, "must be an object");
    return v.toObject();
}

std::vector<TrafficClass> readClasses(const QJsonObject& service, const char* key, const std::string& where)
{
    std::vector<TrafficClass> out;
    const QJsonArray a = list(service, key, where);
    for (int i = 0; i < a.size(); ++i) {
        const std::string at = where + "." + key + "[" + std::to_string(i) + "]";
        const QJsonObject c = object(a[i], at);
        onlyKeys(c, {"id", "name", "size"}, at);
        TrafficClass t;
        t.id = static_cast<int>(whole(required(c, "id", at), INT32_MIN, INT32_MAX, at, "id"));
        t.name = text(required(c, "name", at), at, "name");
        // Exact in a JSON number up to 2^53 bytes, some eight petabytes.
        t.size = whole(required(c, "size", at), 0, 9007199254740992.0, at, "size");
        out.push_back(t);
    }
    return out;
}

Service readService(const QJsonValue& v, const std::string& where)
{
    const QJsonObject o = object(v, where);
    onlyKeys(o, {"name", "oldPrepaid", "prepaid", "downloaded"}, where);
    Service s;
    s.name = text(required(o, "name", where), where, "name");
    s.oldPrepaid = readClasses(o, "oldPrepaid", where);
    s.prepaid = readClasses(o, "prepaid", where);
    s.downloaded = readClasses(o, "downloaded", where);
    return s;
}

Message readMessage(const QJsonValue& v, const std::string& where)
{
    const QJsonObject o = object(v, where);
    onlyKeys(o, {"time", "subject", "body"}, where);
    Message m;
    m.time = static_cast<std::int32_t>(whole(required(o, "time", where), 0, INT32_MAX, where, "time"));
    m.subject = text(required(o, "subject", where), where, "subject");
    m.body = text(required(o, "body", where), where, "body");
    return m;
}

int readInternet(const QJsonObject& o, const std::string& where)
{
    const QJsonValue v = o.value(QLatin1String("internet"));
    if (v.isUndefined())
        return 0;
    if (v.isBool())
        return v.toBool() ? 1 : 0;
    return static_cast<int>(whole(v, 0, 1, where, "internet"));
}

Account readAccount(const QJsonValue& v, const std::string& where)
{
    const QJsonObject o = object(v, where);
    onlyKeys(o, {"login", "password", "balance", "internet", "divisor", "services", "messages"}, where);
    Account a;
    a.login = text(required(o, "login", where), where, "login");
    if (a.login.empty())
        fail(where, "\"login\" is empty");
    const std::string at = where + " (\"" + a.login + "\")";
    a.password = text(required(o, "password", at), at, "password");
    const QJsonValue balance = o.value(QLatin1String("balance"));
    if (!balance.isUndefined() && !balance.isDouble())
        fail(at, "\"balance\" must be a number");
    a.balance = balance.toDouble(0.0);
    a.internetStatus = readInternet(o, at);
    if (o.contains(QLatin1String("divisor")))
        a.sizeDivisor = static_cast<int>(whole(o.value(QLatin1String("divisor")), 1, INT32_MAX, at, "divisor"));
    const QJsonArray services = list(o, "services", at);
    for (int i = 0; i < services.size(); ++i)
        a.services.push_back(readService(services[i], at + ": services[" + std::to_string(i) + "]"));
    const QJsonArray messages = list(o, "messages", at);
    for (int i = 0; i < messages.size(); ++i)
        a.messages.push_back(readMessage(messages[i], at + ": messages[" + std::to_string(i) + "]"));
    return a;
}

std::string position(const QByteArray& json, int offset)
{
    int line = 1, column = 1;
    for (int i = 0; i < offset && i < json.size(); ++i) {
        if (json[i] == '\n') {
            ++line;
            column = 1;
        } else {
            ++column;
        }
    }
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

} // namespace

bool SimAccountsFile::parse(const QByteArray& json, std::vector<Account>& accounts, std::string& error)
{
    QJsonParseError pe;
    const QJsonDocument doc = QJsonDocument::fromJson(json, &pe);
    if (pe.error != QJsonParseError::NoError) {
        error = "not valid JSON at " + position(json, pe.offset) + ": " + pe.errorString().toStdString();
        return false;
    }
    if (!doc.isArray()) {
        error = "the file must hold a list of accounts";
        return false;
    }
    try {
        std::vector<Account> read;
        std::set<std::string> logins;
        const QJsonArray all = doc.array();
        for (int i = 0; i < all.size(); ++i) {
            read.push_back(readAccount(all[i], "account " + std::to_string(i + 1)));
            if (!logins.insert(read.back().login).second)
                fail("account " + std::to_string(i + 1), "login \"" + read.back().login + "\" appears twice");
        }
        accounts = read;
        return true;
    } catch (const FormatError& e) {
        error = e.text;
        return false;
    }
}

bool SimAccountsFile::load(const std::string& path, std::vector<Account>& accounts, std::string& error)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        error = path + ": cannot read: " + file.errorString().toStdString();
        return false;
    }
    if (file.size() > maxFileBytes) {
        error = path + ": larger than " + std::to_string(maxFileBytes / (1024 * 1024)) + " MiB";
        return false;
    }
    const QByteArray json = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        error = path + ": cannot read: " + file.errorString().toStdString();
        return false;
    }
    if (!parse(json, accounts, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

} // namespace zel5sim
