#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "protocol/SmartctlExecutionResult.h"

// The conversation between Vantorix and its privileged SMART helper over a Unix stream socket.
//
// Both directions carry frames: a 4-byte big-endian length, then that many bytes of one UTF-8 JSON
// object. A reply may take up to kMaximumFrameBytes (smartctl's output); a request, a method and a
// device name, up to kMaximumRequestBytes, nested at most kMaximumRequestDepth deep. A frame over its
// cap, or one that is not a JSON object, ends the connection. One connection carries any number of
// requests; replies come back in request order.
//
//   requests:  {"method":"fetchSmartData","device":"sda"}   {"method":"helperVersion"}
//   replies:   {"result":{archived SmartctlExecutionResult}}   {"version":"0.1.0"}
//              {"error":{"domain":"com.vantorix.PrivilegedSmartctlHelper.error","code":N,"description":"…"}}
namespace vantorix::protocol {

inline constexpr std::string_view kHelperErrorDomain = "com.vantorix.PrivilegedSmartctlHelper.error";
inline constexpr std::string_view kFetchMethod = "fetchSmartData";
inline constexpr std::string_view kVersionMethod = "helperVersion";

// Where the helper listens unless VANTORIX_HELPER_SOCKET names another socket.
inline constexpr std::string_view kDefaultSocketPath = "/run/vantorix/smartctl-helper.sock";
inline constexpr std::string_view kSocketEnvironmentVariable = "VANTORIX_HELPER_SOCKET";
// The socket path in force: VANTORIX_HELPER_SOCKET when set and not empty, else the default.
std::string socketPathFromEnvironment();

inline constexpr std::size_t kFrameHeaderBytes = 4;
inline constexpr std::size_t kMaximumFrameBytes = std::size_t{8} * 1024 * 1024;
// A request is about 50 bytes; a device name has at most 64 characters. What a client sends is
// parsed into a tree that takes some 40 times the text, so the cap keeps that tree small.
inline constexpr std::size_t kMaximumRequestBytes = std::size_t{4} * 1024;
// A request is one object of strings (depth 1); a few levels more leave room to grow.
inline constexpr std::size_t kMaximumRequestDepth = 8;

// The header and payload of one frame. The payload must not exceed kMaximumFrameBytes.
std::string framed(std::string_view payload);
// The payload length a header announces; nothing when it exceeds `maximum`.
std::optional<std::size_t> payloadLength(const unsigned char (&header)[kFrameHeaderBytes],
                                         std::size_t maximum = kMaximumFrameBytes);

// An error as it crosses the connection: a domain, a code within it and a readable description.
struct HelperError {
    std::string domain;
    std::int64_t code = 0;
    std::string description;

    friend bool operator==(const HelperError&, const HelperError&) = default;
};

// The helper's own failures, each a code of kHelperErrorDomain.
enum class HelperFailure : std::int64_t {
    malformedRequest = 1,  // a JSON object that is not a request: no method, wrong member types
    unknownMethod = 2,
    invalidDeviceName = 3,  // not a bare kernel device name
    deviceNotFound = 4,     // no such block or NVMe device, or its /dev node is not a device
    launchFailed = 5,       // smartctl could not be started
    timedOut = 6,           // smartctl did not finish in time and was killed
    outputTooLarge = 7,     // smartctl wrote more than the helper keeps; it was stopped
    busy = 8,               // too many requests are waiting
    deviceStuck = 9,        // an earlier smartctl run on the device cannot be ended
    internalFailure = 10,
};

HelperError helperError(HelperFailure failure, std::string description);

struct FetchRequest {
    std::string deviceName;
    friend bool operator==(const FetchRequest&, const FetchRequest&) = default;
};
struct VersionRequest {
    friend bool operator==(const VersionRequest&, const VersionRequest&) = default;
};
using Request = std::variant<FetchRequest, VersionRequest>;

std::string encodedRequest(const Request& request);

// A request read from a frame's payload: the request, or the error to answer with. Nothing when
// the payload is not a JSON object at all, is longer than kMaximumRequestBytes or is nested deeper
// than kMaximumRequestDepth (the connection is then closed).
using ParsedRequest = std::variant<Request, HelperError>;
std::optional<ParsedRequest> parsedRequest(std::string_view payload);

struct VersionReply {
    std::string version;
    friend bool operator==(const VersionReply&, const VersionReply&) = default;
};
using Reply = std::variant<SmartctlExecutionResult, VersionReply, HelperError>;

std::string encodedReply(const Reply& reply);
// Nothing when the payload is not one of the three reply shapes.
std::optional<Reply> parsedReply(std::string_view payload);

}  // namespace vantorix::protocol
