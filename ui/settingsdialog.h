// The dialog in which the subscriber edits the connection and behaviour
// settings.
#ifndef ZEL5_SETTINGSDIALOG_H
#define ZEL5_SETTINGSDIALOG_H

#include <QDialog>
#include <QString>

template <class TString>
class Config;
class QCheckBox;
class QEvent;
class QGridLayout;
class QGroupBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

class SettingsDialog : public QDialog {
    Q_OBJECT
public:
    explicit SettingsDialog(QWidget* parent = nullptr, const char* name = nullptr,
                            bool modal = false, Qt::WindowFlags fl = {});

    // Fills the fields from the configuration.
    void importSettings(Config<QString>* cfg);
    // Writes the fields back into the configuration, in memory only.
    void exportSettings(Config<QString>* cfg);

public slots:
    virtual void languageChange();

protected:
    void changeEvent(QEvent* e) override;

private:
    void buildNetworkBox();
    void buildOtherBox();
    void buildLayout();
    void applyTabOrder();

    QGroupBox* gbNetwork;
    QLabel* textLabel5;
    QLineEdit* txtServerAddress;
    QLabel* textLabel6;
    QLineEdit* txtServerPort;
    QLabel* textLabel7;
    QLineEdit* txtLogin;
    QLabel* textLabel8;
    QLineEdit* txtPassword;
    QLabel* textLabel9;
    QSpinBox* spinRefreshRate;
    QLabel* textLabel10;
    QLineEdit* txtWebserverAddress;
    QGroupBox* gbOther;
    QCheckBox* cbTurnOnStart;
    QCheckBox* cbTurnOnExit;
    QCheckBox* cbStartOnSysStart;
    QCheckBox* cbNotifications;
    QLabel* lblLowBalance;
    QLineEdit* txtLowBalance;
    QCheckBox* cbSaveSettings;
    QPushButton* buttonOk;
    QPushButton* buttonCancel;
    // Enables OK only while the address, port and login are usable, and
    // says beside each field what is wrong with it.
    void validate();
    QLabel* addProblemLabel(QGridLayout* grid, int row, const char* name);

    QLabel* lblAddressProblem;
    QLabel* lblPortProblem;
    QLabel* lblLoginProblem;
};

#endif
