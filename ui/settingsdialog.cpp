#include "settingsdialog.h"

#include "artwork.h"
#include "config.h"

#include <QCheckBox>
#include <QEvent>
#include <QGridLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeySequence>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRegularExpression>
#include <QRegularExpressionValidator>
#include <QSpacerItem>
#include <QSpinBox>
#include <QVBoxLayout>

#include <iterator>
#include <utility>

namespace {

constexpr int Margin = 11;
constexpr int Spacing = 6;

QLabel* makeLabel(QWidget* parent, const char* name)
{
    auto* label = new QLabel(parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    return label;
}

template <class W>
W* makeWidget(QWidget* parent, const char* name)
{
    auto* widget = new W(parent);
    widget->setObjectName(QString::fromLatin1(name));
    return widget;
}

void setBoxLayout(QLayout* layout)
{
    layout->setContentsMargins(Margin, Margin, Margin, Margin);
    layout->setSpacing(Spacing);
    layout->setAlignment(Qt::AlignTop);
}

} // namespace

SettingsDialog::SettingsDialog(QWidget* parent, const char* name, bool modal, Qt::WindowFlags fl)
    : QDialog(parent, fl)
{
    setObjectName(QString::fromLatin1(name ? name : "SettingsDialog"));
    if (modal)
        setWindowModality(Qt::ApplicationModal);
    setSizeGripEnabled(false);
    setWindowIcon(Artwork::icon(QStringLiteral("settings")));

    buildNetworkBox();
    buildOtherBox();
    cbSaveSettings = makeWidget<QCheckBox>(this, "cbSaveSettings");
    buttonOk = makeWidget<QPushButton>(this, "buttonOk");
    buttonOk->setAutoDefault(true);
    buttonOk->setDefault(true);
    buttonCancel = makeWidget<QPushButton>(this, "buttonCancel");
    buttonCancel->setAutoDefault(true);
    buildLayout();

    languageChange();
    resize(QSize(481, 251).expandedTo(minimumSizeHint()));

    connect(buttonOk, &QPushButton::clicked, this, &QDialog::accept);
    connect(buttonCancel, &QPushButton::clicked, this, &QDialog::reject);
    for (QLineEdit* field : {txtServerAddress, txtServerPort, txtLogin})
        connect(field, &QLineEdit::textChanged, this, &SettingsDialog::validate);
    applyTabOrder();
    validate();
}

void SettingsDialog::buildNetworkBox()
{
    gbNetwork = makeWidget<QGroupBox>(this, "gbNetwork");
    textLabel5 = makeLabel(gbNetwork, "textLabel5");
    txtServerAddress = makeWidget<QLineEdit>(gbNetwork, "txtServerAddress");
    txtServerAddress->setMinimumWidth(150);
    textLabel6 = makeLabel(gbNetwork, "textLabel6");
    txtServerPort = makeWidget<QLineEdit>(gbNetwork, "txtServerPort");
    txtServerPort->setMinimumWidth(100);
    txtServerPort->setMaxLength(5);
    // Every digit; the range is checked by validate().
    txtServerPort->setValidator(
        new QRegularExpressionValidator(QRegularExpression(QStringLiteral("^\\d{0,5}$")), txtServerPort));
    textLabel7 = makeLabel(gbNetwork, "textLabel7");
    txtLogin = makeWidget<QLineEdit>(gbNetwork, "txtLogin");
    textLabel8 = makeLabel(gbNetwork, "textLabel8");
    txtPassword = makeWidget<QLineEdit>(gbNetwork, "txtPassword");
    txtPassword->setEchoMode(QLineEdit::Password);
    textLabel9 = makeLabel(gbNetwork, "textLabel9");
    spinRefreshRate = makeWidget<QSpinBox>(gbNetwork, "spinRefreshRate");
    spinRefreshRate->setRange(120, 1000);
    spinRefreshRate->setSingleStep(1);
    spinRefreshRate->setMinimumWidth(100);
    textLabel10 = makeLabel(gbNetwork, "textLabel10");
    txtWebserverAddress = makeWidget<QLineEdit>(gbNetwork, "txtWebserverAddress");

    auto* grid = new QGridLayout(gbNetwork);
    setBoxLayout(grid);
    const std::pair<QLabel*, QWidget*> rows[] = {
        {textLabel5, txtServerAddress}, {textLabel6, txtServerPort},
        {textLabel7, txtLogin},         {textLabel8, txtPassword},
        {textLabel9, spinRefreshRate},  {textLabel10, txtWebserverAddress},
    };
    int row = 0;
    for (const auto& [label, field] : rows) {
        label->setBuddy(field);
        grid->addWidget(label, row, 0);
        grid->addWidget(field, row, 1);
        ++row;
    }
    lblAddressProblem = addProblemLabel(grid, 0, "lblAddressProblem");
    lblPortProblem = addProblemLabel(grid, 1, "lblPortProblem");
    lblLoginProblem = addProblemLabel(grid, 2, "lblLoginProblem");
}

QLabel* SettingsDialog::addProblemLabel(QGridLayout* grid, int row, const char* name)
{
    auto* label = makeWidget<QLabel>(gbNetwork, name);
    label->setTextFormat(Qt::PlainText);
    QPalette warning = label->palette();
    warning.setColor(QPalette::WindowText, QColor(0xc0, 0x1c, 0x28));
    label->setPalette(warning);
    grid->addWidget(label, row, 2);
    return label;
}

void SettingsDialog::validate()
{
    bool isNumber = false;
    const int port = txtServerPort->text().toInt(&isNumber, 10);
    QString portProblem;
    if (txtServerPort->text().isEmpty())
        portProblem = tr("Enter the port");
    else if (!isNumber || port < 1 || port > 65535)
        portProblem = tr("From 1 to 65535");
    const QString addressProblem = txtServerAddress->text().trimmed().isEmpty() ? tr("Enter the address") : QString();
    const QString loginProblem = txtLogin->text().isEmpty() ? tr("Enter the login") : QString();
    lblPortProblem->setText(portProblem);
    lblAddressProblem->setText(addressProblem);
    lblLoginProblem->setText(loginProblem);
    buttonOk->setEnabled(portProblem.isEmpty() && addressProblem.isEmpty() && loginProblem.isEmpty());
}

void SettingsDialog::buildOtherBox()
{
    gbOther = makeWidget<QGroupBox>(this, "gbOther");
    cbTurnOnStart = makeWidget<QCheckBox>(gbOther, "cbTurnOnStart");
    cbTurnOnExit = makeWidget<QCheckBox>(gbOther, "cbTurnOnExit");
    cbStartOnSysStart = makeWidget<QCheckBox>(gbOther, "cbStartOnSysStart");
    cbNotifications = makeWidget<QCheckBox>(gbOther, "cbNotifications");
    lblLowBalance = makeWidget<QLabel>(gbOther, "lblLowBalance");
    txtLowBalance = makeWidget<QLineEdit>(gbOther, "txtLowBalance");
    lblLowBalance->setBuddy(txtLowBalance);
    // Empty means no warning; anything else must be a number.
    txtLowBalance->setValidator(new QRegularExpressionValidator(
        QRegularExpression(QStringLiteral("^\\s*(-?\\d{0,12}([.,]\\d{0,2})?)?\\s*$")), txtLowBalance));
    auto* box = new QVBoxLayout(gbOther);
    setBoxLayout(box);
    box->addWidget(cbTurnOnStart);
    box->addWidget(cbTurnOnExit);
    box->addWidget(cbStartOnSysStart);
    box->addWidget(cbNotifications);
    box->addWidget(lblLowBalance);
    box->addWidget(txtLowBalance);
}

void SettingsDialog::buildLayout()
{
    auto* top = new QVBoxLayout(this);
    top->setContentsMargins(Margin, Margin, Margin, Margin);
    top->setSpacing(Spacing);

    auto* columns = new QHBoxLayout;
    columns->setSpacing(Spacing);
    columns->addWidget(gbNetwork);
    auto* right = new QVBoxLayout;
    right->setSpacing(Spacing);
    right->addWidget(gbOther);
    right->addWidget(cbSaveSettings);
    right->addItem(new QSpacerItem(20, 20, QSizePolicy::Minimum, QSizePolicy::Expanding));
    columns->addLayout(right);
    top->addLayout(columns);

    top->addItem(new QSpacerItem(20, 20, QSizePolicy::Minimum, QSizePolicy::Expanding));

    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(Spacing);
    buttons->addItem(new QSpacerItem(20, 20, QSizePolicy::Expanding, QSizePolicy::Minimum));
    buttons->addWidget(buttonOk);
    buttons->addWidget(buttonCancel);
    top->addLayout(buttons);
}

void SettingsDialog::applyTabOrder()
{
    QWidget* const order[] = {
        txtServerAddress, txtServerPort,  txtLogin,          txtPassword,
        spinRefreshRate,  txtWebserverAddress, cbTurnOnStart, cbTurnOnExit,
        cbStartOnSysStart, cbNotifications, txtLowBalance, cbSaveSettings, buttonOk, buttonCancel,
    };
    for (std::size_t i = 1; i < std::size(order); ++i)
        QWidget::setTabOrder(order[i - 1], order[i]);
}

void SettingsDialog::languageChange()
{
    setWindowTitle(tr("Settings"));
    gbNetwork->setTitle(tr("Network settings"));
    textLabel5->setText(tr("Server address:"));
    textLabel6->setText(tr("Server Port:"));
    textLabel7->setText(tr("Login:"));
    textLabel8->setText(tr("Password:"));
    textLabel9->setText(tr("Refresh Rate:"));
    spinRefreshRate->setSuffix(tr(" sec."));
    textLabel10->setText(tr("Web Server Address:"));
    gbOther->setTitle(tr("Other settings"));
    cbTurnOnStart->setText(tr("Turn o&n internet on start"));
    cbTurnOnStart->setShortcut(QKeySequence(tr("Alt+N")));
    cbTurnOnExit->setText(tr("Turn o&ff internet on exit"));
    cbTurnOnExit->setShortcut(QKeySequence(tr("Alt+F")));
    cbStartOnSysStart->setText(tr("&Start on logon"));
    cbStartOnSysStart->setShortcut(QKeySequence(tr("Alt+S")));
    cbNotifications->setText(tr("Show desktop notifications"));
    lblLowBalance->setText(tr("Warn when the balance is below:"));
    txtLowBalance->setPlaceholderText(tr("no warning"));
    cbSaveSettings->setText(tr("Save settings"));
    buttonOk->setText(tr("&OK"));
    buttonCancel->setText(tr("&Cancel"));
    validate();
}

void SettingsDialog::changeEvent(QEvent* e)
{
    if (e->type() == QEvent::LanguageChange)
        languageChange();
    QDialog::changeEvent(e);
}

void SettingsDialog::importSettings(Config<QString>* cfg)
{
    if (!cfg)
        return;
    spinRefreshRate->setValue(cfg->refreshRate);
    txtLogin->setText(cfg->login);
    txtPassword->setText(cfg->password);
    txtWebserverAddress->setText(cfg->webServerAddress);
    txtServerAddress->setText(cfg->address);
    txtServerPort->setText(QString::number(cfg->port, 10));
    cbTurnOnStart->setChecked(cfg->switchInternetOnStart);
    cbTurnOnExit->setChecked(cfg->switchInternetOnExit);
    cbStartOnSysStart->setChecked(cfg->startOnLogin);
    cbNotifications->setChecked(cfg->notifications);
    txtLowBalance->setText(cfg->lowBalanceWarningOn ? QString::number(cfg->lowBalanceWarning, 'f', 2) : QString());
    cbSaveSettings->setChecked(cfg->saveSettings);
}

void SettingsDialog::exportSettings(Config<QString>* cfg)
{
    if (!cfg)
        return;
    cfg->refreshRate = spinRefreshRate->value();
    cfg->login = txtLogin->text();
    cfg->password = txtPassword->text();
    cfg->webServerAddress = txtWebserverAddress->text();
    cfg->address = txtServerAddress->text();
    // Empty or unparsable digits give 0; OK is disabled then.
    cfg->port = txtServerPort->text().trimmed().toInt(nullptr, 10);
    cfg->switchInternetOnStart = cbTurnOnStart->isChecked();
    cfg->switchInternetOnExit = cbTurnOnExit->isChecked();
    cfg->startOnLogin = cbStartOnSysStart->isChecked();
    cfg->notifications = cbNotifications->isChecked();
    // A decimal comma is taken as the point it means.
    QString level = txtLowBalance->text().trimmed();
    level.replace(QLatin1Char(','), QLatin1Char('.'));
    bool isNumber = false;
    const double value = level.toDouble(&isNumber);
    cfg->lowBalanceWarningOn = isNumber;
    cfg->lowBalanceWarning = isNumber ? value : 0.0;
    cfg->saveSettings = cbSaveSettings->isChecked();
}
