// The account at a glance: the balance, the internet access state, the
// traffic report of each service and the balance of the last 90 days with a
// forecast of how long it lasts. Closing the window only hides it; its owner
// keeps it and feeds it the state after every refresh.
#ifndef ZEL5_ACCOUNTOVERVIEW_H
#define ZEL5_ACCOUNTOVERVIEW_H

#include "balancehistory.h"
#include "miniclient.h"

#include <QDateTime>
#include <QList>
#include <QWidget>

#include <optional>

class BalanceChart;
class QLabel;
class QScrollArea;
class QVBoxLayout;
class TrafficChart;

class AccountOverview : public QWidget {
    Q_OBJECT
public:
    struct State {
        bool online = false;   // a session is open now
        bool known = false;    // values were ever received
        bool internetOn = false;
        double balance = 0.0;
        QDateTime lastRefresh; // of the values shown
        double sizeDivisor = 1048576.0;
        const MiniClient::ServiceList* reports = nullptr; // may be null or empty
        const BalanceHistory* history = nullptr;          // may be null
    };

    explicit AccountOverview(QWidget* parent = nullptr);

    // Shows `state`; the report and the history are copied, so their owner
    // may change them afterwards.
    void setState(const State& state);

    QList<TrafficChart*> trafficCharts() const;
    BalanceChart* balanceChart() const { return balance; }
    QString balanceText() const;
    QString statusText() const;
    QString forecastText() const;

protected:
    void closeEvent(QCloseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    QWidget* buildContents();
    void showReports(const MiniClient::ServiceList* reports, double sizeDivisor);
    void showHistory(const BalanceHistory* history);
    void retranslate();

    // The values shown, kept to write the texts again in another language.
    bool online = false, known = false, internetOn = false;
    double balanceValue = 0.0;
    QDateTime lastRefresh;
    std::optional<int> daysLeft;

    QLabel* balanceLabel;
    QLabel* statusLabel;
    QScrollArea* scroll;
    QLabel* trafficHeading;
    QLabel* noTraffic;
    QVBoxLayout* servicesBox;
    QList<QLabel*> serviceNames;
    QList<TrafficChart*> charts;
    QLabel* balanceHeading;
    QLabel* noHistory;
    BalanceChart* balance;
    QLabel* forecast;
};

#endif
