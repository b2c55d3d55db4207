#include "protocol/SmartctlHelperProtocol.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <exception>
#include <limits>

#include "json/JsonText.h"
#include "protocol/Base64.h"

namespace vantorix::protocol {
namespace {

using json = nlohmann::json;
// What is sent keeps its members in the order written: {"method":…,"device":…}.
using ordered_json = nlohmann::ordered_json;

// Text that crosses the connection may hold bytes that are not UTF-8 (a device name from a
// hostile client, a description quoting one); they are replaced rather than refused.
std::string dumped(const ordered_json& document) { return jsonText(document, -1); }

// Reads a document without building it and fails at its first value nested deeper than the
// limit: the parser itself would follow any depth, with a node allocated for every level.
class DepthCheck {
public:
    explicit DepthCheck(std::size_t maximum) : maximum_(maximum) {}
    bool null() { return true; }
    bool boolean(bool) { return true; }
    bool number_integer(json::number_integer_t) { return true; }
    bool number_unsigned(json::number_unsigned_t) { return true; }
    bool number_float(json::number_float_t, const json::string_t&) { return true; }
    bool string(json::string_t&) { return true; }
    bool binary(json::binary_t&) { return true; }
    bool key(json::string_t&) { return true; }
    bool start_object(std::size_t) { return ++depth_ <= maximum_; }
    bool end_object() { return --depth_, true; }
    bool start_array(std::size_t) { return ++depth_ <= maximum_; }
    bool end_array() { return --depth_, true; }
    bool parse_error(std::size_t, const std::string&, const json::exception&) { return false; }

private:
    std::size_t maximum_;
    std::size_t depth_ = 0;
};

std::optional<json> parsedObject(std::string_view payload, std::optional<std::size_t> maximumDepth = std::nullopt) {
    try {
        if (maximumDepth) {
            DepthCheck check(*maximumDepth);
            if (!json::sax_parse(payload.begin(), payload.end(), &check)) return std::nullopt;
        }
        json document = json::parse(payload.begin(), payload.end(), nullptr, /*allow_exceptions=*/false);
        if (document.is_object()) return document;
    } catch (const std::exception&) {
        // Malformed text is reported without exceptions; what is left is running out of memory.
    }
    return std::nullopt;
}

const json* member(const json& object, std::string_view name) {
    const auto found = object.find(name);
    return found == object.end() ? nullptr : &*found;
}

const std::string* stringMember(const json& object, std::string_view name) {
    const json* value = member(object, name);
    return value != nullptr && value->is_string() ? &value->get_ref<const std::string&>() : nullptr;
}

ordered_json archived(const SmartctlExecutionResult& result) {
    return ordered_json{{"jsonData", base64Encoded(result.jsonData)},
                        {"commandDescription", result.commandDescription},
                        {"standardError", base64Encoded(result.standardError)},
                        {"terminationStatus", result.terminationStatus}};
}

// The record, when the three required members are there with their types and an optional
// "terminationStatus" is a 32-bit integer.
std::optional<SmartctlExecutionResult> unarchived(const json& object) {
    if (!object.is_object()) return std::nullopt;
    const std::string* jsonData = stringMember(object, "jsonData");
    const std::string* command = stringMember(object, "commandDescription");
    const std::string* standardError = stringMember(object, "standardError");
    if (jsonData == nullptr || command == nullptr || standardError == nullptr) return std::nullopt;
    auto output = base64Decoded(*jsonData);
    auto errors = base64Decoded(*standardError);
    if (!output || !errors) return std::nullopt;
    SmartctlExecutionResult result{std::move(*output), *command, std::move(*errors), 0};
    if (const json* status = member(object, "terminationStatus")) {
        if (!status->is_number_integer()) return std::nullopt;
        const auto value = status->get<std::int64_t>();
        if (status->is_number_unsigned() && status->get<std::uint64_t>() > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
        if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max()) {
            return std::nullopt;
        }
        result.terminationStatus = static_cast<std::int32_t>(value);
    }
    return result;
}

}  // namespace

std::string socketPathFromEnvironment() {
    const char* value = std::getenv(std::string(kSocketEnvironmentVariable).c_str());
    if (value != nullptr && *value != '\0') return value;
    return std::string(kDefaultSocketPath);
}

std::string framed(std::string_view payload) {
    const auto length = static_cast<std::uint32_t>(payload.size());
    std::string frame;
    frame.reserve(kFrameHeaderBytes + payload.size());
    for (unsigned shift : {24U, 16U, 8U, 0U}) frame += static_cast<char>(length >> shift & 0xFFU);
    frame.append(payload);
    return frame;
}

std::optional<std::size_t> payloadLength(const unsigned char (&header)[kFrameHeaderBytes], std::size_t maximum) {
    std::size_t length = 0;
    for (const unsigned char byte : header) length = length << 8U | byte;
    if (length > maximum) return std::nullopt;
    return length;
}

HelperError helperError(HelperFailure failure, std::string description) {
    return HelperError{std::string(kHelperErrorDomain), static_cast<std::int64_t>(failure), std::move(description)};
}

std::string encodedRequest(const Request& request) {
    if (const auto* fetch = std::get_if<FetchRequest>(&request)) {
        return dumped(ordered_json{{"method", kFetchMethod}, {"device", fetch->deviceName}});
    }
    return dumped(ordered_json{{"method", kVersionMethod}});
}

std::optional<ParsedRequest> parsedRequest(std::string_view payload) {
    if (payload.size() > kMaximumRequestBytes) return std::nullopt;
    const auto document = parsedObject(payload, kMaximumRequestDepth);
    if (!document) return std::nullopt;
    const std::string* method = stringMember(*document, "method");
    if (method == nullptr) {
        return ParsedRequest(helperError(HelperFailure::malformedRequest, "The request names no method."));
    }
    if (*method == kVersionMethod) return ParsedRequest(Request(VersionRequest{}));
    if (*method == kFetchMethod) {
        const std::string* name = stringMember(*document, "device");
        if (name == nullptr) {
            return ParsedRequest(helperError(HelperFailure::malformedRequest,
                                             "The request gives no device name (\"device\" must be a string)."));
        }
        return ParsedRequest(Request(FetchRequest{*name}));
    }
    return ParsedRequest(helperError(HelperFailure::unknownMethod, "Unknown method \"" + *method +
                                                                       "\"; the helper answers \"" +
                                                                       std::string(kFetchMethod) + "\" and \"" +
                                                                       std::string(kVersionMethod) + "\"."));
}

std::string encodedReply(const Reply& reply) {
    if (const auto* result = std::get_if<SmartctlExecutionResult>(&reply)) {
        return dumped(ordered_json{{"result", archived(*result)}});
    }
    if (const auto* version = std::get_if<VersionReply>(&reply))
        return dumped(ordered_json{{"version", version->version}});
    const auto& error = std::get<HelperError>(reply);
    return dumped(
        ordered_json{{"error", {{"domain", error.domain}, {"code", error.code}, {"description", error.description}}}});
}

std::optional<Reply> parsedReply(std::string_view payload) {
    const auto document = parsedObject(payload);
    if (!document) return std::nullopt;
    if (const json* result = member(*document, "result")) {
        if (auto record = unarchived(*result)) return Reply(std::move(*record));
        return std::nullopt;
    }
    if (const std::string* version = stringMember(*document, "version")) return Reply(VersionReply{*version});
    if (const json* error = member(*document, "error"); error != nullptr && error->is_object()) {
        const std::string* domain = stringMember(*error, "domain");
        const json* code = member(*error, "code");
        if (domain == nullptr || code == nullptr || !code->is_number_integer()) return std::nullopt;
        const std::string* description = stringMember(*error, "description");
        return Reply(HelperError{*domain, code->get<std::int64_t>(), description != nullptr ? *description : ""});
    }
    return std::nullopt;
}

}  // namespace vantorix::protocol
