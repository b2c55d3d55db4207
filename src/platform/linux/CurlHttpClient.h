#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/HttpClient.h"

namespace vantorix {

// The HttpClient over libcurl. Every call uses an easy handle of its own, so one client serves any
// number of threads at once; the client itself holds no state.
//
// - Only http and https, for the URL given and for every redirect (at most 10 are followed). A URL
//   that does not parse, has no scheme or another scheme is Kind::invalidUrl, and so is a redirect
//   to such a URL, which is never followed.
// - Certificates and host names are checked (libcurl's defaults, never turned off).
// - Connecting may take 15 s at most (never more than the request's own time-out); send() ends after
//   the request's time-out in all. A download has no overall limit but ends when less than one byte
//   a second arrives for a minute.
// - send() holds at most kMaximumBodyBytes of a body: a larger Content-Length is refused before the
//   body is read, and a body without one is dropped as soon as it grows past the cap.
// - A connection that breaks off during the answer counts as Kind::connectionFailed.
class CurlHttpClient final : public HttpClient {
public:
    CurlHttpClient();

    Result<HttpResponse, HttpError> send(const HttpRequest& request) override;
    Result<HttpDownload, HttpError> download(const std::string& url, const std::string& directory) override;
};

// The file name a Content-Disposition header value names, exactly as sent (not made safe):
// `filename*=UTF-8''…` (percent-decoded; ISO-8859-1 is converted to UTF-8) is preferred over
// `filename="…"` or `filename=…`. Nothing when neither is there or the name is empty.
std::optional<std::string> fileNameFromContentDisposition(std::string_view value);

}  // namespace vantorix
