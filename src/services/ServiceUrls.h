#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "services/ServiceConfiguration.h"

namespace vantorix::services {

// The configured base URL, without trailing "/", followed by `path`; nothing when there is no base
// URL or it is not an http or https URL with a host.
std::optional<std::string> serviceUrl(const ServiceConfiguration& configuration, std::string_view path);

}  // namespace vantorix::services
