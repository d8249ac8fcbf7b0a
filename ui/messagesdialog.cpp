#include "messagesdialog.h"

#include "artwork.h"
#include "htmlwidget.h"
#include "messagecollector.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QPushButton>
#include <QScreen>
#include <QShowEvent>
#include <QSpacerItem>
#include <QVBoxLayout>

#include <string>

namespace {

// The header labels show the provider's texts literally, never as markup.
QLabel* makeHeaderLabel(QWidget* parent, const char* name, int stretch)
{
    auto* label = new QLabel(parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setFrameShape(QFrame::Box);
    label->setTextFormat(Qt::PlainText);
    // Ignored: a long subject is cut, never widens the dialog while paging.
    QSizePolicy policy(QSizePolicy::Ignored, QSizePolicy::Fixed);
    policy.setHorizontalStretch(stretch);
    label->setSizePolicy(policy);
    return label;
}

QPushButton* makeButton(QWidget* parent, const char* name)
{
    auto* button = new QPushButton(parent);
    button->setObjectName(QString::fromLatin1(name));
    // Only "Close" answers the return key.
    button->setAutoDefault(false);
    return button;
}

} // namespace

MessagesDialog::MessagesDialog(QWidget* parent, const char* name, bool modal, Qt::WindowFlags fl)
    : QDialog(parent, fl)
{
    setObjectName(QString::fromLatin1(name ? name : "MessagesDialog"));
    if (modal)
        setWindowModality(Qt::ApplicationModal);
    setWindowIcon(Artwork::icon(QStringLiteral("zel5tray_message")));

    txtSubj = makeHeaderLabel(this, "txtSubj", 6);
    txtDate = makeHeaderLabel(this, "txtDate", 4);
    txtDate->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    frame = new HTMLWidget(this, "frame");
    frame->setSizePolicy(QSizePolicy::MinimumExpanding, QSizePolicy::MinimumExpanding);
    frame->setMinimumHeight(100);

    const QSize arrowSize(16, 16);
    btnPrev = makeButton(this, "btnPrev");
    btnPrev->setIcon(Artwork::icon(QStringLiteral("arrow_left")));
    btnPrev->setIconSize(arrowSize);
    btnNext = makeButton(this, "btnNext");
    btnNext->setIcon(Artwork::icon(QStringLiteral("arrow_right")));
    btnNext->setIconSize(arrowSize);
    btnDelete = makeButton(this, "btnDelete");
    buttonOk = makeButton(this, "buttonOk");
    buttonOk->setAutoDefault(true);
    buttonOk->setDefault(true);
    buildLayout();

    languageChange();
    resize(defaultSize());

    connect(buttonOk, &QPushButton::clicked, this, &QDialog::accept);
    connect(btnPrev, &QPushButton::clicked, this, &MessagesDialog::previousMessage);
    connect(btnNext, &QPushButton::clicked, this, &MessagesDialog::nextMessage);
    connect(btnDelete, &QPushButton::clicked, this, &MessagesDialog::deleteMessage);
}

void MessagesDialog::buildLayout()
{
    auto* top = new QVBoxLayout(this);
    top->setContentsMargins(11, 11, 11, 11);
    top->setSpacing(6);

    auto* header = new QHBoxLayout;
    header->setSpacing(6);
    header->addWidget(txtSubj, 6);
    header->addWidget(txtDate, 4);
    top->addLayout(header);

    top->addWidget(frame);

    auto* buttons = new QHBoxLayout;
    buttons->setContentsMargins(0, 0, 0, 0);
    buttons->setSpacing(0);
    buttons->addWidget(btnPrev);
    buttons->addWidget(btnNext);
    buttons->addItem(new QSpacerItem(20, 20, QSizePolicy::Fixed, QSizePolicy::Minimum));
    buttons->addWidget(btnDelete);
    buttons->addItem(new QSpacerItem(100, 20, QSizePolicy::Expanding, QSizePolicy::Minimum));
    buttons->addWidget(buttonOk);
    top->addLayout(buttons);
}

void MessagesDialog::setMessageCollector(MessageCollector* c)
{
    collector = c;
}

int MessagesDialog::exec()
{
    if (storeEmpty()) {
        done(Accepted);
        return result();
    }
    return QDialog::exec();
}

bool MessagesDialog::storeEmpty() const
{
    return !collector || collector->empty();
}

void MessagesDialog::previousMessage()
{
    if (collector)
        collector->prevMessage();
    updateMessage();
}

void MessagesDialog::nextMessage()
{
    if (collector)
        collector->nextMessage();
    updateMessage();
}

void MessagesDialog::deleteMessage()
{
    if (!storeEmpty()) {
        collector->deleteMessage();
        // At once: a crash before the next retrieval must not bring it back.
        collector->synchronize(true);
    }
    updateMessage();
}

void MessagesDialog::updateMessage()
{
    if (storeEmpty()) {
        // Queued: when called while the dialog is being shown, its event
        // loop is not running yet and an immediate accept would be lost.
        QMetaObject::invokeMethod(this, &QDialog::accept, Qt::QueuedConnection);
        return;
    }
    std::string subject;
    std::string text;
    std::string date;
    collector->currentMessage(subject, text, date);
    txtSubj->setText(QString::fromStdString(subject));
    txtSubj->setToolTip(txtSubj->text());
    // The date comes formatted from the billing client.
    txtDate->setText(QString::fromStdString(date));
    frame->showHtml(QString::fromStdString(text));
}

QSize MessagesDialog::defaultSize() const
{
    // Big enough for a typical message with a table, never more than 80%
    // of the screen.
    QSize size(560, 420);
    if (const QScreen* s = screen())
        size = size.boundedTo(s->availableGeometry().size() * 0.8);
    return size.expandedTo(minimumSizeHint());
}

void MessagesDialog::languageChange()
{
    setWindowTitle(tr("Messages"));
    btnPrev->setText(QString());
    btnPrev->setShortcut(QKeySequence(tr("Left")));
    btnNext->setText(QString());
    btnNext->setShortcut(QKeySequence(tr("Right")));
    btnDelete->setText(tr("&Delete"));
    btnDelete->setShortcut(QKeySequence(tr("Alt+D")));
    buttonOk->setText(tr("&Close"));
    buttonOk->setShortcut(QKeySequence(tr("Alt+C")));
}

void MessagesDialog::showEvent(QShowEvent* e)
{
    QDialog::showEvent(e);
    shown = true;
    updateMessage();
}

void MessagesDialog::changeEvent(QEvent* e)
{
    if (e->type() == QEvent::LanguageChange)
        languageChange();
    QDialog::changeEvent(e);
}
