#include "charts/ChartDataExportError.h"

#include "text/Language.h"

namespace vantorix {

std::string ChartDataExportError::description() const {
    switch (code_) {
        case Code::bitmapContextUnavailable:
            return text::localized("无法创建用于渲染图表的位图上下文。",
                                   "Failed to create the bitmap context for rendering the chart.");
        case Code::pngEncodingFailed:
            return text::localized("无法将图表转换为 PNG 图像。", "Failed to encode the chart as a PNG image.");
    }
    return {};
}

}  // namespace vantorix
