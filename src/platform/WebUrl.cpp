#include "platform/WebUrl.h"

#include <curl/curl.h>

#include <memory>
#include <string>

namespace vantorix {
namespace {

struct UrlDeleter {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

struct CurlTextDeleter {
    void operator()(char* text) const { curl_free(text); }
};

std::string part(CURLU* url, CURLUPart which) {
    char* raw = nullptr;
    if (curl_url_get(url, which, &raw, 0) != CURLUE_OK) return {};
    const std::unique_ptr<char, CurlTextDeleter> owned(raw);
    return raw ? std::string(raw) : std::string();
}

}  // namespace

bool isWebUrl(std::string_view url) {
    const std::string text(url);
    // curl_url_set reads a C string: an embedded NUL would hide the rest.
    if (text.find('\0') != std::string::npos) return false;
    const std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return false;
    const std::string scheme = part(parsed.get(), CURLUPART_SCHEME);  // libcurl lower-cases it
    if (scheme != "http" && scheme != "https") return false;
    return !part(parsed.get(), CURLUPART_HOST).empty();
}

}  // namespace vantorix
