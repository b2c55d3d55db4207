#pragma once

#include <cstdint>
#include <vector>

#include "charts/ChartDataExportError.h"
#include "charts/ChartExportSupport.h"
#include "charts/SampleWindow.h"
#include "util/Result.h"

namespace vantorix::render {

// The chart picture of the export as PNG data: the samples' read and write speeds over elapsed
// time, with axes, legend and a summary box, on a transparent background. Makes the offscreen
// QGuiApplication first if the process has none (see OffscreenGui.h), so call it on the main thread.
Result<std::vector<std::uint8_t>, ChartDataExportError> chartPNGData(const SampleWindow& samples,
                                                                      std::int64_t sampleIntervalMs,
                                                                      int width = ChartExportSupport::imageWidth,
                                                                      int height = ChartExportSupport::imageHeight);

// chartPNGData in the form the export flow takes.
ChartExportSupport::PNGRenderer chartPNGRenderer();

}  // namespace vantorix::render
