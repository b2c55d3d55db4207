#include "services/ServiceUrls.h"

#include "platform/WebUrl.h"

namespace vantorix::services {

std::optional<std::string> serviceUrl(const ServiceConfiguration& configuration, std::string_view path) {
    std::string_view base = configuration.baseUrl;
    while (!base.empty() && base.back() == '/') base.remove_suffix(1);
    if (base.empty() || !isWebUrl(base)) return std::nullopt;
    std::string url(base);
    url += path;
    return url;
}

}  // namespace vantorix::services
