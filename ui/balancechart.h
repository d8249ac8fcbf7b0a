// The balance over time as a line: a step at each recorded change, as the
// balance holds between them, with dated and numbered ticks and a zero
// line when the balance has been on both sides of zero.
#ifndef ZEL5_BALANCECHART_H
#define ZEL5_BALANCECHART_H

#include "balancehistory.h"

#include <QVector>
#include <QWidget>

class BalanceChart : public QWidget {
    Q_OBJECT
public:
    explicit BalanceChart(QWidget* parent = nullptr);

    // `samples` sorted by time. The last balance is drawn on up to `until`
    // (seconds since the epoch) when that is later than the last sample.
    void setSamples(const QVector<BalanceHistory::Sample>& samples, qint64 until = 0);
    const QVector<BalanceHistory::Sample>& samples() const { return list; }

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    struct Frame;
    Frame frame() const;
    void paintValueTicks(QPainter& p, const Frame& f) const;
    void paintDateTicks(QPainter& p, const Frame& f) const;
    void paintDateTick(QPainter& p, const Frame& f, qint64 t, const QString& label) const;
    void paintLine(QPainter& p, const Frame& f) const;

    QVector<BalanceHistory::Sample> list;
    qint64 end = 0;
};

#endif
