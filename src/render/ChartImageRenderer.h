#pragma once

#include <cstdint>
#include <vector>

#include "charts/ChartDataExportError.h"
#include "charts/ChartExportSupport.h"
#include "charts/SampleWindow.h"
#include "util/Result.h"

namespace vantorix::render {

// The desktop's colour scheme the picture is made for: its labels, outline and grid are white on a
// dark appearance and black on a light one. Light is the choice when the scheme is not known: the
// picture's background is transparent, which image viewers usually show as white.
enum class Appearance { light, dark };

// The chart picture of the export as PNG data: the samples' read and write speeds over elapsed
// time, with axes, legend and a summary box, on a transparent background. Makes the offscreen
// QGuiApplication first if the process has none (see OffscreenGui.h), so call it on the main thread.
Result<std::vector<std::uint8_t>, ChartDataExportError> chartPNGData(const SampleWindow& samples,
                                                                     std::int64_t sampleIntervalMs,
                                                                     int width = ChartExportSupport::imageWidth,
                                                                     int height = ChartExportSupport::imageHeight,
                                                                     Appearance appearance = Appearance::light);

// chartPNGData in the form the export flow takes.
ChartExportSupport::PNGRenderer chartPNGRenderer(Appearance appearance = Appearance::light);

}  // namespace vantorix::render
