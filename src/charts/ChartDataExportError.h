#pragma once

#include <string>

namespace vantorix {

// Why the chart picture could not be made. The description follows the interface language at the
// moment it is made.
class ChartDataExportError {
public:
    enum class Code { bitmapContextUnavailable, pngEncodingFailed };

    static ChartDataExportError bitmapContextUnavailable() {
        return ChartDataExportError(Code::bitmapContextUnavailable);
    }
    static ChartDataExportError pngEncodingFailed() { return ChartDataExportError(Code::pngEncodingFailed); }

    Code code() const { return code_; }
    std::string description() const;

    friend bool operator==(const ChartDataExportError&, const ChartDataExportError&) = default;

private:
    explicit ChartDataExportError(Code code) : code_(code) {}
    Code code_;
};

}  // namespace vantorix
