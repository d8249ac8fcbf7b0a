// The settings dialog: its widgets, keyboard order, port field and the
// transfer to and from the configuration.
#include "config.h"
#include "settingsdialog.h"

#include "uitest.h"

#include <QApplication>
#include <QGroupBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QTest>

#include <gtest/gtest.h>

#include <tuple>

namespace {

const QStringList TabOrder = {"txtServerAddress", "txtServerPort", "txtLogin", "txtPassword",
                              "spinRefreshRate", "txtWebserverAddress", "cbTurnOnStart", "cbTurnOnExit",
                              "cbStartOnSysStart", "cbSaveSettings", "buttonOk", "buttonCancel"};

auto fields(const Config<QString>& c)
{
    return std::tuple(c.address, c.webServerAddress, c.port, c.login, c.password, c.refreshRate,
                      c.switchInternetOnStart, c.switchInternetOnExit, c.startOnLogin, c.saveSettings);
}

Config<QString> sample()
{
    Config<QString> cfg;
    std::tie(cfg.address, cfg.webServerAddress, cfg.login, cfg.password, cfg.refreshRate) =
        std::tuple("billing.example.net", "stat.example.net:8443", QString::fromUtf8("абонент"),
                   QString::fromUtf8("pässword"), 300);
    cfg.switchInternetOnStart = cfg.startOnLogin = true;
    cfg.saveSettings = false;
    return cfg;
}

TEST(SettingsDialogTest, NamedWidgetsSitInTheirBoxesAndTabInOrder)
{
    SettingsDialog dialog;
    EXPECT_EQ(dialog.objectName(), "SettingsDialog");
    const QObject* boxes[] = {child<QGroupBox>(&dialog, "gbNetwork"), child<QGroupBox>(&dialog, "gbOther"), &dialog};
    for (int i = 0; i < TabOrder.size(); ++i) {
        const QWidget* w = child<QWidget>(&dialog, TabOrder[i].toLatin1());
        ASSERT_NE(w, nullptr) << TabOrder[i].toStdString();
        EXPECT_EQ(w->parent(), boxes[i < 6 ? 0 : i < 9 ? 1 : 2]) << TabOrder[i].toStdString();
    }

    dialog.show();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&dialog));
    child<QWidget>(&dialog, "txtServerAddress")->setFocus();
    QStringList visited;
    for (int i = 0; i <= TabOrder.size(); ++i) {
        QWidget* focus = QApplication::focusWidget();
        ASSERT_NE(focus, nullptr);
        // The spin box's own editor stands for the spin box.
        const bool inSpin = qobject_cast<QSpinBox*>(focus->parentWidget());
        visited << (inSpin ? focus->parentWidget() : focus)->objectName();
        QTest::keyClick(focus, Qt::Key_Tab);
    }
    EXPECT_EQ(visited, TabOrder + QStringList{TabOrder.first()});
}

TEST(SettingsDialogTest, PortRefusesZeroDigitsAndRefreshRateStaysInRange)
{
    SettingsDialog dialog;
    auto* port = child<QLineEdit>(&dialog, "txtServerPort");
    Config<QString> cfg;
    for (const auto& [typed, kept] : {std::pair{"8080", "88"}, {"10000", "1"}, {"123456", "12345"}, {"", ""}}) {
        port->clear();
        QTest::keyClicks(port, typed);
        EXPECT_EQ(port->text(), kept);
        dialog.exportSettings(&cfg);
        EXPECT_EQ(cfg.port, QString(kept).toInt()) << "an empty port exports as 0";
    }

    // A port with zeros, imported and left alone, is kept; edited, it is what is shown.
    cfg.port = 10000;
    dialog.importSettings(&cfg);
    dialog.exportSettings(&cfg);
    EXPECT_EQ(cfg.port, 10000);
    port->setText("2");
    dialog.exportSettings(&cfg);
    EXPECT_EQ(cfg.port, 2);

    auto* spin = child<QSpinBox>(&dialog, "spinRefreshRate");
    cfg.refreshRate = 30;
    dialog.importSettings(&cfg);
    spin->stepDown();
    EXPECT_EQ(spin->value(), 120);
    cfg.refreshRate = 5000;
    dialog.importSettings(&cfg);
    spin->stepUp();
    EXPECT_EQ(spin->text(), "1000 sec.");
}

TEST(SettingsDialogTest, ExportGivesBackTheImportAndOnlyOkAccepts)
{
    const Config<QString> original = sample();
    Config<QString> cfg = original, copy;
    SettingsDialog cancelled;
    cancelled.importSettings(&cfg);
    EXPECT_EQ(child<QLineEdit>(&cancelled, "txtServerPort")->text(), "11758");
    EXPECT_EQ(child<QLineEdit>(&cancelled, "txtPassword")->echoMode(), QLineEdit::Password);
    cancelled.exportSettings(&copy);
    EXPECT_EQ(fields(copy), fields(original));

    EXPECT_EQ(execDialog(cancelled, [&] {
                  child<QLineEdit>(&cancelled, "txtLogin")->setText("someone else");
                  QTest::mouseClick(child<QPushButton>(&cancelled, "buttonCancel"), Qt::LeftButton);
              }),
              QDialog::Rejected);
    EXPECT_EQ(fields(cfg), fields(original));
    EXPECT_EQ(execDialog(cancelled, [&] { QTest::keyClick(&cancelled, Qt::Key_Escape); }), QDialog::Rejected);
    EXPECT_EQ(execDialog(cancelled, [&] { QTest::keyClick(child<QWidget>(&cancelled, "txtLogin"), Qt::Key_Return); }),
              QDialog::Accepted);
}

} // namespace
