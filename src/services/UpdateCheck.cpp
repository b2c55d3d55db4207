#include "services/UpdateCheck.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "concurrency/SerialQueue.h"
#include "platform/WebUrl.h"
#include "services/ServiceUrls.h"
#include "text/Language.h"
#include "text/Messages.h"
#include "text/Trim.h"
#include "text/Utf8.h"

namespace vantorix::services {
namespace {

namespace fs = std::filesystem;
using text::localized;
using text::nextCodePoint;
using text::previousCodePoint;
using text::trimmed;

// The name a download gets when neither the server nor the URL offers a usable one.
constexpr std::string_view kFallbackDownloadName = "vantorix-update";
// The longest file name most Linux file systems take, in bytes.
constexpr std::size_t kMaximumNameBytes = 255;

std::string invalidUpdateUrl() { return localized("更新地址无效", "Invalid update URL"); }

std::string updatedByPackageManager() {
    return localized("此版本通过系统的软件包管理器更新。", "This build is updated by your system's package manager.");
}

UpdateCheckOutcome failed(std::string message) {
    return UpdateCheckOutcome{UpdateCheckOutcome::Status::failed, std::nullopt, std::move(message)};
}

// Reads an optional string member: absent or null is nothing; any other type is an error.
Result<std::optional<std::string>, std::string> optionalString(const nlohmann::json& object, const char* name) {
    const auto member = object.find(name);
    if (member == object.end() || member->is_null()) return std::optional<std::string>();
    if (!member->is_string()) {
        return Failure{
            fmt::format(fmt::runtime(localized("成员“{}”不是字符串", "the member “{}” is not a string")), name)};
    }
    return std::optional<std::string>(member->get<std::string>());
}

// One piece of a version: its value when it is a plain decimal integer (an optional sign, then
// digits), else 0.
long long versionPiece(std::string_view piece) {
    if (!piece.empty() && piece.front() == '+') piece.remove_prefix(1);
    long long value = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), value);
    if (piece.empty() || error != std::errc() || end != piece.data() + piece.size()) return 0;
    return value;
}

std::vector<long long> versionPieces(std::string_view version) {
    std::vector<long long> pieces;
    while (!version.empty()) {
        const auto dot = version.find('.');
        const std::string_view piece = version.substr(0, dot);
        if (!piece.empty()) pieces.push_back(versionPiece(piece));
        if (dot == std::string_view::npos) break;
        version.remove_prefix(dot + 1);
    }
    return pieces;
}

bool isControl(char32_t c) { return c < 0x20 || (c >= 0x7F && c <= 0x9F); }

// `name` as a plain base name: the part after the last "/" or "\", control characters and
// malformed UTF-8 dropped, white space at both ends and leading dots removed, cut to the length
// a file name may have (keeping a short extension). Nothing when no usable name is left.
std::optional<std::string> plainBaseName(std::string_view name) {
    const auto separator = name.find_last_of("/\\");
    if (separator != std::string_view::npos) name.remove_prefix(separator + 1);

    std::string clean;
    for (std::size_t at = 0; at < name.size();) {
        const std::size_t start = at;
        const auto c = nextCodePoint(name, at);
        if (c && !isControl(*c)) clean.append(name.substr(start, at - start));
    }
    clean = std::string(trimmed(clean));
    const auto firstKept = clean.find_first_not_of('.');
    if (firstKept == std::string::npos) return std::nullopt;
    clean = std::string(trimmed(std::string_view(clean).substr(firstKept)));
    if (clean.empty()) return std::nullopt;

    if (clean.size() > kMaximumNameBytes) {
        const auto dot = clean.rfind('.');
        const std::string extension = dot != std::string::npos && clean.size() - dot <= 16 ? clean.substr(dot)
                                                                                           : std::string();
        std::string stem = clean.substr(0, kMaximumNameBytes - extension.size());
        // Cut back to the start of a character: the name is valid UTF-8, so only the cut can be not.
        for (std::size_t end = stem.size(); end > 0 && !previousCodePoint(stem, 0, end);) stem.resize(end);
        clean = stem + extension;
    }
    return clean;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The last component of a URL's path, percent-decoded.
std::string lastPathComponent(std::string_view url) {
    if (const auto end = url.find_first_of("?#"); end != std::string_view::npos) url = url.substr(0, end);
    if (const auto scheme = url.find("://"); scheme != std::string_view::npos) {
        url.remove_prefix(scheme + 3);
        const auto path = url.find('/');
        url = path == std::string_view::npos ? std::string_view() : url.substr(path);
    }
    while (!url.empty() && url.back() == '/') url.remove_suffix(1);
    if (const auto slash = url.rfind('/'); slash != std::string_view::npos) url.remove_prefix(slash + 1);

    std::string decoded;
    for (std::size_t i = 0; i < url.size(); ++i) {
        if (url[i] == '%' && i + 2 < url.size() && hexValue(url[i + 1]) >= 0 && hexValue(url[i + 2]) >= 0) {
            decoded += static_cast<char>(hexValue(url[i + 1]) * 16 + hexValue(url[i + 2]));
            i += 2;
        } else {
            decoded += url[i];
        }
    }
    return decoded;
}

}  // namespace

