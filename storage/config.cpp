#include "config.h"

#include "scramble.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <QStringList>
#include <QVariant>
#include <QtNumeric>

#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char groupNetwork[] = "network";
const char groupOther[] = "other";
const char groupMessages[] = "messages";

QString configFilePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/zel5_trayrc");
}

// The file holds the password: it is made private to its owner before
// anything is written, also when it existed with wider rights. The settings
// writer replaces the file through a temporary copy that keeps these rights.
bool makePrivate(const QString& path)
{
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
    const QByteArray name = QFile::encodeName(path);
    const int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return false;
    const bool ok = ::fchmod(fd, 0600) == 0;
    ::close(fd);
    return ok;
}

// A hand-edited value with a comma comes back as a list; it is taken as the
// text it was.
QString textValue(const QSettings& s, const char* key)
{
    const QVariant v = s.value(QLatin1String(key));
    if (v.typeId() == QMetaType::QStringList)
        return v.toStringList().join(QLatin1Char(','));
    return v.toString();
}

// A value that is missing or not a number gives fallback.
int intValue(const QSettings& s, const char* key, int fallback)
{
    bool ok = false;
    const int value = textValue(s, key).trimmed().toInt(&ok);
    return ok ? value : fallback;
}

} // namespace

template <class TString>
Config<TString>::Config()
    : loaded(false),
      port(11758),
      lastMessageCheck(0),
      switchInternetOnStart(false),
      switchInternetOnExit(false),
      startOnLogin(false),
      saveSettings(true),
      refreshRate(120),
      lowBalanceWarningOn(false),
      lowBalanceWarning(0.0),
      notifications(true)
{
}

template <class TString>
bool Config<TString>::_load()
{
    QSettings file(configFilePath(), QSettings::IniFormat);
    const QStringList groups = file.childGroups();
    for (const char* group : {groupNetwork, groupOther, groupMessages}) {
        if (!groups.contains(QLatin1String(group)))
            return false;
    }

    file.beginGroup(QLatin1String(groupNetwork));
    address = textValue(file, "address");
    if (address.isEmpty())
        return false;
    login = textValue(file, "login");
    if (login.isEmpty())
        return false;
    const QString stored = textValue(file, "password");
    if (stored.isEmpty())
        return false;
    std::string scrambled = stored.toUtf8().toStdString();
    password = QString::fromUtf8(decrypt(scrambled));
    // An invalid number fails the load without replacing the value in
    // force, so that a cancelled settings dialog still leaves a usable one.
    const int storedPort = intValue(file, "port", -1);
    if (storedPort < 0)
        return false;
    port = storedPort;
    webServerAddress = textValue(file, "web_server_address");
    if (webServerAddress.isEmpty())
        webServerAddress = address;
    file.endGroup();

    file.beginGroup(QLatin1String(groupOther));
    const int storedRate = intValue(file, "refresh_rate", -1);
    if (storedRate == -1)
        return false;
    refreshRate = qBound(120, storedRate, 1000);
    for (auto [key, member] : {std::pair{"switch_internet_on_start", &switchInternetOnStart},
                               std::pair{"switch_internet_on_exit", &switchInternetOnExit},
                               std::pair{"start_on_login", &startOnLogin}}) {
        const int value = intValue(file, key, -1);
        if (value == -1)
            return false;
        *member = value != 0;
    }
    // Optional: absence or a value that is no number never fails the load.
    bool isNumber = false;
    const double level = textValue(file, "low_balance_warning").trimmed().toDouble(&isNumber);
    lowBalanceWarningOn = isNumber && qIsFinite(level);
    lowBalanceWarning = lowBalanceWarningOn ? level : 0.0;
    notifications = intValue(file, "notifications", 1) != 0;
    file.endGroup();

    file.beginGroup(QLatin1String(groupMessages));
    lastMessageCheck = intValue(file, "last_message_check", 0);
    file.endGroup();
    return true;
}

template <class TString>
bool Config<TString>::_save(bool full)
{
    const QString path = configFilePath();
    if (!makePrivate(path))
        return false;
    QSettings file(path, QSettings::IniFormat);
    if (full) {
        file.beginGroup(QLatin1String(groupNetwork));
        file.setValue(QStringLiteral("address"), address);
        file.setValue(QStringLiteral("login"), login);
        std::string plain = password.toUtf8().toStdString();
        file.setValue(QStringLiteral("password"), QString::fromUtf8(encrypt(plain)));
        file.setValue(QStringLiteral("port"), port);
        file.setValue(QStringLiteral("web_server_address"), webServerAddress);
        file.endGroup();

        // Switches are stored as the integers 0 and 1, not as words.
        file.beginGroup(QLatin1String(groupOther));
        file.setValue(QStringLiteral("refresh_rate"), refreshRate);
        file.setValue(QStringLiteral("switch_internet_on_start"), int(switchInternetOnStart));
        file.setValue(QStringLiteral("switch_internet_on_exit"), int(switchInternetOnExit));
        file.setValue(QStringLiteral("start_on_login"), int(startOnLogin));
        file.setValue(QStringLiteral("low_balance_warning"),
                      lowBalanceWarningOn ? QString::number(lowBalanceWarning, 'g', 15) : QString());
        file.setValue(QStringLiteral("notifications"), int(notifications));
        file.endGroup();
    }
    file.beginGroup(QLatin1String(groupMessages));
    file.setValue(QStringLiteral("last_message_check"), lastMessageCheck);
    file.endGroup();
    file.sync();
    return file.status() == QSettings::NoError && makePrivate(path);
}

template class Config<QString>;

bool loadWindowSize(const QString& window, int& width, int& height)
{
    QSettings file(configFilePath(), QSettings::IniFormat);
    file.beginGroup(window);
    const int w = intValue(file, "width", -1);
    const int h = intValue(file, "height", -1);
    if (w < 50 || h < 50 || w > 20000 || h > 20000)
        return false;
    width = w;
    height = h;
    return true;
}

bool saveWindowSize(const QString& window, int width, int height)
{
    const QString path = configFilePath();
    if (!makePrivate(path))
        return false;
    QSettings file(path, QSettings::IniFormat);
    file.beginGroup(window);
    file.setValue(QStringLiteral("width"), width);
    file.setValue(QStringLiteral("height"), height);
    file.endGroup();
    file.sync();
    return file.status() == QSettings::NoError && makePrivate(path);
}
