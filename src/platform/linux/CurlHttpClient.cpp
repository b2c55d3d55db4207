#include "platform/linux/CurlHttpClient.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include "platform/WebUrl.h"
#include "text/Language.h"

namespace vantorix {

namespace {

using Kind = HttpError::Kind;

constexpr long kMaximumRedirects = 10;
constexpr std::chrono::milliseconds kConnectTimeout{15'000};
// A download that brings less than kStalledBytesPerSecond for kStalledSeconds is given up.
constexpr long kStalledBytesPerSecond = 1;
constexpr long kStalledSeconds = 60;
constexpr std::size_t kMaximumBodyBytes = static_cast<std::size_t>(HttpClient::kMaximumBodyBytes);
constexpr const char* kAllowedProtocols = "http,https";
constexpr const char* kUserAgent = "Vantorix";

// libcurl's global state is set up once, by whichever thread gets here first, and kept for the life
// of the process. A failure shows up as curl_easy_init() returning nothing.
void initializeCurl() {
    static const CURLcode result = curl_global_init(CURL_GLOBAL_DEFAULT);
    static_cast<void>(result);
}

struct EasyCleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using EasyHandle = std::unique_ptr<CURL, EasyCleanup>;

struct SlistCleanup {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, SlistCleanup>;

std::string errnoText(int code) {
    char buffer[256] = {};
    // The GNU strerror_r, which returns the text (not always in `buffer`).
    return strerror_r(code, buffer, sizeof buffer);
}

// "text (detail)", with full-width parentheses in Chinese.
std::string withDetail(std::string_view chinese, std::string_view english, std::string_view detail) {
    std::string text = text::localized(chinese, english);
    if (detail.empty()) return text;
    return text + text::localized("（", " (") + std::string(detail) + text::localized("）", ")");
}

HttpError invalidUrlError() { return {Kind::invalidUrl, text::localized("网址无效", "The URL is not valid")}; }

HttpError tooLargeError() {
    return {Kind::tooLarge, text::localized("服务器的回应过大", "The server's answer is too large")};
}

HttpError badStatusError(long status) {
    const std::string number = std::to_string(status);
    return {Kind::badStatus, text::localized("服务器返回状态 " + number, "The server answered with status " + number)};
}

HttpError preparationError() {
    return {Kind::other, text::localized("无法准备请求", "The request could not be prepared")};
}

HttpError errorFor(CURLcode code, const char* errorBuffer) {
    const std::string_view detail = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(code);
    switch (code) {
        // The URL itself was checked before the transfer, so these come from a redirect.
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            return {Kind::invalidUrl,
                    text::localized("服务器转向了不允许的网址", "The server redirected to a URL that is not allowed")};
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_COULDNT_CONNECT:
        case CURLE_INTERFACE_FAILED:
        case CURLE_PROXY:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_ENGINE_NOTFOUND:
        case CURLE_SSL_ENGINE_SETFAILED:
        case CURLE_SSL_ENGINE_INITFAILED:
            return {Kind::connectionFailed, withDetail("无法连接到服务器", "Could not connect to the server", detail)};
        case CURLE_PARTIAL_FILE:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_GOT_NOTHING:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
            return {Kind::connectionFailed,
                    text::localized("与服务器的连接中断", "The connection to the server broke off")};
        case CURLE_OPERATION_TIMEDOUT: return {Kind::timedOut, text::localized("请求超时", "The request timed out")};
        case CURLE_FILESIZE_EXCEEDED: return tooLargeError();
        case CURLE_TOO_MANY_REDIRECTS:
            return {Kind::other, text::localized("重定向次数过多", "The server redirected too many times")};
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
            return {Kind::other, withDetail("服务器的回应无效", "The server's answer is not valid", detail)};
        default: return {Kind::other, withDetail("请求失败", "The request failed", detail)};
    }
}

bool isValidHeaderName(std::string_view name) {
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char c) {
        return c == ':' || c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0';
    });
}

bool isValidHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool appendHeader(HeaderList& list, const std::string& line) {
    curl_slist* grown = curl_slist_append(list.get(), line.c_str());
    if (grown == nullptr) return false;  // the old list is left as it was
    static_cast<void>(list.release());
    list.reset(grown);
    return true;
}

// Collects the first failure of a series of curl_easy_setopt calls.
class Options {
public:
    explicit Options(CURL* handle) : handle_(handle) {}

