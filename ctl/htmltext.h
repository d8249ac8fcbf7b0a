// A provider's message body (HTML) as plain text for the terminal, without
// QtGui's document classes: tags dropped, block ends and <br> as line
// breaks, list items as "- " lines, runs of white space as one space, and
// the entities &amp; &lt; &gt; &quot; &#39; &apos; &nbsp; and numeric ones
// (&#NNN; &#xHH;) decoded. Anything else that looks like an entity stays.
#ifndef ZEL5_CTL_HTMLTEXT_H
#define ZEL5_CTL_HTMLTEXT_H

#include <QString>

QString htmlToText(const QString& html);

#endif
