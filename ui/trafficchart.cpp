#include "trafficchart.h"

#include <QEvent>
#include <QLocale>
#include <QPainter>

#include <algorithm>
#include <cmath>

struct TrafficChart::Metrics {
    int line;   // a text line
    int pad;    // space around and between the parts
    int bar;    // a bar's height
    int legend; // the legend's row
    int row;    // a class: its text line, its bar and the gap after them
};

namespace {

// The shades of the bars; the prepaid ones are the highlight colour thinned
// over the chart's base, so they follow a light or a dark style alike.
QColor downloadedColor(const QPalette& palette)
{
    return palette.color(QPalette::Highlight);
}

QColor prepaidColor(const QPalette& palette)
{
    QColor c = palette.color(QPalette::Highlight);
    c.setAlphaF(0.45f);
    return c;
}

QColor oldPrepaidColor(const QPalette& palette)
{
    QColor c = palette.color(QPalette::Highlight);
    c.setAlphaF(0.2f);
    return c;
}

QString amount(double value)
{
    return QLocale().toString(value, 'f', 2) + QStringLiteral(" Mb");
}

// The row of class `id`, added at the end when it is new.
TrafficChart::Row& rowFor(QVector<TrafficChart::Row>& rows, const MiniClient::TClassReport& report)
{
    const QString name = QString::fromStdString(report.name);
    for (TrafficChart::Row& row : rows) {
        if (row.id == report.id) {
            if (row.name.isEmpty())
                row.name = name;
            return row;
        }
    }
    rows.append({report.id, name, 0.0, 0.0, 0.0});
    return rows.last();
}

// A bar of `value` at `scale` pixels a unit; an amount above zero stays
// visible however small.
qreal barWidth(double value, double scale)
{
    return value > 0.0 ? std::max(1.5, value * scale) : 0.0;
}

} // namespace

TrafficChart::TrafficChart(QWidget* parent)
    : QWidget(parent)
{
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void TrafficChart::setReport(const MiniClient::ServiceReport& report, double sizeDivisor)
{
    const double divisor = sizeDivisor > 0.0 && std::isfinite(sizeDivisor) ? sizeDivisor : 1.0;
    rowList.clear();
    // A class listed twice in one list counts with its sum.
    for (const MiniClient::TClassReport& r : report.oldPrepaid)
        rowFor(rowList, r).oldPrepaid += double(r.size) / divisor;
    for (const MiniClient::TClassReport& r : report.prepaid)
        rowFor(rowList, r).prepaid += double(r.size) / divisor;
    for (const MiniClient::TClassReport& r : report.downloaded)
        rowFor(rowList, r).downloaded += double(r.size) / divisor;
    updateGeometry();
    update();
}

TrafficChart::Metrics TrafficChart::metrics() const
{
    Metrics m;
    m.line = fontMetrics().height();
    m.pad = std::max(4, m.line / 2);
    m.bar = m.line;
    m.legend = m.line + m.pad;
    m.row = m.line + m.pad / 2 + m.bar + m.pad;
    return m;
}

QSize TrafficChart::sizeHint() const
{
    const Metrics m = metrics();
    return {30 * fontMetrics().averageCharWidth(), m.pad + m.legend + int(rowList.size()) * m.row};
}

QSize TrafficChart::minimumSizeHint() const
{
    return {16 * fontMetrics().averageCharWidth(), sizeHint().height()};
}

void TrafficChart::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::FontChange || event->type() == QEvent::StyleChange)
        updateGeometry();
    QWidget::changeEvent(event);
}

void TrafficChart::paintEvent(QPaintEvent* /*event*/)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    p.fillRect(rect(), palette().color(QPalette::Base));
    const Metrics m = metrics();
    paintLegend(p, m);

    // One scale for all the classes, so their bars compare.
    double largest = 0.0;
    for (const Row& row : rowList)
        largest = std::max({largest, row.downloaded, row.prepaid + row.oldPrepaid});
    const double scale = largest > 0.0 ? (width() - 2 * m.pad) / largest : 0.0;
    int top = m.pad + m.legend;
    for (const Row& row : rowList) {
        paintRow(p, m, row, top, scale);
        top += m.row;
    }
}

