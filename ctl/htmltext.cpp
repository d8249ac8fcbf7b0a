#include "htmltext.h"

#include <QStringList>

namespace {

// Elements whose start or end begins a new line.
bool isBlock(const QString& name)
{
    static const QStringList blocks{QStringLiteral("p"), QStringLiteral("div"), QStringLiteral("br"),
                                    QStringLiteral("li"), QStringLiteral("tr"), QStringLiteral("ul"),
                                    QStringLiteral("ol"), QStringLiteral("table"), QStringLiteral("h1"),
                                    QStringLiteral("h2"), QStringLiteral("h3"), QStringLiteral("h4"),
                                    QStringLiteral("h5"), QStringLiteral("h6"), QStringLiteral("blockquote"),
                                    QStringLiteral("pre"), QStringLiteral("hr")};
    return blocks.contains(name);
}

// The element name of a tag's text between '<' and '>': "P", "/td", "br/".
QString tagName(const QString& tag, bool& closing)
{
    closing = tag.startsWith(QLatin1Char('/'));
    qsizetype i = closing ? 1 : 0;
    QString name;
    while (i < tag.size() && (tag.at(i).isLetterOrNumber()))
        name += tag.at(i++).toLower();
    return name;
}

// The entity at html[at] == '&'; its length in `length`, or a null QString.
QString entity(const QString& html, qsizetype at, qsizetype& length)
{
    const qsizetype end = html.indexOf(QLatin1Char(';'), at);
    if (end < 0 || end - at > 10)
        return QString();
    const QString name = html.mid(at + 1, end - at - 1);
    length = end - at + 1;
    static const QList<QPair<QString, QString>> named{
        {QStringLiteral("amp"), QStringLiteral("&")},   {QStringLiteral("lt"), QStringLiteral("<")},
        {QStringLiteral("gt"), QStringLiteral(">")},    {QStringLiteral("quot"), QStringLiteral("\"")},
        {QStringLiteral("apos"), QStringLiteral("'")},  {QStringLiteral("nbsp"), QString(QChar(0xA0))}};
    for (const auto& [key, value] : named) {
        if (name == key)
            return value;
    }
    if (!name.startsWith(QLatin1Char('#')))
        return QString();
    bool ok = false;
    const bool hex = name.size() > 1 && (name.at(1) == QLatin1Char('x') || name.at(1) == QLatin1Char('X'));
    const uint code = hex ? name.mid(2).toUInt(&ok, 16) : name.mid(1).toUInt(&ok, 10);
    if (!ok || code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return QString();
    const char32_t c = code;
    return QString::fromUcs4(&c, 1);
}

// Text runs collapse their white space as a browser shows them; line breaks
// come only from the markup. Empty lines at the start and the end go.
class TextBuilder {
public:
    void text(const QString& s)
    {
        for (const QChar c : s) {
            // A no-break space is kept, as a plain space.
            if (c.isSpace() && c != QChar(0xA0)) {
                pendingSpace = !line.isEmpty();
                continue;
            }
            if (pendingSpace)
                line += QLatin1Char(' ');
            pendingSpace = false;
            line += c == QChar(0xA0) ? QChar(QLatin1Char(' ')) : c;
        }
    }
    // Literal text that does not collapse, put only between words of a line.
    void separate(const QString& s)
    {
        if (!line.isEmpty())
            line += s;
        pendingSpace = false;
    }
    // <br>: every one ends a line, an empty one too.
    void lineBreak()
    {
        lines << line;
        line.clear();
        pendingSpace = false;
    }
    // Other blocks: a new line unless at the start of one.
    void newLine()
    {
        if (!line.isEmpty())
            lineBreak();
    }
    // Paragraphs and tables: an empty line around them, one only.
    void emptyLine()
    {
        newLine();
        if (!lines.isEmpty() && !lines.last().isEmpty())
            lines << QString();
    }
    QString result()
    {
        newLine();
        while (!lines.isEmpty() && lines.first().isEmpty())
            lines.removeFirst();
        while (!lines.isEmpty() && lines.last().isEmpty())
            lines.removeLast();
        return lines.join(QLatin1Char('\n'));
    }

private:
    QStringList lines;
    QString line;
    bool pendingSpace = false;
};

// What an element's tag does to the text around it.
void applyTag(TextBuilder& out, const QString& name, bool closing)
{
    if (name == QLatin1String("br"))
        out.lineBreak();
    else if (name == QLatin1String("p") || name == QLatin1String("table") || name == QLatin1String("pre")
             || (name.size() == 2 && name.at(0) == QLatin1Char('h') && name.at(1).isDigit()))
        out.emptyLine();
    else if (isBlock(name))
        out.newLine();
    if (closing)
        return;
    if (name == QLatin1String("li"))
        out.text(QStringLiteral("- "));
    else if (name == QLatin1String("td") || name == QLatin1String("th"))
        out.separate(QStringLiteral("  "));
}

} // namespace

QString htmlToText(const QString& html)
{
    TextBuilder out;
    QString run;
    qsizetype i = 0;
    while (i < html.size()) {
        const QChar c = html.at(i);
        const bool tagStart = c == QLatin1Char('<') && i + 1 < html.size()
            && (html.at(i + 1).isLetter() || html.at(i + 1) == QLatin1Char('/') || html.at(i + 1) == QLatin1Char('!'));
        if (tagStart) {
            out.text(run);
            run.clear();
            const bool comment = html.mid(i, 4) == QLatin1String("<!--");
            const qsizetype end = comment ? html.indexOf(QLatin1String("-->"), i + 4) : html.indexOf(QLatin1Char('>'), i);
            if (end < 0)
                break; // an unfinished tag at the end shows nothing
            bool closing = false;
            const QString name = comment ? QString() : tagName(html.mid(i + 1, end - i - 1), closing);
            applyTag(out, name, closing);
            i = end + (comment ? 3 : 1);
            // Scripts and style sheets are no text: on to their end tag.
            if (!closing && (name == QLatin1String("script") || name == QLatin1String("style"))) {
                const qsizetype close = html.indexOf(QLatin1String("</") + name, i, Qt::CaseInsensitive);
                if (close < 0)
                    break;
                i = close;
            }
            continue;
        }
        qsizetype length = 0;
        const QString decoded = c == QLatin1Char('&') ? entity(html, i, length) : QString();
        if (!decoded.isNull()) {
            run += decoded;
            i += length;
        } else {
            run += c;
            ++i;
        }
    }
    out.text(run);
    return out.result();
}
