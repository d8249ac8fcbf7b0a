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

bool removeEntry(const QString& path)
{
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return true;
    if (QFile::remove(path))
        return true;
    qWarning("zel5_tray: cannot remove the autostart entry %s", qUtf8Printable(path));
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

bool AutostartEntry::apply(bool enabled, const QString& program)
{
    const QString file = path();
    if (file.isEmpty()) {
        qWarning("zel5_tray: no configuration folder for the autostart entry");
        return false;
    }
    if (!enabled)
        return removeEntry(file);

    if (!QDir::isAbsolutePath(program)) {
        qWarning("zel5_tray: the program's path %s is not absolute; no autostart entry written",
                 qUtf8Printable(program));
        return false;
    }
    const QString exec = execValue(program);
    if (exec.isEmpty()) {
        qWarning("zel5_tray: the program's path %s holds a control character; no autostart entry written",
                 qUtf8Printable(program));
        return false;
    }
    const QByteArray text = entryText(exec);
    const QFileInfo info(file);
    if (!info.isSymLink() && currentText(file) == text)
        return true;

    if (!QDir().mkpath(info.absolutePath())) {
        qWarning("zel5_tray: cannot create the autostart folder %s", qUtf8Printable(info.absolutePath()));
        return false;
    }
    // A link (say, to the program's system-wide entry) is replaced by an
    // entry of our own rather than written through.
    if (info.isSymLink() && !QFile::remove(file)) {
        qWarning("zel5_tray: cannot replace the autostart link %s", qUtf8Printable(file));
        return false;
    }
    QSaveFile out(file);
    if (!out.open(QIODevice::WriteOnly) || out.write(text) != text.size() || !out.commit()) {
        qWarning("zel5_tray: cannot write the autostart entry %s: %s", qUtf8Printable(file),
                 qUtf8Printable(out.errorString()));
        return false;
    }
    return true;
}
