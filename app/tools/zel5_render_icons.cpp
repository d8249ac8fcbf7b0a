// Renders a scalable icon into the PNG sizes of the hicolor icon theme, at
// build time: zel5_render_icons SVG OUTDIR NAME SIZE...
// writes OUTDIR/<SIZE>x<SIZE>/apps/NAME.png for each size. Exits with 1 and
// a message when the picture cannot be read, comes out empty or a file
// cannot be written.
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QSaveFile>
#include <QStringList>
#include <QSvgRenderer>

#include <cstdio>

namespace {

int fail(const QString& message)
{
    std::fprintf(stderr, "zel5_render_icons: %s\n", qUtf8Printable(message));
    return 1;
}

bool hasVisiblePixels(const QImage& image)
{
    for (int y = 0; y < image.height(); ++y) {
        const QRgb* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x) {
            if (qAlpha(line[x]) != 0)
                return true;
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 5)
        return fail(QStringLiteral("usage: zel5_render_icons SVG OUTDIR NAME SIZE..."));
    const QString svg = QString::fromLocal8Bit(argv[1]);
    const QString outDir = QString::fromLocal8Bit(argv[2]);
    const QString name = QString::fromLocal8Bit(argv[3]);

    QSvgRenderer renderer(svg);
    if (!renderer.isValid())
        return fail(QStringLiteral("%1 is not a readable SVG picture").arg(svg));
    renderer.setAspectRatioMode(Qt::KeepAspectRatio);

    for (int i = 4; i < argc; ++i) {
        bool ok = false;
        const int size = QString::fromLocal8Bit(argv[i]).toInt(&ok);
        if (!ok || size < 1 || size > 1024)
            return fail(QStringLiteral("%1 is not an icon size (1 to 1024)").arg(QString::fromLocal8Bit(argv[i])));

        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        {
            QPainter painter(&image);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setRenderHint(QPainter::SmoothPixmapTransform);
            renderer.render(&painter, QRectF(0, 0, size, size));
        }
        image = image.convertToFormat(QImage::Format_ARGB32);
        if (!hasVisiblePixels(image))
            return fail(QStringLiteral("%1 comes out empty at %2x%2").arg(svg).arg(size));

        const QString dir = QStringLiteral("%1/%2x%2/apps").arg(outDir).arg(size);
        const QString file = dir + QLatin1Char('/') + name + QStringLiteral(".png");
        // Whole or not at all: a half-written picture would pass for a built one.
        QSaveFile out(file);
        if (!QDir().mkpath(dir) || !out.open(QIODevice::WriteOnly) || !image.save(&out, "PNG") || !out.commit())
            return fail(QStringLiteral("cannot write %1").arg(file));
    }
    return 0;
}
