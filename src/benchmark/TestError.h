#pragma once

#include <string>

namespace vantorix {

// Why a performance test did not run, failed, or produced no report.
class TestError {
public:
    enum Kind {
        volumeUnavailable,
        insufficientFreeSpace,
        temporaryFileCreationFailed,
        fileHandleUnavailable,
        writeFailed,
        readFailed,
        noResultToExport,
        reportWriteFailed,
        directIoUnsupported,
        queuedIoUnavailable,
        volumeWentAway,  // unmounted or removed: the folder's path leads elsewhere now
    };

    // `message` is the cause, said after the kind's sentence; for reportWriteFailed, the reason
    // the report could not be written.
    explicit TestError(Kind kind, std::string message = {}) : kind_(kind), message_(std::move(message)) {}

    static TestError reportWriteFailure(std::string message) {
        return TestError(reportWriteFailed, std::move(message));
    }
    // The kind, caused by the system error `code`.
    static TestError because(Kind kind, int code);

    Kind kind() const { return kind_; }
    const std::string& message() const { return message_; }
    // The text the user sees, in the current language.
    std::string description() const;

    friend bool operator==(const TestError&, const TestError&) = default;

private:
    Kind kind_;
    std::string message_;
};

}  // namespace vantorix
