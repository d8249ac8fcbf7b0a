#include "autostartentry.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace {

// Characters that make an Exec argument need quotes.
const QString reservedCharacters = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
// Characters that need a backslash inside a quoted argument.
const QString quotedEscapes = QStringLiteral("\"`$\\");

QByteArray entryText(const QString& exec)
{
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Orvane ZEL5 Tray\n"
           "Comment=Shows the state of your internet account in the system tray\n"
           "Exec=" + exec.toUtf8() + "\n"
           "Icon=zel5_tray\n"
           "Terminal=false\n"
           "Categories=Network;Qt;\n"
           "X-GNOME-Autostart-enabled=true\n";
}

QByteArray currentText(const QString& path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

bool removeEntry(const QString& path, QString* why)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return true;
    QFile entry(path);
    if (entry.remove())
        return true;
    if (why)
        *why = QStringLiteral("cannot remove the autostart entry %1: %2").arg(path, entry.errorString());
    return false;
}

} // namespace

QString AutostartEntry::path()
{
    const QString base = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation);
    return base.isEmpty() ? QString() : base + QStringLiteral("/autostart/zel5_tray.desktop");
}

QString AutostartEntry::execValue(const QString& program)
{
    if (program.isEmpty())
        return QString();
    for (const QChar c : program) {
        if (c.category() == QChar::Other_Control)
            return QString();
    }

    // The argument, quoted when it must be. A literal percent sign is always
    // doubled, as it would start a field code.
    QString argument;
    bool quote = false;
    for (const QChar c : program)
        quote = quote || reservedCharacters.contains(c);
    if (quote) {
        argument += QLatin1Char('"');
        for (const QChar c : program) {
            if (quotedEscapes.contains(c))
                argument += QLatin1Char('\\');
            argument += c;
        }
        argument += QLatin1Char('"');
    } else {
        argument = program;
    }
    argument.replace(QLatin1Char('%'), QStringLiteral("%%"));

    // A string value's own escape comes on top: each backslash is doubled, so
    // a backslash of the path is written as four.
    argument.replace(QLatin1Char('\\'), QStringLiteral("\\\\"));
    return argument;
}

bool AutostartEntry::apply(bool enabled, const QString& program, QString* why)
{
    const auto fail = [why](const QString& reason) {
        if (why)
            *why = reason;
        return false;
    };
    const QString file = path();
    if (file.isEmpty())
        return fail(QStringLiteral("no configuration folder for the autostart entry"));
    if (!enabled)
        return removeEntry(file, why);

    if (!QDir::isAbsolutePath(program))
        return fail(QStringLiteral("the program's path %1 is not absolute; no autostart entry written").arg(program));
    const QString exec = execValue(program);
    if (exec.isEmpty())
        return fail(QStringLiteral("the program's path %1 holds a control character; no autostart entry written")
                        .arg(program));
    const QByteArray text = entryText(exec);
    const QFileInfo info(file);
    if (!info.isSymLink() && currentText(file) == text)
        return true;

    if (!QDir().mkpath(info.absolutePath()))
        return fail(QStringLiteral("cannot create the autostart folder %1").arg(info.absolutePath()));
    // A link (say, to the program's system-wide entry) is replaced by an
    // entry of our own rather than written through.
    if (info.isSymLink() && !QFile::remove(file))
        return fail(QStringLiteral("cannot replace the autostart link %1").arg(file));
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size() || !out.commit())
        return fail(QStringLiteral("cannot write the autostart entry %1: %2").arg(file, out.errorString()));
    return true;
}