    template <class Value>
    Options& set(CURLoption option, Value value) {
        if (ok_) ok_ = curl_easy_setopt(handle_, option, value) == CURLE_OK;
        return *this;
    }
    bool ok() const { return ok_; }

private:
    CURL* handle_;
    bool ok_ = true;
};

void setCommonOptions(Options& options, const std::string& url, char* errorBuffer,
                      std::chrono::milliseconds connectTimeout) {
    options.set(CURLOPT_URL, url.c_str())
        .set(CURLOPT_NOSIGNAL, 1L)
        .set(CURLOPT_PROTOCOLS_STR, kAllowedProtocols)
        .set(CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols)
        .set(CURLOPT_FOLLOWLOCATION, 1L)
        .set(CURLOPT_MAXREDIRS, kMaximumRedirects)
        .set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectTimeout.count()))
        .set(CURLOPT_USERAGENT, kUserAgent)
        .set(CURLOPT_ERRORBUFFER, errorBuffer);
}

long responseStatus(CURL* handle) {
    long status = 0;
    if (curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) return 0;
    return status;
}

bool isSuccess(long status) { return status >= 200 && status <= 299; }

// --- Bodies held in memory -------------------------------------------------------------------

struct MemorySink {
    std::string body;
    bool overflowed = false;
};

size_t writeToMemory(char* data, size_t size, size_t count, void* context) {
    auto& sink = *static_cast<MemorySink*>(context);
    const size_t bytes = size * count;  // libcurl always passes size 1
    if (bytes > kMaximumBodyBytes - sink.body.size()) {
        sink.overflowed = true;
        return 0;  // any other count than `bytes` ends the transfer
    }
    const size_t needed = sink.body.size() + bytes;
    // Grow geometrically, but never past the cap: the string's buffer stays within it too.
    if (needed > sink.body.capacity())
        sink.body.reserve(std::min(std::max(needed, sink.body.capacity() * 2), kMaximumBodyBytes));
    sink.body.append(data, bytes);
    return bytes;
}

// --- Downloads -------------------------------------------------------------------------------

// A new hidden file in the destination folder that is removed again unless kept.
class TemporaryFile {
public:
    TemporaryFile() = default;
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }

    // Creates the file (mode 0600, O_EXCL); the errno on failure.
    int create(const std::string& directory) {
        path_ = (std::filesystem::path(directory) / ".vantorix-download-XXXXXX").string();
        fd_ = ::mkostemp(path_.data(), O_CLOEXEC);
        if (fd_ >= 0) return 0;
        const int error = errno;
        path_.clear();
        return error;
    }

    int fd() const { return fd_; }
    const std::string& path() const { return path_; }

    // Makes the file readable like any other download, flushes and closes it; the errno on failure.
    int finish() {
        int error = 0;
        if (::fchmod(fd_, 0644) != 0) error = errno;
        if (error == 0 && ::fsync(fd_) != 0 && errno != EINVAL) error = errno;
        if (::close(fd_) != 0 && error == 0) error = errno;
        fd_ = -1;
        return error;
    }

    // Leaves the file in place for the caller.
    std::string keep() { return std::exchange(path_, std::string()); }

private:
    int fd_ = -1;
    std::string path_;
};

struct FileSink {
    CURL* handle = nullptr;
    int fd = -1;
    int error = 0;               // errno of a failed write
    bool refusedStatus = false;  // the answer's status is not a success; its body is not wanted
};

size_t writeToFile(char* data, size_t size, size_t count, void* context) {
    auto& sink = *static_cast<FileSink*>(context);
    if (!isSuccess(responseStatus(sink.handle))) {
        sink.refusedStatus = true;
        return 0;
    }
    const size_t bytes = size * count;
    size_t written = 0;
    while (written < bytes) {
        const ssize_t n = ::write(sink.fd, data + written, bytes - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            sink.error = n < 0 ? errno : EIO;
            return 0;
        }
        written += static_cast<size_t>(n);
    }
    return bytes;
}

