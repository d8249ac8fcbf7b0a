#include "aboutdialog.h"

#include "artwork.h"

#include <QEvent>
#include <QFont>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSpacerItem>
#include <QVBoxLayout>

namespace {

QLabel* makeLabel(QWidget* parent, const char* name)
{
    auto* label = new QLabel(parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setTextFormat(Qt::PlainText);
    return label;
}

QSpacerItem* horizontalSpacer()
{
    return new QSpacerItem(20, 20, QSizePolicy::Expanding, QSizePolicy::Minimum);
}

} // namespace

AboutDialog::AboutDialog(QWidget* parent, const char* name, bool modal, Qt::WindowFlags fl)
    : QDialog(parent, fl)
{
    setObjectName(QString::fromLatin1(name ? name : "AboutDialog"));
    if (modal)
        setWindowModality(Qt::ApplicationModal);
    setSizeGripEnabled(false);
    const QIcon picture = Artwork::icon(QStringLiteral("about"));
    setWindowIcon(picture);

    pixmapLabel1 = makeLabel(this, "pixmapLabel1");
    pixmapLabel1->setScaledContents(false);
    pixmapLabel1->setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Minimum);
    pixmapLabel1->setPixmap(Artwork::pixmap(picture, QSize(32, 32), devicePixelRatioF()));
    textLabel1 = makeLabel(this, "textLabel1");
    QFont titleFont = textLabel1->font();
    titleFont.setBold(true);
    textLabel1->setFont(titleFont);
    textLabel2 = makeLabel(this, "textLabel2");
    textLabel2->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    textLabel3 = makeLabel(this, "textLabel3");
    // Looks like a link but opens nothing.
    txtLink = makeLabel(this, "txtLink");
    txtLink->setCursor(Qt::PointingHandCursor);
    txtLink->setTextInteractionFlags(Qt::NoTextInteraction);
    btnOK = new QPushButton(this);
    btnOK->setObjectName(QStringLiteral("btnOK"));
    btnOK->setDefault(true);
    buildLayout();

    languageChange();
    resize(QSize(198, 125).expandedTo(minimumSizeHint()));
    connect(btnOK, &QPushButton::clicked, this, &QDialog::accept);
}

void AboutDialog::buildLayout()
{
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(11, 11, 11, 11);
    outer->setSpacing(6);
    auto* inner = new QVBoxLayout;
    inner->setSpacing(6);
    outer->addLayout(inner);

    auto* titleRow = new QHBoxLayout;
    titleRow->setSpacing(6);
    titleRow->addWidget(pixmapLabel1);
    auto* titles = new QVBoxLayout;
    titles->setSpacing(6);
    titles->addWidget(textLabel1);
    titles->addWidget(textLabel2);
    titleRow->addLayout(titles);
    inner->addLayout(titleRow);

    inner->addWidget(textLabel3);
    inner->addItem(new QSpacerItem(20, 20, QSizePolicy::Minimum, QSizePolicy::Expanding));

    auto* linkRow = new QHBoxLayout;
    linkRow->addItem(horizontalSpacer());
    linkRow->addWidget(txtLink);
    inner->addLayout(linkRow);

    auto* buttonRow = new QHBoxLayout;
    buttonRow->addItem(horizontalSpacer());
    buttonRow->addWidget(btnOK);
    buttonRow->addItem(horizontalSpacer());
    inner->addLayout(buttonRow);
}

void AboutDialog::languageChange()
{
    setWindowTitle(tr("About..."));
    textLabel1->setText(tr("Orvane ZEL5 Tray"));
    textLabel2->setText(tr("Version 5.1.11"));
    textLabel3->setText(tr("(c) 2026 Orvane Networks"));
    txtLink->setText(tr("www.orvane.example"));
    btnOK->setText(tr("OK"));
}

void AboutDialog::changeEvent(QEvent* e)
{
    if (e->type() == QEvent::LanguageChange)
        languageChange();
    QDialog::changeEvent(e);
}
