#include "render/ChartImageRenderer.h"

#include <QBuffer>
#include <QColor>
#include <QFont>
#include <QFontMetricsF>
#include <QImageWriter>
#include <QLineF>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <QPointF>
#include <QRectF>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <string>

#include "render/ChartImage.h"
#include "render/OffscreenGui.h"
#include "text/Formats.h"

namespace vantorix::render {
namespace {

using Support = ChartExportSupport;

const QColor kRead = QColor::fromRgbF(0.203F, 0.781F, 0.349F);
const QColor kWrite = QColor::fromRgbF(1.0F, 0.584F, 0.0F);

QColor withOpacity(QColor color, double opacity) {
    color.setAlphaF(static_cast<float>(color.alphaF() * opacity));
    return color;
}

// Labels, outline and grid in the colour a system theme gives its labels: white on a dark
// appearance, black on a light one (the summary box keeps white text on its own dark fill).
struct Ink {
    explicit Ink(Appearance appearance) : base(appearance == Appearance::dark ? Qt::white : Qt::black) {}
    QColor at(double opacity) const { return withOpacity(base, opacity); }
    QColor label() const { return at(0.85); }
    QColor secondaryLabel() const { return at(0.55); }
    QColor base;
};

// WenQuanYi Micro Hei has the Chinese glyphs and digits of equal width, which the axis labels and
// the summary box want; the others stand in where it is missing.
QFont chartFont(int pixelSize, QFont::Weight weight = QFont::Normal) {
    QFont font;
    font.setFamilies(QStringList{"WenQuanYi Micro Hei", "Noto Sans CJK SC", "Noto Sans", "sans-serif"});
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

QString qText(const std::string& text) { return QString::fromStdString(text); }

QPen pen(const QColor& color, double width) {
    QPen p(color, width);
    p.setCapStyle(Qt::FlatCap);
    return p;
}

// Draws in the picture's coordinates (origin bottom left, y upwards) on a Qt painter (origin top
// left, y downwards).
class ChartPainter {
public:
    ChartPainter(QPainter& painter, int width, int height, Appearance appearance)
        : painter_(painter), width_(width), height_(height), ink_(appearance) {}

    void draw(const SampleWindow& samples, std::int64_t sampleIntervalMs) {
        const Support::Rect plot = Support::plotRect(width_, height_);
        const auto points = Support::reducedPoints(samples, sampleIntervalMs, Support::pointLimit(plot));
        const auto throughputTicks = Support::throughputTicks(points);
        const auto timeTicks = Support::timeTicks(static_cast<std::int64_t>(samples.size()), sampleIntervalMs);
        const double top = std::max(throughputTicks.back().value, 1.0);

        drawPlotArea(plot);
        drawGrid(plot, throughputTicks);
        drawAxes(plot);
        drawThroughputTicks(plot, throughputTicks);
        drawTimeTicks(plot, timeTicks);
        if (points.empty()) {
            drawWaiting(plot);
            return;
        }
        drawLines(plot, points, static_cast<std::int64_t>(samples.size()), top);
        drawLegend(plot);
        drawSummary(Support::totals(samples, sampleIntervalMs));
    }

private:
    double qy(double y) const { return height_ - y; }
    QPointF at(double x, double y) const { return {x, qy(y)}; }
    // The plot in Qt coordinates.
    QRectF qRect(const Support::Rect& r) const { return {r.x, qy(r.y + r.height), r.width, r.height}; }

    void drawPlotArea(const Support::Rect& plot) {
        QPainterPath outline;
        outline.addRoundedRect(qRect(plot), 24, 24);
        painter_.fillPath(outline, withOpacity(Qt::black, 0.06));
        painter_.strokePath(outline, pen(ink_.at(0.18), 2));
    }

    void drawGrid(const Support::Rect& plot, const std::vector<Support::AxisTick>& ticks) {
        QPen dashed = pen(ink_.at(0.15), 1);
        dashed.setDashPattern({6, 4});
        painter_.setPen(dashed);
        for (const auto& tick : ticks) {
            if (!(tick.position > 0 && tick.position < 1)) continue;
            const double y = plot.y + tick.position * plot.height;
            painter_.drawLine(at(plot.x, y), at(plot.x + plot.width, y));
        }
    }

    void drawAxes(const Support::Rect& plot) {
        painter_.setPen(pen(withOpacity(ink_.label(), 0.9), 2.5));
        const QPointF corner = at(plot.x, plot.y);
        painter_.drawLine(at(plot.x, plot.y + plot.height), corner);
        painter_.drawLine(corner, at(plot.x + plot.width, plot.y));
    }

    void drawThroughputTicks(const Support::Rect& plot, const std::vector<Support::AxisTick>& ticks) {
        const QFont font = chartFont(32);
        const double lineHeight = QFontMetricsF(font).height();
        painter_.setFont(font);
        for (const auto& tick : ticks) {
            const double y = plot.y + tick.position * plot.height;
            painter_.setPen(pen(withOpacity(ink_.label(), 0.8), 2));
            painter_.drawLine(at(plot.x - 16, y), at(plot.x, y));
            painter_.setPen(ink_.label());
            const QRectF box(0, qy(y) - lineHeight, plot.x - 28, 2 * lineHeight);
            painter_.drawText(box, Qt::AlignRight | Qt::AlignVCenter, qText(text::speedText(tick.value)));
        }
    }

    void drawTimeTicks(const Support::Rect& plot, const std::vector<Support::AxisTick>& ticks) {
        const QFont font = chartFont(32);
        const double lineHeight = QFontMetricsF(font).height();
        painter_.setFont(font);
        constexpr double kLabelWidth = 480;
        for (const auto& tick : ticks) {
            const double x = plot.x + tick.position * plot.width;
            painter_.setPen(pen(withOpacity(ink_.label(), 0.8), 2));
            painter_.drawLine(at(x, plot.y), at(x, plot.y - 20));
            painter_.setPen(ink_.label());
            const QRectF box(x - kLabelWidth / 2, qy(plot.y) + 28, kLabelWidth, lineHeight);
            painter_.drawText(box, Qt::AlignHCenter | Qt::AlignTop, qText(Support::durationText(tick.value)));
        }
    }

    // Each line is drawn as separate segments with round caps rather than as one polyline: for an
    // opaque colour that looks the same as a polyline with round joins, but Qt fills a wide
    // antialiased polyline as one self-overlapping shape, which costs seconds for a few thousand
    // jagged points, where separate segments cost milliseconds.
    void drawLines(const Support::Rect& plot, const std::vector<Support::DownsampledPoint>& points,
                   std::int64_t sampleCount, double top) {
        const double lastIndex = static_cast<double>(std::max(sampleCount, std::int64_t{2}) - 1);
        std::vector<QLineF> segments;
        segments.reserve(points.size());
        const auto line = [&](const QColor& color, auto speedOf) {
            segments.clear();
            QPointF previous;
            for (std::size_t i = 0; i < points.size(); ++i) {
                const double x = plot.x + static_cast<double>(points[i].index) / lastIndex * plot.width;
                const double y = plot.y + std::clamp(speedOf(points[i]) / top, 0.0, 1.0) * plot.height;
                const QPointF point = at(x, y);
                // A single point still shows as a dot.
                if (i > 0 || points.size() == 1) segments.emplace_back(i > 0 ? previous : point, point);
                previous = point;
            }
            QPen stroke = pen(color, 4);
            stroke.setCapStyle(Qt::RoundCap);
            painter_.setPen(stroke);
            painter_.drawLines(segments.data(), static_cast<int>(segments.size()));
        };
        line(kRead, [](const Support::DownsampledPoint& p) { return p.readSpeed; });
        line(kWrite, [](const Support::DownsampledPoint& p) { return p.writeSpeed; });
    }

    void drawLegend(const Support::Rect& plot) {
        constexpr double kDisc = 48;
        const QFont font = chartFont(44);
        const QFontMetricsF metrics(font);
        painter_.setFont(font);
        const double discBottom = plot.y + plot.height + 48;
        const QRectF firstDisc(plot.x, qy(discBottom + kDisc), kDisc, kDisc);
        const auto entry = [&](double left, const QColor& color, const QString& label) {
            painter_.setPen(Qt::NoPen);
            painter_.setBrush(color);
            painter_.drawEllipse(QRectF(left, firstDisc.top(), kDisc, kDisc));
            painter_.setBrush(Qt::NoBrush);
            painter_.setPen(ink_.label());
            const double textLeft = left + kDisc + 20;
            const double textWidth = metrics.horizontalAdvance(label);
            painter_.drawText(
                QRectF(textLeft, firstDisc.center().y() - metrics.height(), textWidth + 4, 2 * metrics.height()),
                Qt::AlignLeft | Qt::AlignVCenter, label);
            return textLeft + textWidth;
        };
        const double readEnd = entry(plot.x, kRead, qText(Support::readLegendText()));
        entry(readEnd + 28, kWrite, qText(Support::writeLegendText()));
    }

    void drawSummary(const Support::Totals& totals) {
        const QFont font = chartFont(40);
        const QFontMetricsF metrics(font);
        const auto lines = Support::summaryLines(totals);
        double widest = 0;
        for (const auto& line : lines) widest = std::max(widest, metrics.horizontalAdvance(qText(line)));
        const double lineHeight = metrics.height();
        const auto count = static_cast<double>(lines.size());
        const double boxWidth = widest + 64;
        const double boxHeight = lineHeight * count + 16 * (count - 1) + 56;
        const QRectF box(width_ - 32 - boxWidth, 32, boxWidth, boxHeight);
        QPainterPath shape;
        shape.addRoundedRect(box, 18, 18);
        painter_.fillPath(shape, withOpacity(Qt::black, 0.45));
        painter_.setFont(font);
        painter_.setPen(Qt::white);
        double lineTop = box.top() + 28;
        for (const auto& line : lines) {
            painter_.drawText(QRectF(box.left() + 32, lineTop, widest + 4, lineHeight), Qt::AlignLeft | Qt::AlignTop,
                              qText(line));
            lineTop += lineHeight + 16;
        }
    }

    void drawWaiting(const Support::Rect& plot) {
        painter_.setFont(chartFont(60, QFont::DemiBold));
        painter_.setPen(ink_.secondaryLabel());
        painter_.drawText(qRect(plot), Qt::AlignCenter, qText(Support::waitingText()));
    }

    QPainter& painter_;
    int width_;
    int height_;
    Ink ink_;
};

}  // namespace

Result<QImage, ChartDataExportError> chartImage(const SampleWindow& samples, std::int64_t sampleIntervalMs, int width,
                                                int height, Appearance appearance) {
    ensureGuiApplication();
    QImage image(width, height, QImage::Format_ARGB32_Premultiplied);
    if (image.isNull()) return Failure{ChartDataExportError::bitmapContextUnavailable()};
    image.fill(Qt::transparent);
    QPainter painter;
    if (!painter.begin(&image)) return Failure{ChartDataExportError::bitmapContextUnavailable()};
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing);
    ChartPainter(painter, width, height, appearance).draw(samples, sampleIntervalMs);
    painter.end();
    return image;
}

Result<std::vector<std::uint8_t>, ChartDataExportError> encodePNG(const QImage& image) {
    QByteArray data;
    QBuffer buffer(&data);
    if (!buffer.open(QIODevice::WriteOnly)) return Failure{ChartDataExportError::pngEncodingFailed()};
    QImageWriter writer(&buffer, "png");
    // Quality 80 is zlib level 1 for Qt's PNG writer: the mostly transparent picture still packs
    // into about 1.4 MB, in two thirds of the time of the default level.
    writer.setQuality(80);
    if (!writer.write(image) || data.isEmpty()) return Failure{ChartDataExportError::pngEncodingFailed()};
    return std::vector<std::uint8_t>(data.begin(), data.end());
}

Result<std::vector<std::uint8_t>, ChartDataExportError> chartPNGData(const SampleWindow& samples,
                                                                     std::int64_t sampleIntervalMs, int width,
                                                                     int height, Appearance appearance) {
    auto image = chartImage(samples, sampleIntervalMs, width, height, appearance);
    if (!image) return Failure{image.error()};
    return encodePNG(*image);
}

ChartExportSupport::PNGRenderer chartPNGRenderer(Appearance appearance) {
    return [appearance](const SampleWindow& samples, std::int64_t sampleIntervalMs) {
        return chartPNGData(samples, sampleIntervalMs, ChartExportSupport::imageWidth, ChartExportSupport::imageHeight,
                            appearance);
    };
}

}  // namespace vantorix::render
