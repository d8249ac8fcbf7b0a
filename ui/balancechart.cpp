#include "balancechart.h"

#include <QDateTime>
#include <QLocale>
#include <QPainter>
#include <QPainterPath>

#include <algorithm>
#include <cmath>

namespace {

constexpr qint64 Day = 86400;

// A step of 1, 2 or 5 times a power of ten that cuts `range` into about
// `parts` parts.
double niceStep(double range, int parts)
{
    const double raw = range / parts;
    const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
    const double norm = raw / magnitude;
    return (norm <= 1.0 ? 1.0 : norm <= 2.0 ? 2.0 : norm <= 5.0 ? 5.0 : 10.0) * magnitude;
}

QColor withAlpha(QColor c, float alpha)
{
    c.setAlphaF(alpha);
    return c;
}

QDateTime localTime(qint64 secs)
{
    return QDateTime::fromSecsSinceEpoch(secs);
}

} // namespace

// Where the plot lies in the widget and what it shows.
struct BalanceChart::Frame {
    QRectF plot;
    qint64 t0, t1;
    double v0, v1, step;
    int ticks; // value ticks above v0
    int decimals;

    qreal x(qint64 t) const { return plot.left() + plot.width() * double(t - t0) / double(t1 - t0); }
    qreal y(double v) const { return plot.bottom() - plot.height() * (v - v0) / (v1 - v0); }
};

BalanceChart::BalanceChart(QWidget* parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
}

void BalanceChart::setSamples(const QVector<BalanceHistory::Sample>& samples, qint64 until)
{
    list = samples;
    end = until;
    update();
}

QSize BalanceChart::sizeHint() const
{
    return {40 * fontMetrics().averageCharWidth(), 12 * fontMetrics().height()};
}

QSize BalanceChart::minimumSizeHint() const
{
    return {20 * fontMetrics().averageCharWidth(), 7 * fontMetrics().height()};
}

BalanceChart::Frame BalanceChart::frame() const
{
    Frame f;
    f.t0 = list.constFirst().time;
    f.t1 = std::max({list.constLast().time, end, f.t0 + Day / 24});
    const auto [low, high] = std::minmax_element(list.begin(), list.end(), [](const auto& a, const auto& b) {
        return a.balance < b.balance;
    });
    double v0 = low->balance, v1 = high->balance;
    if (v1 - v0 < 1e-9) {
        const double margin = std::max(1.0, std::abs(v0) * 0.1);
        v0 -= margin, v1 += margin;
    }
    // The axis ends on ticks, so the line never touches an unlabelled edge.
    // Never finer than the cent the balance is shown in.
    f.step = std::max(niceStep(v1 - v0, 4), 0.01);
    f.v0 = std::floor(v0 / f.step) * f.step;
    f.v1 = std::ceil(v1 / f.step) * f.step;
    // Counted, not stepped to: a step below the values' precision would never arrive.
    f.ticks = std::clamp(int(std::lround((f.v1 - f.v0) / f.step)), 1, 20);
    f.decimals = std::clamp(int(-std::floor(std::log10(f.step))), 0, 2);

    const QFontMetrics fm = fontMetrics();
    const int pad = std::max(4, fm.height() / 2);
    int labelWidth = 0;
    for (int i = 0; i <= f.ticks; ++i)
        labelWidth = std::max(labelWidth, fm.horizontalAdvance(QLocale().toString(f.v0 + i * f.step, 'f', f.decimals)));
    f.plot = QRectF(pad + labelWidth + pad, pad + fm.height() / 2, 0, 0);
    f.plot.setRight(width() - 2 * pad);
    // Room below for the dates, clear of the lowest value's label.
    f.plot.setBottom(height() - pad - fm.height() * 3 / 2);
    return f;
}

void BalanceChart::paintEvent(QPaintEvent* /*event*/)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), palette().color(QPalette::Base));
    if (list.isEmpty())
        return;
    const Frame f = frame();
    if (f.plot.width() < 10 || f.plot.height() < 10)
        return;
    paintValueTicks(p, f);
    paintDateTicks(p, f);
    paintLine(p, f);
}

