#include "accountoverview.h"

#include "artwork.h"
#include "balancechart.h"
#include "trafficchart.h"

#include <QCloseEvent>
#include <QEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QLocale>
#include <QScreen>
#include <QScrollArea>
#include <QVBoxLayout>

namespace {

constexpr qint64 ChartDays = 90;

// Texts from the server are shown as they are, never as markup.
QLabel* plainLabel(QWidget* parent, const char* name, qreal fontScale = 1.0, bool bold = false)
{
    auto* label = new QLabel(parent);
    label->setObjectName(QString::fromLatin1(name));
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    QFont font = label->font();
    if (font.pointSizeF() > 0)
        font.setPointSizeF(font.pointSizeF() * fontScale);
    else
        font.setPixelSize(qRound(font.pixelSize() * fontScale));
    font.setBold(bold);
    label->setFont(font);
    return label;
}

} // namespace

AccountOverview::AccountOverview(QWidget* parent)
    : QWidget(parent, Qt::Window)
{
    setObjectName(QStringLiteral("AccountOverview"));
    setWindowIcon(Artwork::themeIcon(QStringLiteral("zel5_tray")));

    balanceLabel = plainLabel(this, "balanceLabel", 2.0, true);
    balanceLabel->setTextInteractionFlags(Qt::TextSelectableByMouse);
    statusLabel = plainLabel(this, "statusLabel");
    scroll = new QScrollArea(this);
    scroll->setObjectName(QStringLiteral("scroll"));
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setWidgetResizable(true);
    scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scroll->setWidget(buildContents());

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(balanceLabel);
    layout->addWidget(statusLabel);
    layout->addSpacing(fontMetrics().height() / 2);
    layout->addWidget(scroll, 1);
    // Keeps the texts at the top while the charts are hidden.
    layout->addStretch(0);

    retranslate();
    QSize size(520, 600);
    if (const QScreen* s = screen())
        size = size.boundedTo(s->availableSize() * 0.8);
    resize(size);
}

QWidget* AccountOverview::buildContents()
{
    auto* contents = new QWidget;
    trafficHeading = plainLabel(contents, "trafficHeading", 1.2, true);
    noTraffic = plainLabel(contents, "noTraffic");
    balanceHeading = plainLabel(contents, "balanceHeading", 1.2, true);
    noHistory = plainLabel(contents, "noHistory");
    balance = new BalanceChart(contents);
    balance->hide();
    forecast = plainLabel(contents, "forecast");
    forecast->hide();

    auto* layout = new QVBoxLayout(contents);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(trafficHeading);
    layout->addWidget(noTraffic);
    servicesBox = new QVBoxLayout;
    layout->addLayout(servicesBox);
    layout->addSpacing(fontMetrics().height());
    layout->addWidget(balanceHeading);
    layout->addWidget(noHistory);
    layout->addWidget(balance);
    layout->addWidget(forecast);
    layout->addStretch(1);
    return contents;
}

void AccountOverview::setState(const State& state)
{
    online = state.online;
    known = state.known;
    internetOn = state.internetOn;
    balanceValue = state.balance;
    lastRefresh = state.lastRefresh;
    showReports(state.reports, state.sizeDivisor);
    showHistory(state.history);
    // Without any account data the charts would only show empty axes.
    balanceLabel->setVisible(known);
    scroll->setVisible(known);
    retranslate();
}

void AccountOverview::showReports(const MiniClient::ServiceList* reports, double sizeDivisor)
{
    const qsizetype count = reports ? qsizetype(reports->size()) : 0;
    // The charts are kept from one refresh to the next, so that the view
    // neither flickers nor loses its scroll position.
    while (charts.size() > count) {
        delete charts.takeLast();
        delete serviceNames.takeLast();
    }
    while (charts.size() < count) {
        QWidget* contents = scroll->widget();
        serviceNames.append(plainLabel(contents, "serviceName", 1.0, true));
        charts.append(new TrafficChart(contents));
        servicesBox->addWidget(serviceNames.last());
        servicesBox->addWidget(charts.last());
    }
    qsizetype i = 0;
    if (reports) {
        for (const MiniClient::ServiceReport& report : *reports) {
            serviceNames[i]->setText(QString::fromStdString(report.name));
            charts[i]->setReport(report, sizeDivisor);
            ++i;
        }
    }
    noTraffic->setVisible(count == 0);
}

void AccountOverview::showHistory(const BalanceHistory* history)
{
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const QVector<BalanceHistory::Sample> recent =
        history ? history->since(now - ChartDays * 86400) : QVector<BalanceHistory::Sample>();
    const bool enough = recent.size() >= 2;
    balance->setSamples(enough ? recent : QVector<BalanceHistory::Sample>(), now);
    balance->setVisible(enough);
    noHistory->setVisible(!enough);
    daysLeft = history ? history->daysLeft(now) : std::nullopt;
    forecast->setVisible(daysLeft.has_value());
}

void AccountOverview::retranslate()
{
    setWindowTitle(tr("Account"));
    trafficHeading->setText(tr("Traffic"));
    noTraffic->setText(tr("No traffic report yet"));
    balanceHeading->setText(tr("Balance, last 90 days"));
    noHistory->setText(tr("No balance history yet"));
    forecast->setText(daysLeft ? tr("At this rate the balance lasts about %n days", nullptr, *daysLeft)
                               : QString());
    balanceLabel->setText(known ? QLocale().toString(balanceValue, 'f', 2) : QString());

    QStringList lines;
    if (!known) {
        lines << tr("No account data yet");
    } else {
        if (!online)
            lines << tr("Offline — last known values");
        QString line = internetOn ? tr("Internet: on") : tr("Internet: off");
        if (lastRefresh.isValid())
            line += QStringLiteral("   ·   ")
                  + tr("Updated %1").arg(QLocale().toString(lastRefresh, QLocale::ShortFormat));
        lines << line;
    }
    statusLabel->setText(lines.join(QLatin1Char('\n')));
}

QList<TrafficChart*> AccountOverview::trafficCharts() const
{
    return charts;
}

QString AccountOverview::balanceText() const
{
    return balanceLabel->text();
}

QString AccountOverview::statusText() const
{
    return statusLabel->text();
}

QString AccountOverview::forecastText() const
{
    return forecast->isHidden() ? QString() : forecast->text();
}

void AccountOverview::closeEvent(QCloseEvent* event)
{
    // Ignored after hiding, so that closing the last open window never ends
    // the tray program.
    hide();
    event->ignore();
}

void AccountOverview::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape)
        close();
    else
        QWidget::keyPressEvent(event);
}

void AccountOverview::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::LanguageChange)
        retranslate();
    QWidget::changeEvent(event);
}
