// Our headers first: Qt defines "slots" as a macro, a name the sample history uses.
#include "charts/ChartExportSupport.h"
#include "charts/SampleFixtures.h"
#include "render/ChartImageRenderer.h"
#include "support/ScopedEnvironment.h"

#include <gtest/gtest.h>
#include <QColor>
#include <QImage>

namespace vantorix {
namespace {

using testing::samplesBy;
using testing::ScopedLanguage;

// Renders and decodes the PNG again.
QImage render(const SampleWindow& samples, std::int64_t intervalMs, render::Appearance appearance) {
    auto png = render::chartPNGData(samples, intervalMs, 3840, 2160, appearance);
    if (!png) {
        ADD_FAILURE() << png.error().description();
        return {};
    }
    return QImage::fromData(png->data(), static_cast<int>(png->size()), "PNG").convertToFormat(QImage::Format_ARGB32);
}

bool isRead(QColor c) { return c.alpha() > 240 && c.green() > 170 && c.red() < 90 && c.blue() < 120; }
bool isWrite(QColor c) {
    return c.alpha() > 240 && c.red() > 230 && c.green() > 110 && c.green() < 180 && c.blue() < 40;
}
bool isWhite(QColor c) { return c.alpha() > 100 && c.red() > 200 && c.green() > 200 && c.blue() > 200; }
bool isBlack(QColor c) { return c.alpha() > 100 && c.red() < 60 && c.green() < 60 && c.blue() < 60; }

// Whether some pixel of the rectangle (Qt coordinates, y down) passes `test`.
template <class Test>
bool anyIn(const QImage& image, int left, int top, int width, int height, Test test) {
    for (int y = top; y < top + height; ++y)
        for (int x = left; x < left + width; ++x)
            if (test(image.pixelColor(x, y))) return true;
    return false;
}

// The picture's y (origin bottom left) as a Qt row.
int row(double y) { return static_cast<int>(2160 - y); }

// 101 samples a second apart: read 40 MB a second but 100 MB in the first, write 20 MB a second.
// The throughput axis then tops out at 100 MB/s, the read line runs at 0.4 of the plot's height
// and the write line at 0.2; the plot is 220 … 3680 across and 240 … 2000 up.
SampleWindow knownSamples() {
    return samplesBy(
        101, [](std::size_t i) { return i == 0 ? 100'000'000 : 40'000'000; }, [](std::size_t) { return 20'000'000; });
}

TEST(ChartImage, DrawsLinesAxesLegendAndSummaryWhereTheyBelongOrSaysItIsWaiting) {
    // Labels in the label colour of the appearance; the summary keeps white text on its dark box.
    for (const auto& [lang, appearance] :
         {std::pair{"en_US.UTF-8", render::Appearance::dark}, std::pair{"zh_CN.UTF-8", render::Appearance::light}}) {
        SCOPED_TRACE(lang);
        const ScopedLanguage language(lang);
        const auto isText = appearance == render::Appearance::dark ? isWhite : isBlack;
        const QImage image = render(knownSamples(), 1000, appearance);
        ASSERT_EQ(image.size(), QSize(3840, 2160));
        EXPECT_EQ(image.pixelColor(5, 2155).alpha(), 0);  // the background stays transparent

        // Lines at their heights in the middle of the plot.
        const int middle = 220 + 3460 / 2;
        EXPECT_TRUE(isRead(image.pixelColor(middle, row(240 + 0.4 * 1760))));
        EXPECT_TRUE(isWrite(image.pixelColor(middle, row(240 + 0.2 * 1760))));
        // The first sample's 100 MB/s reaches the top of the plot at its left edge.
        EXPECT_TRUE(anyIn(image, 220, row(2000) - 2, 4, 6, isRead));

        // Axes: the left and bottom edges in the label colour.
        EXPECT_TRUE(isText(image.pixelColor(220, 1000)));
        EXPECT_TRUE(isText(image.pixelColor(1000, row(240))));
        // Labels left of the plot and below it (time ticks every 20 s, so 0.4 of the way at 40 s).
        EXPECT_TRUE(anyIn(image, 100, row(240 + 0.6 * 1760) - 15, 90, 30, isText));
        EXPECT_TRUE(anyIn(image, 220 + 1384 - 60, row(240) + 28, 120, 40, isText));

        // Legend above the plot: the green disc at the plot's left, the orange one after the text.
        EXPECT_TRUE(isRead(image.pixelColor(244, row(2048 + 24))));
        EXPECT_TRUE(anyIn(image, 290, row(2048 + 48), 200, 48, isText));
        EXPECT_TRUE(anyIn(image, 400, row(2048 + 24), 800, 1, isWrite));

        // Summary box in the top right corner: dark, with white text.
        EXPECT_NEAR(image.pixelColor(3840 - 40, 40).alpha(), 115, 3);
        EXPECT_TRUE(anyIn(image, 3000, 60, 800, 50, isWhite));

        // Without data: the axes and a waiting text in secondary black (at 0.55), no lines and no summary.
        const auto none = [](std::size_t) { return 0; };
        const QImage empty = render(samplesBy(0, none, none), 1000, render::Appearance::light);
        EXPECT_TRUE(anyIn(empty, 1950 - 300, 1040 - 30, 600, 60, isBlack));
        EXPECT_FALSE(anyIn(empty, 0, 0, 3840, 2160, [](QColor c) { return isRead(c) || isWrite(c); }));
        EXPECT_EQ(empty.pixelColor(3840 - 40, 40).alpha(), 0);
        EXPECT_TRUE(isBlack(empty.pixelColor(220, 1000)));
    }
}

}  // namespace
}  // namespace vantorix
