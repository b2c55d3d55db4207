#pragma once

#include <string_view>

namespace vantorix {

// True for an absolute http or https URL with a host, as libcurl parses it (no white space, no
// control characters, no NUL). The one check every URL passes before it is used: the service's
// base URL, a download URL it offers, and every request the HTTP client makes.
bool isWebUrl(std::string_view url);

}  // namespace vantorix
