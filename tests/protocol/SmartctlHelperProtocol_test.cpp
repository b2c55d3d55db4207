#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "protocol/Base64.h"
#include "protocol/SmartctlHelperProtocol.h"

namespace vantorix::protocol {
namespace {

TEST(Base64, RoundTripsAndRefusesWhatIsNotBase64) {
    const std::vector<std::pair<std::string, std::string>> pairs = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"},
        {std::string("\0\xff\xfe\x80", 4), "AP/+gA=="},
    };
    for (const auto& [bytes, text] : pairs) {
        EXPECT_EQ(base64Encoded(bytes), text);
        EXPECT_EQ(base64Decoded(text), bytes) << text;
    }
    for (const std::string bad : {"Zg=", "Zg", "Z===", "Zm=v", "Zm9v\n", "Zm9v Zm9v", "Zm9-", "====", "Zg==Zm9v"}) {
        EXPECT_FALSE(base64Decoded(bad).has_value()) << bad;
    }
}

TEST(HelperFrames, AnnounceTheirLengthBigEndianAndRefuseMoreThanTheirCap) {
    const std::string frame = framed("{}");
    EXPECT_EQ(frame, std::string("\0\0\0\x02{}", 6));
    struct Case {
        std::vector<unsigned char> header;
        std::size_t cap;
        std::optional<std::size_t> length;
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 0}, kMaximumFrameBytes, 0},
        {{0, 0x80, 0, 0}, kMaximumFrameBytes, kMaximumFrameBytes},
        {{0, 0x80, 0, 1}, kMaximumFrameBytes, std::nullopt},
        {{0xFF, 0xFF, 0xFF, 0xFF}, kMaximumFrameBytes, std::nullopt},
        {{0, 1, 2, 3}, kMaximumFrameBytes, 0x010203},
        {{0, 0, 0x10, 0}, kMaximumRequestBytes, kMaximumRequestBytes},
        {{0, 0, 0x10, 1}, kMaximumRequestBytes, std::nullopt},
    };
    for (const auto& c : cases) {
        unsigned char header[kFrameHeaderBytes];
        std::copy(c.header.begin(), c.header.end(), header);
        EXPECT_EQ(payloadLength(header, c.cap), c.length);
    }
}

TEST(HelperRequests, ParseIntoRequestsErrorsOrNothing) {
    EXPECT_EQ(encodedRequest(FetchRequest{"sda"}), R"({"method":"fetchSmartData","device":"sda"})");
    EXPECT_EQ(encodedRequest(VersionRequest{}), R"({"method":"helperVersion"})");
    EXPECT_EQ(parsedRequest(encodedRequest(FetchRequest{"sda"})), ParsedRequest(Request(FetchRequest{"sda"})));
    EXPECT_EQ(parsedRequest(encodedRequest(VersionRequest{})), ParsedRequest(Request(VersionRequest{})));
    // Nested as deep as allowed (an object and seven arrays), at most as long as allowed.
    const std::string deepest = R"({"method":"helperVersion","x":[[[[[[[1]]]]]]]})";
    EXPECT_EQ(parsedRequest(deepest), ParsedRequest(Request(VersionRequest{})));
    const std::string longest = R"({"method":"helperVersion","x":")" + std::string(kMaximumRequestBytes - 33, 'x') + "\"}";
    EXPECT_EQ(parsedRequest(longest), ParsedRequest(Request(VersionRequest{})));
    struct Case {
        std::string payload;
        std::optional<HelperFailure> failure;  // nothing: not a request at all
    };
    const std::vector<Case> cases = {
        {R"({"method":"helperVersion","x":[[[[[[[[1]]]]]]]]})", std::nullopt},
        {R"({"method":"helperVersion","x":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{}}}}}}}}})", std::nullopt},
        {R"({"method":"helperVersion","x":")" + std::string(kMaximumRequestBytes - 32, 'x') + "\"}", std::nullopt},
        {"[1,2]", std::nullopt},
        {"\"sda\"", std::nullopt},
        {"{\"method\":", std::nullopt},
        {"", std::nullopt},
        {"{}", HelperFailure::malformedRequest},
        {R"({"method":7})", HelperFailure::malformedRequest},
        {R"({"method":"fetchSmartData"})", HelperFailure::malformedRequest},
        {R"({"method":"fetchSmartData","device":["sda"]})", HelperFailure::malformedRequest},
        {R"({"method":"runCommand","argv":["rm"]})", HelperFailure::unknownMethod},
    };
    for (const auto& c : cases) {
        const auto parsed = parsedRequest(c.payload);
        if (!c.failure) {
            EXPECT_FALSE(parsed.has_value()) << c.payload;
            continue;
        }
        ASSERT_TRUE(parsed.has_value()) << c.payload;
        const auto* error = std::get_if<HelperError>(&*parsed);
        ASSERT_NE(error, nullptr) << c.payload;
        EXPECT_EQ(error->domain, "com.vantorix.PrivilegedSmartctlHelper.error");
        EXPECT_EQ(error->code, static_cast<std::int64_t>(*c.failure)) << c.payload;
        EXPECT_FALSE(error->description.empty());
    }
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
        {"{" + data + ",\"terminationStatus\":\"2\"}", std::nullopt},
        {R"({"jsonData":"e30=","commandDescription":"c"})", std::nullopt},
        {R"({"jsonData":"e30=","standardError":""})", std::nullopt},
        {R"({"commandDescription":"c","standardError":""})", std::nullopt},
        {R"({"jsonData":"{}","commandDescription":"c","standardError":""})", std::nullopt},
        {R"({"jsonData":"e30=","commandDescription":5,"standardError":""})", std::nullopt},
        {"[]", std::nullopt},
    };
    for (const auto& c : cases) {
        const auto reply = parsedReply("{\"result\":" + c.record + "}");
        if (!c.status) {
            EXPECT_FALSE(reply.has_value()) << c.record;
            continue;
        }
        ASSERT_TRUE(reply.has_value()) << c.record;
        EXPECT_EQ(std::get<SmartctlExecutionResult>(*reply), (SmartctlExecutionResult{"{}", "c", "", *c.status}));
    }
    for (const std::string bad : {"{}", R"({"error":{"code":1}})", R"({"error":{"domain":"d","code":"1"}})", "[]", "x"}) {
        EXPECT_FALSE(parsedReply(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace vantorix::protocol
