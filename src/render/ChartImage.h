#pragma once

#include "render/ChartImageRenderer.h"

// Our headers come before Qt's: Qt defines "slots" as a macro, which the sample history's
// storage uses as a name.
#include "charts/ChartDataExportError.h"
#include "charts/SampleWindow.h"
#include "util/Result.h"

#include <QImage>

#include <cstdint>
#include <vector>

namespace vantorix::render {

// The two halves of chartPNGData, apart for measuring: drawing the picture and encoding it.
Result<QImage, ChartDataExportError> chartImage(const SampleWindow& samples, std::int64_t sampleIntervalMs, int width,
                                                int height, Appearance appearance = Appearance::light);
Result<std::vector<std::uint8_t>, ChartDataExportError> encodePNG(const QImage& image);

}  // namespace vantorix::render
