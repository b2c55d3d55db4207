#pragma once

#include <functional>
#include <optional>
#include <string>

namespace vantorix::services {

// Where the vendor's web service is and who this product is to it. Each value is compiled in
// (VANTORIX_SERVICE_URL, VANTORIX_PRODUCT_ID, VANTORIX_CONTACT_LINK) and overridden by the
// environment variable of the same name when that is set and not empty.
struct ServiceConfiguration {
    std::string baseUrl;    // e.g. "https://service.example"; empty when none is configured
    std::string productId;  // 25 lower-case letters and digits
    std::string contactLink;

    // The build's values with the environment's overrides (`lookup` reads a variable; the
    // process environment when not given).
    static ServiceConfiguration current(const std::function<std::optional<std::string>(const char*)>& lookup = nullptr);
};

}  // namespace vantorix::services