Result<ProductDTO, std::string> decodeProduct(std::string_view body) {
    const auto document = nlohmann::json::parse(body, nullptr, false);
    if (document.is_discarded()) return Failure{localized("数据不是有效的 JSON", "the data is not valid JSON")};
    if (!document.is_object()) return Failure{localized("数据不是 JSON 对象", "the data is not a JSON object")};

    const auto id = document.find("id");
    if (id == document.end() || id->is_null()) {
        return Failure{localized("缺少必需的成员“id”", "the required member “id” is missing")};
    }
    if (!id->is_string()) {
        return Failure{
            fmt::format(fmt::runtime(localized("成员“{}”不是字符串", "the member “{}” is not a string")), "id")};
    }
    ProductDTO product;
    product.id = id->get<std::string>();
    const std::pair<const char*, std::optional<std::string>*> members[] = {
        {"type", &product.type},
        {"status", &product.status},
        {"downloadType", &product.downloadType},
        {"downloadUrl", &product.downloadUrl},
        {"currentVersion", &product.currentVersion},
    };
    for (const auto& [name, field] : members) {
        auto value = optionalString(document, name);
        if (!value.ok()) return Failure{value.error()};
        *field = std::move(value.value());
    }
    return product;
}

bool isNewerVersion(std::string_view offered, std::string_view running) {
    const auto left = versionPieces(offered);
    const auto right = versionPieces(running);
    for (std::size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
        const long long a = i < left.size() ? left[i] : 0;
        const long long b = i < right.size() ? right[i] : 0;
        if (a != b) return a > b;
    }
    return false;
}

std::optional<std::string> productEndpoint(const ServiceConfiguration& configuration) {
    const std::string_view id = configuration.productId;
    if (id.empty()) return std::nullopt;
    // The identifier becomes one path segment: anything but letters and digits is percent-encoded.
    std::string segment;
    for (const char c : id) {
        const auto byte = static_cast<unsigned char>(c);
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
            c == '.' || c == '~') {
            segment += c;
        } else {
            segment += fmt::format("%{:02X}", byte);
        }
    }
    return serviceUrl(configuration, "/api/products/" + segment);
}

UpdateCheckOutcome checkForUpdate(HttpClient& client, const ServiceConfiguration& configuration,
                                  std::string_view runningVersion) {
    // A build without a service (as distributions build it) is updated with the rest of the system.
    if (configuration.baseUrl.empty()) {
        return UpdateCheckOutcome{UpdateCheckOutcome::Status::packageManaged, std::nullopt, updatedByPackageManager()};
    }
    const auto endpoint = productEndpoint(configuration);
    if (!endpoint) return failed(invalidUpdateUrl());

    HttpRequest request;
    request.url = *endpoint;
    const auto answer = client.send(request);
    if (!answer.ok()) return failed(text::updateCheckFailed(answer.error().description));
    const HttpResponse& response = answer.value();
    if (response.status < 200 || response.status > 299) {
        return failed(text::updateCheckFailed(localized("网络错误", "network error")));
    }

    const auto product = decodeProduct(response.body);
    if (!product.ok()) return failed(text::updateCheckFailed(product.error()));
    const std::string version(trimmed(product->currentVersion.value_or("")));
    const std::string url(trimmed(product->downloadUrl.value_or("")));
    if (version.empty() || url.empty()) return failed(text::updateCheckFailed("invalid payload"));
    if (!isWebUrl(url)) return failed(invalidUpdateUrl());

    if (isNewerVersion(version, runningVersion)) {
        return UpdateCheckOutcome{UpdateCheckOutcome::Status::updateAvailable, UpdatePrompt{Uuid::make(), version, url},
                                  std::nullopt};
    }
    return UpdateCheckOutcome{UpdateCheckOutcome::Status::upToDate, std::nullopt,
                              localized("当前已是最新版本", "Already up to date")};
}

