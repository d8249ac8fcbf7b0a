// Stands in for the desktop's handlers of the given URL schemes and records
// what would have been opened.
#ifndef ZEL5_TESTS_LINKCATCHER_H
#define ZEL5_TESTS_LINKCATCHER_H

#include <QList>
#include <QObject>
#include <QStringList>
#include <QUrl>

class LinkCatcher : public QObject {
    Q_OBJECT
public:
    explicit LinkCatcher(const QStringList& schemes);
    ~LinkCatcher() override;
    QList<QUrl> opened;

public slots:
    void open(const QUrl& url) { opened << url; }

private:
    QStringList schemes;
};

#endif