HttpError fileError(std::string_view chinese, std::string_view english, int code) {
    return {Kind::fileError, withDetail(chinese, english, errnoText(code))};
}

std::optional<std::string> suggestedFileName(CURL* handle) {
    curl_header* header = nullptr;
    // Request -1: the last answer, the one that came after every redirect.
    if (curl_easy_header(handle, "Content-Disposition", 0, CURLH_HEADER, -1, &header) != CURLHE_OK ||
        header == nullptr || header->value == nullptr)
        return std::nullopt;
    return fileNameFromContentDisposition(header->value);
}

// --- Content-Disposition -------------------------------------------------------------------

bool isSpace(char c) { return c == ' ' || c == '\t'; }

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// charset'language'percent-encoded, for UTF-8 and ISO-8859-1.
std::optional<std::string> decodeExtendedValue(std::string_view value) {
    const size_t firstQuote = value.find('\'');
    if (firstQuote == std::string_view::npos) return std::nullopt;
    const size_t secondQuote = value.find('\'', firstQuote + 1);
    if (secondQuote == std::string_view::npos) return std::nullopt;
    const std::string charset(value.substr(0, firstQuote));
    const bool latin1 = strcasecmp(charset.c_str(), "iso-8859-1") == 0;
    if (!latin1 && strcasecmp(charset.c_str(), "utf-8") != 0) return std::nullopt;

    std::string decoded;
    const std::string_view encoded = value.substr(secondQuote + 1);
    for (size_t i = 0; i < encoded.size(); ++i) {
        auto byte = static_cast<unsigned char>(encoded[i]);
        if (byte == '%') {
            if (i + 2 >= encoded.size()) return std::nullopt;
            const int high = hexValue(encoded[i + 1]);
            const int low = hexValue(encoded[i + 2]);
            if (high < 0 || low < 0) return std::nullopt;
            byte = static_cast<unsigned char>(high * 16 + low);
            i += 2;
        }
        if (latin1 && byte >= 0x80) {
            decoded += static_cast<char>(0xC0 | (byte >> 6));
            decoded += static_cast<char>(0x80 | (byte & 0x3F));
        } else {
            decoded += static_cast<char>(byte);
        }
    }
    return decoded;
}

}  // namespace

std::optional<std::string> fileNameFromContentDisposition(std::string_view value) {
    std::optional<std::string> plain;
    std::optional<std::string> extended;
    size_t i = value.find(';');  // the disposition type ("attachment") comes first
    while (i < value.size()) {
        ++i;  // past ';'
        while (i < value.size() && isSpace(value[i])) ++i;
        const size_t nameStart = i;
        while (i < value.size() && value[i] != '=' && value[i] != ';') ++i;
        std::string_view name = value.substr(nameStart, i - nameStart);
        while (!name.empty() && isSpace(name.back())) name.remove_suffix(1);
        if (i >= value.size() || value[i] == ';') continue;  // a parameter without a value
        ++i;                                                 // past '='
        while (i < value.size() && isSpace(value[i])) ++i;

        std::string parameter;
        if (i < value.size() && value[i] == '"') {
            for (++i; i < value.size() && value[i] != '"'; ++i) {
                if (value[i] == '\\' && i + 1 < value.size()) ++i;
                parameter += value[i];
            }
            while (i < value.size() && value[i] != ';') ++i;  // past the closing quote and anything after
        } else {
            const size_t start = i;
            while (i < value.size() && value[i] != ';') ++i;
            std::string_view token = value.substr(start, i - start);
            while (!token.empty() && isSpace(token.back())) token.remove_suffix(1);
            parameter = token;
        }

        const std::string lowerName = [&] {
            std::string lowered(name);
            for (char& c : lowered) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
            return lowered;
        }();
        if (lowerName == "filename" && !plain) plain = std::move(parameter);
        else if (lowerName == "filename*" && !extended) extended = decodeExtendedValue(parameter);
    }
    if (extended && !extended->empty()) return extended;
    if (plain && !plain->empty()) return plain;
    return std::nullopt;
}

CurlHttpClient::CurlHttpClient() { initializeCurl(); }

