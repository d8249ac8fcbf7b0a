// A text browser for HTML that comes from the provider: it fetches nothing
// (no network, no local files), runs nothing, and hands clicked web and mail
// links to the desktop instead of following them itself.
#ifndef ZEL5_SAFETEXTBROWSER_H
#define ZEL5_SAFETEXTBROWSER_H

#include <QTextBrowser>

class QUrl;
class QVariant;
class QWidget;

class SafeTextBrowser : public QTextBrowser {
    Q_OBJECT
public:
    explicit SafeTextBrowser(QWidget* parent = nullptr);

    // Only what the document carries itself (data: URLs) is loaded.
    QVariant loadResource(int type, const QUrl& name) override;

    // Whether a clicked link may go to the desktop's handler.
    static bool isExternalLink(const QUrl& url);

private:
    void openLink(const QUrl& url);
};

#endif
