#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "concurrency/MainExecutor.h"
#include "platform/HttpClient.h"
#include "services/ServiceConfiguration.h"
#include "util/Result.h"
#include "util/Uuid.h"

namespace vantorix {
class SerialQueue;
}

namespace vantorix::services {

// The product record of the vendor's web service. Unknown members are ignored; `id` is required.
struct ProductDTO {
    std::string id;
    std::optional<std::string> type;
    std::optional<std::string> status;
    std::optional<std::string> downloadType;
    std::optional<std::string> downloadUrl;
    std::optional<std::string> currentVersion;
};

// The decoding error's description on failure (for "Update check failed: " + description).
Result<ProductDTO, std::string> decodeProduct(std::string_view body);

// True when `offered` is a newer version than `running` (pieces split at ".", non-numeric pieces
// count as 0, missing pieces as 0).
bool isNewerVersion(std::string_view offered, std::string_view running);

// GET URL of the product record: base URL + "/api/products/" + product id; nothing when it cannot
// be built (no base URL, not an http or https URL, no product id).
std::optional<std::string> productEndpoint(const ServiceConfiguration& configuration);

struct UpdatePrompt {
    Uuid id;
    std::string version;  // the offered version, trimmed
    std::string url;      // the download URL, trimmed
};

// How a check ended: a newer version to offer, or one message for an information alert.
// packageManaged: no service is configured (VANTORIX_SERVICE_URL empty), so the system's package
// manager brings new versions; nothing was asked.
struct UpdateCheckOutcome {
    enum class Status { updateAvailable, upToDate, packageManaged, failed };
    Status status = Status::failed;
    std::optional<UpdatePrompt> prompt;  // with updateAvailable
    std::optional<std::string> message;  // otherwise
};

// The whole check, blocking: request, answer, decoding, validation, comparison.
UpdateCheckOutcome checkForUpdate(HttpClient& client, const ServiceConfiguration& configuration,
                                  std::string_view runningVersion);

// How the desktop hands a downloaded file to the user's default application.
class FileOpener {
public:
    virtual ~FileOpener() = default;
    virtual void open(const std::string& path) = 0;
};

// A server's suggested file name reduced to a plain base name (no folders, no "..", no leading
// dot, no control characters), else the URL's last path component made safe the same way, else a
// fixed name. Never empty, never leaves the folder it is joined to.
std::string safeDownloadName(const std::optional<std::string>& suggested, std::string_view url);

// Downloads `url` into `folder` (a temporary file there first), replaces a file of the same name
// and returns the final path; on failure the message "Download failed: " + description, with
// nothing left behind. The temporary file is made in `stagingFolder` instead when one is given (a
// folder of its own that a caller can remove as a whole); it must be on the same file system.
Result<std::string, std::string> downloadUpdate(HttpClient& client, const std::string& url, const std::string& folder,
                                                const std::string& stagingFolder = {});

// The About window's update check and download, run off the main thread, answered on it.
class UpdateChecker : public std::enable_shared_from_this<UpdateChecker> {
public:
    struct Dependencies {
        std::shared_ptr<HttpClient> client;
        std::shared_ptr<MainExecutor> mainExecutor;
        ServiceConfiguration configuration;
        std::string runningVersion;
    };
    static std::shared_ptr<UpdateChecker> create(Dependencies dependencies);
    ~UpdateChecker();

    // Main thread. Starts a check and returns true; false (and nothing starts) while one runs.
    // `done` runs on the main thread when the check ends, after isCheckingUpdate() turned false.
    bool checkForUpdate(std::function<void(const UpdateCheckOutcome&)> done);
    bool isCheckingUpdate() const { return checking_; }

    // Main thread. Downloads the prompt's URL into `folder`; `done` gets the final path or the
    // message, on the main thread.
    //
    // Destroying the checker cancels nothing: a running check or download goes on to its end (the
    // file lands in its folder), but `done` is no longer called.
    void download(const UpdatePrompt& prompt, std::string folder,
                  std::function<void(const Result<std::string, std::string>&)> done);

private:
    explicit UpdateChecker(Dependencies dependencies);
    Dependencies dependencies_;
    // Shared with the work in flight, so that the checker may go away while a request runs: the
    // queue then finishes that work on its own thread and ends there.
    std::shared_ptr<SerialQueue> queue_;
    bool checking_ = false;
};

}  // namespace vantorix::services