void BalanceChart::paintValueTicks(QPainter& p, const Frame& f) const
{
    const QColor text = palette().color(QPalette::Text);
    const int pad = std::max(4, fontMetrics().height() / 2);
    for (int i = 0; i <= f.ticks; ++i) {
        const double v = f.v0 + i * f.step;
        const qreal y = f.y(v);
        p.setPen(QPen(withAlpha(text, 0.12f), 1));
        p.drawLine(QPointF(f.plot.left(), y), QPointF(f.plot.right(), y));
        p.setPen(text);
        const QRectF label(0, y - fontMetrics().height() / 2.0, f.plot.left() - pad, fontMetrics().height());
        // -0.00 would read as a negative balance.
        const double shown = std::abs(v) < f.step / 2 ? 0.0 : v;
        p.drawText(label, Qt::AlignRight | Qt::AlignVCenter, QLocale().toString(shown, 'f', f.decimals));
    }
    if (f.v0 < 0.0 && f.v1 > 0.0) {
        QPen zero(withAlpha(text, 0.7f), 1, Qt::DashLine);
        p.setPen(zero);
        p.drawLine(QPointF(f.plot.left(), f.y(0.0)), QPointF(f.plot.right(), f.y(0.0)));
    }
    p.setPen(QPen(withAlpha(text, 0.5f), 1));
    p.drawLine(f.plot.bottomLeft(), f.plot.bottomRight());
    p.drawLine(f.plot.bottomLeft(), f.plot.topLeft());
}

void BalanceChart::paintDateTicks(QPainter& p, const Frame& f) const
{
    const QLocale locale;
    const QDate first = localTime(f.t0).date(), last = localTime(f.t1).date();
    if (!first.isValid() || !last.isValid())
        return;
    const int labelWidth = fontMetrics().horizontalAdvance(locale.toString(QDate(2000, 12, 28), QLocale::ShortFormat));
    const int room = std::max(1, int(f.plot.width()) / (labelWidth + fontMetrics().height() * 2));
    // Days a tick apart; from four weeks on, whole months from the first of one.
    const qint64 days = first.daysTo(last) + 1;
    int step = 1;
    for (int candidate : {1, 2, 7, 14, 30, 61, 91, 183, 365}) {
        step = candidate;
        if (days / candidate < room)
            break;
    }
    QDate tick = step >= 30 ? QDate(first.year(), first.month(), 1).addMonths(1) : first.addDays(1);
    // Bounded: a date far off would otherwise give a very long loop.
    for (int n = 0; n < 100 && tick.isValid() && tick <= last; ++n) {
        const qint64 t = tick.startOfDay().toSecsSinceEpoch();
        if (t >= f.t0 && t <= f.t1)
            paintDateTick(p, f, t, locale.toString(tick, QLocale::ShortFormat));
        tick = step >= 30 ? tick.addMonths(step / 30) : tick.addDays(step);
    }
}

void BalanceChart::paintDateTick(QPainter& p, const Frame& f, qint64 t, const QString& label) const
{
    const QColor text = palette().color(QPalette::Text);
    const qreal x = f.x(t);
    p.setPen(QPen(withAlpha(text, 0.12f), 1));
    p.drawLine(QPointF(x, f.plot.top()), QPointF(x, f.plot.bottom()));
    const qreal w = fontMetrics().horizontalAdvance(label);
    const qreal left = std::clamp(x - w / 2, 0.0, std::max(0.0, qreal(width()) - w));
    p.setPen(text);
    p.drawText(QRectF(left, f.plot.bottom() + fontMetrics().height() / 2, w, fontMetrics().height()),
               Qt::AlignCenter, label);
}

void BalanceChart::paintLine(QPainter& p, const Frame& f) const
{
    // The balance holds until the next change: a step at each sample.
    QPainterPath line(QPointF(f.x(list.constFirst().time), f.y(list.constFirst().balance)));
    for (qsizetype i = 1; i < list.size(); ++i) {
        line.lineTo(f.x(list[i].time), f.y(list[i - 1].balance));
        line.lineTo(f.x(list[i].time), f.y(list[i].balance));
    }
    line.lineTo(f.x(f.t1), f.y(list.constLast().balance));

    // The area between the line and zero, or the nearer edge.
    const qreal base = f.y(std::clamp(0.0, f.v0, f.v1));
    QPainterPath area = line;
    area.lineTo(f.x(f.t1), base);
    area.lineTo(f.x(f.t0), base);
    area.closeSubpath();
    const QColor highlight = palette().color(QPalette::Highlight);
    p.fillPath(area, withAlpha(highlight, 0.18f));
    p.strokePath(line, QPen(highlight, 2, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin));
    p.setPen(Qt::NoPen);
    p.setBrush(highlight);
    p.drawEllipse(QPointF(f.x(f.t1), f.y(list.constLast().balance)), 3, 3);
}
