#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix::protocol {
namespace {

TEST(HelperFrames, AnnounceTheirLengthBigEndianAndRefuseMoreThanTheirCap) {
    EXPECT_EQ(framed("{}"), std::string("\0\0\0\x02{}", 6));
    struct Case {
        unsigned char header[kFrameHeaderBytes];
        std::size_t cap;
        std::optional<std::size_t> length;
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 0}, kMaximumFrameBytes, 0},
        {{0, 0x80, 0, 0}, kMaximumFrameBytes, kMaximumFrameBytes},
        {{0, 0x80, 0, 1}, kMaximumFrameBytes, std::nullopt},
        {{0xFF, 0xFF, 0xFF, 0xFF}, kMaximumFrameBytes, std::nullopt},
        {{0, 0, 0x10, 0}, kMaximumRequestBytes, kMaximumRequestBytes},
        {{0, 0, 0x10, 1}, kMaximumRequestBytes, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(payloadLength(c.header, c.cap), c.length);
}

// What a payload parses into: "version", "fetch <device>", "error <code>", or "nothing".
std::string parsedAs(const std::string& payload) {
    const auto parsed = parsedRequest(payload);
    if (!parsed) return "nothing";
    if (const auto* error = std::get_if<HelperError>(&*parsed)) {
        EXPECT_EQ(error->domain, kHelperErrorDomain);
        EXPECT_FALSE(error->description.empty());
        return "error " + std::to_string(error->code);
    }
    const auto* fetch = std::get_if<FetchRequest>(&std::get<Request>(*parsed));
    return fetch ? "fetch " + fetch->deviceName : "version";
}

TEST(HelperRequests, ParseIntoRequestsErrorsOrNothing) {
    const std::string padded = R"({"method":"helperVersion","x":")";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {encodedRequest(FetchRequest{"sda"}), "fetch sda"},
        {encodedRequest(VersionRequest{}), "version"},
        // As deep (an object and seven arrays) and as long as allowed, then one more.
        {R"({"method":"helperVersion","x":[[[[[[[1]]]]]]]})", "version"},
        {R"({"method":"helperVersion","x":[[[[[[[[1]]]]]]]]})", "nothing"},
        {R"({"method":"helperVersion","x":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{}}}}}}}}})", "nothing"},
        {padded + std::string(kMaximumRequestBytes - 33, 'x') + "\"}", "version"},
        {padded + std::string(kMaximumRequestBytes - 32, 'x') + "\"}", "nothing"},
        {"[1,2]", "nothing"},
        {"{\"method\":", "nothing"},
        {"", "nothing"},
        {"{}", "error 1"},
        {R"({"method":7})", "error 1"},
        {R"({"method":"fetchSmartData","device":["sda"]})", "error 1"},
        {R"({"method":"runCommand","argv":["rm"]})", "error 2"},
    };
    for (const auto& [payload, outcome] : cases) EXPECT_EQ(parsedAs(payload), outcome) << payload;
}

TEST(HelperReplies, CarryTheArchivedResultAndDecodeOnlyCompleteRecords) {
    const SmartctlExecutionResult result{std::string("{\"a\":1}\n\xff", 9), "smartctl --json -a -n standby /dev/sda",
                                         "warning", 4};
    const std::vector<Reply> replies = {Reply(result), Reply(VersionReply{"0.1.0"}),
                                        Reply(helperError(HelperFailure::timedOut, "too slow"))};
    for (const auto& reply : replies) EXPECT_EQ(parsedReply(encodedReply(reply)), reply);

    // Archived records as a peer might send them: "terminationStatus" may be left out (then 0);
    // the three other members are required, with their types.
    const std::string data = "\"jsonData\":\"e30=\",\"commandDescription\":\"c\",\"standardError\":\"\"";
    struct Case {
        std::string record;
        std::optional<std::int32_t> status;  // nothing: the record does not decode
    };
    const std::vector<Case> cases = {
        {"{" + data + "}", 0},
        {"{" + data + ",\"terminationStatus\":-1}", -1},
        {"{" + data + ",\"terminationStatus\":2147483648}", std::nullopt},
        {R"({"commandDescription":"c","standardError":""})", std::nullopt},
        {R"({"jsonData":"{}","commandDescription":"c","standardError":""})", std::nullopt},
    };
    for (const auto& c : cases) {
        const auto expected = c.status ? std::optional<Reply>(SmartctlExecutionResult{"{}", "c", "", *c.status})
                                       : std::nullopt;
        EXPECT_EQ(parsedReply("{\"result\":" + c.record + "}"), expected) << c.record;
    }
    for (const std::string bad :
         {"{}", R"({"error":{"code":1}})", R"({"error":{"domain":"d","code":"1"}})", "[]", "x"}) {
        EXPECT_FALSE(parsedReply(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace vantorix::protocol