std::string safeDownloadName(const std::optional<std::string>& suggested, std::string_view url) {
    if (suggested) {
        if (auto name = plainBaseName(*suggested)) return *name;
    }
    if (auto name = plainBaseName(lastPathComponent(url))) return *name;
    return std::string(kFallbackDownloadName);
}

Result<std::string, std::string> downloadUpdate(HttpClient& client, const std::string& url, const std::string& folder,
                                                const std::string& stagingFolder) {
    auto fetched = client.download(url, stagingFolder.empty() ? folder : stagingFolder);
    if (!fetched.ok()) return Failure{text::downloadFailed(fetched.error().description)};
    const HttpDownload& download = fetched.value();

    // Like a browser, name the file after the URL that finally answered when the server suggests none.
    const std::string name = safeDownloadName(download.suggestedFileName,
                                              download.finalUrl.empty() ? url : download.finalUrl);
    const std::string target = (fs::path(folder) / name).string();
    // rename() replaces a file of that name in one step, so there is never a moment without one.
    if (std::rename(download.temporaryPath.c_str(), target.c_str()) != 0) {
        const int error = errno;
        (void)std::remove(download.temporaryPath.c_str());  // best effort: the error said is the move's
        return Failure{text::downloadFailed(fmt::format(
            fmt::runtime(localized("无法把下载的文件移到“{}”：{}", "Could not move the downloaded file to “{}”: {}")),
            target, std::generic_category().message(error)))};
    }
    return target;
}

UpdateChecker::UpdateChecker(Dependencies dependencies)
    : dependencies_(std::move(dependencies)),
      queue_(std::make_shared<SerialQueue>("com.vantorix.services.update", QualityOfService::utility)) {}

UpdateChecker::~UpdateChecker() = default;

std::shared_ptr<UpdateChecker> UpdateChecker::create(Dependencies dependencies) {
    return std::shared_ptr<UpdateChecker>(new UpdateChecker(std::move(dependencies)));
}

bool UpdateChecker::checkForUpdate(std::function<void(const UpdateCheckOutcome&)> done) {
    if (checking_) return false;
    checking_ = true;
    // The work holds what it uses, the queue included, and the checker only weakly.
    queue_->async([self = weak_from_this(), queue = queue_, client = dependencies_.client,
                   main = dependencies_.mainExecutor, configuration = dependencies_.configuration,
                   running = dependencies_.runningVersion, done = std::move(done)]() mutable {
        UpdateCheckOutcome outcome = services::checkForUpdate(*client, configuration, running);
        main->post([self, outcome = std::move(outcome), done = std::move(done)] {
            const auto checker = self.lock();
            if (!checker) return;
            checker->checking_ = false;
            if (done) done(outcome);
        });
    });
    return true;
}

void UpdateChecker::download(const UpdatePrompt& prompt, std::string folder,
                             std::function<void(const Result<std::string, std::string>&)> done) {
    queue_->async([self = weak_from_this(), queue = queue_, client = dependencies_.client,
                   main = dependencies_.mainExecutor, url = prompt.url, folder = std::move(folder),
                   done = std::move(done)]() mutable {
        auto result = downloadUpdate(*client, url, folder);
        main->post([self, result = std::move(result), done = std::move(done)] {
            if (self.lock() && done) done(result);
        });
    });
}

}  // namespace vantorix::services
