#include "linkcatcher.h"

#include <QDesktopServices>

LinkCatcher::LinkCatcher(const QStringList& schemes)
    : schemes(schemes)
{
    for (const QString& scheme : schemes)
        QDesktopServices::setUrlHandler(scheme, this, "open");
}

LinkCatcher::~LinkCatcher()
{
    for (const QString& scheme : schemes)
        QDesktopServices::unsetUrlHandler(scheme);
}