Result<HttpResponse, HttpError> CurlHttpClient::send(const HttpRequest& request) {
    if (!isWebUrl(request.url)) return Failure{invalidUrlError()};
    const EasyHandle handle(curl_easy_init());
    if (!handle) return Failure{preparationError()};

    HeaderList headers;
    for (const auto& [name, value] : request.headers) {
        if (!isValidHeaderName(name) || !isValidHeaderValue(value))
            return Failure{HttpError{Kind::other, text::localized("请求头无效", "A request header is not valid")}};
        // "Name;" is libcurl's way of sending a header with an empty value.
        std::string line = name + (value.empty() ? ";" : ": ");
        line += value;
        if (!appendHeader(headers, line)) return Failure{preparationError()};
    }

    // A time-out of zero would mean none at all to libcurl; the shortest one is meant.
    const std::chrono::milliseconds timeout = std::max(request.timeout, std::chrono::milliseconds(1));
    char errorBuffer[CURL_ERROR_SIZE] = {};
    MemorySink sink;
    Options options(handle.get());
    setCommonOptions(options, request.url, errorBuffer, std::min(kConnectTimeout, timeout));
    options
        .set(CURLOPT_TIMEOUT_MS, static_cast<long>(std::min<std::chrono::milliseconds::rep>(timeout.count(), LONG_MAX)))
        .set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaximumBodyBytes))
        .set(CURLOPT_WRITEFUNCTION, &writeToMemory)
        .set(CURLOPT_WRITEDATA, &sink);
    if (request.method == HttpRequest::Method::post) {
        // Servers that do not know "Expect: 100-continue" would otherwise hold large bodies up.
        if (!appendHeader(headers, "Expect:")) return Failure{preparationError()};
        options.set(CURLOPT_POST, 1L)
            .set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()))
            .set(CURLOPT_POSTFIELDS, request.body.data());
    }
    options.set(CURLOPT_HTTPHEADER, headers.get());
    if (!options.ok()) return Failure{preparationError()};

    const CURLcode code = curl_easy_perform(handle.get());
    if (sink.overflowed) return Failure{tooLargeError()};
    if (code != CURLE_OK) return Failure{errorFor(code, errorBuffer)};
    return HttpResponse{responseStatus(handle.get()), std::move(sink.body)};
}

Result<HttpDownload, HttpError> CurlHttpClient::download(const std::string& url, const std::string& directory) {
    if (!isWebUrl(url)) return Failure{invalidUrlError()};
    const EasyHandle handle(curl_easy_init());
    if (!handle) return Failure{preparationError()};

    TemporaryFile file;
    if (const int error = file.create(directory); error != 0)
        return Failure{fileError("无法创建下载文件", "Could not create the download file", error)};

    char errorBuffer[CURL_ERROR_SIZE] = {};
    FileSink sink{.handle = handle.get(), .fd = file.fd()};
    Options options(handle.get());
    setCommonOptions(options, url, errorBuffer, kConnectTimeout);
    options.set(CURLOPT_LOW_SPEED_LIMIT, kStalledBytesPerSecond)
        .set(CURLOPT_LOW_SPEED_TIME, kStalledSeconds)
        .set(CURLOPT_WRITEFUNCTION, &writeToFile)
        .set(CURLOPT_WRITEDATA, &sink);
    if (!options.ok()) return Failure{preparationError()};

    const CURLcode code = curl_easy_perform(handle.get());
    const long status = responseStatus(handle.get());
    if (sink.refusedStatus) return Failure{badStatusError(status)};
    if (sink.error != 0) return Failure{fileError("无法写入下载文件", "Could not write the download file", sink.error)};
    if (code != CURLE_OK) return Failure{errorFor(code, errorBuffer)};
    if (!isSuccess(status)) return Failure{badStatusError(status)};
    if (const int error = file.finish(); error != 0)
        return Failure{fileError("无法写入下载文件", "Could not write the download file", error)};

    HttpDownload result;
    result.status = status;
    result.suggestedFileName = suggestedFileName(handle.get());
    char* effectiveUrl = nullptr;
    if (curl_easy_getinfo(handle.get(), CURLINFO_EFFECTIVE_URL, &effectiveUrl) == CURLE_OK && effectiveUrl != nullptr)
        result.finalUrl = effectiveUrl;
    else result.finalUrl = url;
    result.temporaryPath = file.keep();
    return result;
}

}  // namespace vantorix