void TrafficChart::paintLegend(QPainter& p, const Metrics& m) const
{
    const struct {
        QColor color;
        QString text;
    } keys[] = {{downloadedColor(palette()), tr("Downloaded")},
                {prepaidColor(palette()), tr("Prepaid")},
                {oldPrepaidColor(palette()), tr("Old prepaid")}};
    const int swatch = fontMetrics().ascent() * 3 / 4;
    int x = m.pad;
    p.setPen(palette().color(QPalette::Text));
    for (const auto& key : keys) {
        const QRect box(x, m.pad + (m.line - swatch) / 2, swatch, swatch);
        p.fillRect(box, key.color);
        // The palest shade needs an edge to show on a light base.
        p.setPen(palette().color(QPalette::Mid));
        p.drawRect(QRectF(box).adjusted(0.5, 0.5, -0.5, -0.5));
        p.setPen(palette().color(QPalette::Text));
        x += swatch + m.pad / 2;
        const int w = fontMetrics().horizontalAdvance(key.text);
        p.drawText(QRect(x, m.pad, w, m.line), Qt::AlignLeft | Qt::AlignVCenter, key.text);
        x += w + m.pad * 2;
    }
}

void TrafficChart::paintRow(QPainter& p, const Metrics& m, const Row& row, int top, double scale) const
{
    // The text line: the amounts in full, the class name in what is left.
    const int inner = width() - 2 * m.pad;
    const QString amounts = amountsText(row);
    const int amountsWidth = std::min(inner, fontMetrics().horizontalAdvance(amounts));
    const int nameWidth = std::max(0, inner - amountsWidth - m.pad);
    const QString name = row.name.isEmpty() ? tr("Class %1").arg(row.id) : row.name;
    p.setPen(palette().color(QPalette::Text));
    p.drawText(QRect(m.pad, top, nameWidth, m.line), Qt::AlignLeft | Qt::AlignVCenter,
               fontMetrics().elidedText(name, Qt::ElideRight, nameWidth));
    p.drawText(QRect(width() - m.pad - amountsWidth, top, amountsWidth, m.line),
               Qt::AlignRight | Qt::AlignVCenter, amounts);

    // The bar: the track, the prepaid amounts, then the download over them.
    const QRectF track(m.pad + 0.5, top + m.line + m.pad / 2 + 0.5, inner - 1, m.bar - 1);
    const qreal prepaid = barWidth(row.prepaid, scale);
    const qreal old = barWidth(row.oldPrepaid, scale);
    p.fillRect(QRectF(track.left(), track.top(), prepaid, track.height()), prepaidColor(palette()));
    p.fillRect(QRectF(track.left() + prepaid, track.top(), old, track.height()), oldPrepaidColor(palette()));
    const qreal inset = track.height() / 4;
    p.fillRect(QRectF(track.left(), track.top() + inset, barWidth(row.downloaded, scale),
                      track.height() - 2 * inset),
               downloadedColor(palette()));
    p.setPen(QPen(palette().color(QPalette::Mid), 1));
    p.setBrush(Qt::NoBrush);
    p.drawRect(track);
}

QString TrafficChart::amountsText(const Row& row) const
{
    if (row.prepaid <= 0.0 && row.oldPrepaid <= 0.0)
        return amount(row.downloaded);
    const QString allowance = row.oldPrepaid > 0.0
        ? tr("%1 + %2 old").arg(amount(row.prepaid), amount(row.oldPrepaid))
        : amount(row.prepaid);
    return tr("%1 of %2").arg(amount(row.downloaded), allowance);
}
