#include "services/ServiceConfiguration.h"

#include <cstdlib>

namespace vantorix::services {

ServiceConfiguration ServiceConfiguration::current(
    const std::function<std::optional<std::string>(const char*)>& lookup) {
    const auto read = [&lookup](const char* name, const char* compiledIn) -> std::string {
        std::optional<std::string> value;
        if (lookup) {
            value = lookup(name);
        } else if (const char* set = std::getenv(name)) {
            value = set;
        }
        return value && !value->empty() ? *value : std::string(compiledIn);
    };
    return ServiceConfiguration{read("VANTORIX_SERVICE_URL", VANTORIX_SERVICE_URL),
                                read("VANTORIX_PRODUCT_ID", VANTORIX_PRODUCT_ID),
                                read("VANTORIX_CONTACT_LINK", VANTORIX_CONTACT_LINK)};
}

}  // namespace vantorix::services
