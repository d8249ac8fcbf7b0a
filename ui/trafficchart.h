// One service's traffic report as horizontal bars, one per traffic class:
// the amount downloaded drawn over the prepaid amount, with the prepaid
// amount left from earlier periods stacked onto it in a lighter shade.
#ifndef ZEL5_TRAFFICCHART_H
#define ZEL5_TRAFFICCHART_H

#include "miniclient.h"

#include <QVector>
#include <QWidget>

class TrafficChart : public QWidget {
    Q_OBJECT
public:
    // Amounts in the report's unit (bytes / sizeDivisor).
    struct Row {
        int id;
        QString name;
        double downloaded, prepaid, oldPrepaid;
    };

    explicit TrafficChart(QWidget* parent = nullptr);

    // One row per class id of the three lists, in the order the ids first
    // appear (old prepaid, prepaid, downloaded). A divisor that is not
    // positive leaves the sizes as they came.
    void setReport(const MiniClient::ServiceReport& report, double sizeDivisor);
    const QVector<Row>& rows() const { return rowList; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    struct Metrics;
    Metrics metrics() const;
    void paintLegend(QPainter& p, const Metrics& m) const;
    void paintRow(QPainter& p, const Metrics& m, const Row& row, int top, double scale) const;
    QString amountsText(const Row& row) const;

    QVector<Row> rowList;
};

#endif
