#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "util/Result.h"

namespace vantorix {

// One HTTP request whose whole answer is held in memory.
struct HttpRequest {
    enum class Method { get, post };
    Method method = Method::get;
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;  // sent with post
    // Total time allowed for the exchange, connection included.
    std::chrono::milliseconds timeout{std::chrono::seconds(60)};
};

struct HttpResponse {
    long status = 0;
    std::string body;
};

// A download streamed into a file of its own in the destination folder.
struct HttpDownload {
    long status = 0;
    // The downloaded file, in the folder the caller named; the caller moves it into place or removes it.
    std::string temporaryPath;
    // The file name the server suggested (Content-Disposition), as sent: not yet made safe.
    std::optional<std::string> suggestedFileName;
    // The URL that finally answered, after redirects.
    std::string finalUrl;
};

struct HttpError {
    enum class Kind {
        invalidUrl,        // the URL cannot be used (malformed, or a scheme other than http and https)
        connectionFailed,  // refused, unreachable, name not resolved, TLS failure
        timedOut,
        tooLarge,   // the answer's body exceeds what is held in memory
        badStatus,  // a download answered with a status outside 200-299
        fileError,  // the download's file could not be written
        other,
    };
    Kind kind = Kind::other;
    // For a person, in the interface language.
    std::string description;
};

// HTTP over http and https only (redirects included), certificate checks on. Calls block: make
// them from a background queue. One client may be used from several threads at once.
class HttpClient {
public:
    virtual ~HttpClient() = default;

    // Bodies above this many bytes are refused (HttpError::Kind::tooLarge) without being held.
    static constexpr std::uint64_t kMaximumBodyBytes = 8u << 20;

    virtual Result<HttpResponse, HttpError> send(const HttpRequest& request) = 0;

    // GETs `url` into a new file in `directory`; a status outside 200-299 is an error
    // (Kind::badStatus) and, like every other error, leaves no file behind.
    virtual Result<HttpDownload, HttpError> download(const std::string& url, const std::string& directory) = 0;

protected:
    HttpClient() = default;
    HttpClient(const HttpClient&) = default;
    HttpClient& operator=(const HttpClient&) = default;
};

}  // namespace vantorix
