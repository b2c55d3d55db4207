#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "helper/DeviceNameValidator.h"
#include "helper/HelperServer.h"
#include "integration/HelperTestClient.h"
#include "platform/SysfsTestSupport.h"

namespace vantorix::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using protocol::HelperFailure;

std::optional<HelperFailure> refusal(std::string_view name, const helper::DeviceRoots& roots) {
    const auto result = helper::validatedDevicePath(name, roots);
    if (result) return std::nullopt;
    EXPECT_EQ(result.error().domain, protocol::kHelperErrorDomain);
    return static_cast<HelperFailure>(result.error().code);
}

TEST(HelperDeviceNames, AcceptsOnlyBareKernelNamesOfDeviceNodesMatchingSysfs) {
    const TreeCopy tree;  // empty at first: the syntax is judged before anything is looked up
    const helper::DeviceRoots roots{(tree / "sys").string(), (tree / "dev").string()};
    fs::create_directories(roots.dev);
    for (const auto& name : std::vector<std::string>{"../sda", "sda/../../etc", "-a", "--scan", "sda;reboot", "sda\n",
                                                     "", std::string(65, 'a'), "sd\xC3\xA4", ".hidden", "sda b",
                                                     std::string("sda\0", 4), "/dev/sda", "$(reboot)"}) {
        EXPECT_EQ(refusal(name, roots), HelperFailure::invalidDeviceName) << helper::sanitizedName(name);
    }
    // The description names the device with its odd bytes spelt out.
    EXPECT_EQ(helper::validatedDevicePath("sda\n", roots).error().description,
              "\"sda\\x0A\" is not a device name: only letters, digits and \"_.:-\" may appear in it.");
    EXPECT_EQ(refusal("a_b.c:d-0", roots), HelperFailure::deviceNotFound);

    if (::geteuid() != 0) GTEST_SKIP() << "needs root to make device nodes with mknod";
    struct Case {
        std::string name, className, sysfsDev;  // sysfsDev empty: not in sysfs
        mode_t type;                            // 0: a regular file; S_IFLNK: a link to sda
        unsigned major, minor;
        std::optional<HelperFailure> refusal;
    };
    const auto notFound = HelperFailure::deviceNotFound;
    const std::vector<Case> cases = {
        {"sda", "block", "8:0\n", S_IFBLK, 8, 0, std::nullopt},
        {std::string(64, 'x'), "block", "8:80\n", S_IFBLK, 8, 80, std::nullopt},
        {"nvme0", "nvme", "240:0\n", S_IFCHR, 240, 0, std::nullopt},
        {"sdb", "block", "8:16\n", S_IFBLK, 8, 17, notFound},       // another device number
        {"sdc", "block", "8:32\n", 0, 0, 0, notFound},              // a regular file
        {"sdd", "block", "8:0\n", S_IFLNK, 0, 0, notFound},         // a symbolic link to sda
        {"sde", "block", "8:64\n", S_IFCHR, 8, 64, notFound},       // not a block device
        {"nvme1", "nvme", "240:1\n", S_IFBLK, 240, 1, notFound},    // not a character device
        {"sdf", "block", "eight:zero\n", S_IFBLK, 8, 0, notFound},  // unreadable device number
        {"onlydev", "block", "", S_IFBLK, 8, 112, notFound},        // in /dev only
    };
    for (const auto& c : cases) {
        const std::string node = roots.dev + "/" + c.name;
        if (!c.sysfsDev.empty()) tree.write("sys/class/" + c.className + "/" + c.name + "/dev", c.sysfsDev);
        if (c.type == 0) std::ofstream(node) << "";
        else if (c.type == S_IFLNK) fs::create_symlink(roots.dev + "/sda", node);
        else ASSERT_EQ(::mknod(node.c_str(), c.type | 0600, makedev(c.major, c.minor)), 0) << node;
    }
    tree.write("sys/class/block/sdg/dev", "8:96\n");  // in sysfs only
    EXPECT_EQ(refusal("sdg", roots), notFound);
    for (const auto& c : cases) {
        EXPECT_EQ(refusal(c.name, roots), c.refusal) << c.name;
        EXPECT_TRUE(c.refusal || *helper::validatedDevicePath(c.name, roots) == roots.dev + "/" + c.name) << c.name;
    }
}

std::string kindOf(const std::optional<protocol::Reply>& reply) {
    if (!reply) return "nothing";
    if (std::holds_alternative<protocol::VersionReply>(*reply)) return "version";
    if (const auto* error = std::get_if<protocol::HelperError>(&*reply)) return "error " + std::to_string(error->code);
    return "result";
}

TEST(HostileClients, FramesOutsideTheProtocolCloseOnlyTheirConnection) {
    // Replies of about 1.3 MiB (base64 of 1 MiB), more than a socket buffer holds.
    auto standIn = SmartctlStandIn::create(printing(""));
    const std::string output = fs::path(standIn->path()).parent_path() / "big.json";
    std::ofstream(output) << std::string(1U << 20U, 'x');
    standIn->setBehaviour(printing(output));
    auto daemon = startHelper(standIn->path(), {"--idle-timeout-ms", "1000"});
    ASSERT_NE(daemon, nullptr);
    const std::string disk = rootDiskName();

    // How a connection ends: closed with nothing sent back, closed with what it was sent left unread,
    // still answering, or left by the client.
    enum class End { closed, closedUnread, open, clientLeaves };
    struct Case {
        std::string what, bytes;
        std::vector<std::string> replies;
        End end;
    };
    const std::string padded = R"({"method":"helperVersion","x":")";
    std::string forty;
    for (int i = 0; i < 40; ++i) forty += versionFrame();
    const std::string refusedNames = fetchFrame("../sda") + fetchFrame("-a") + fetchFrame("sda;reboot") +
                                     fetchFrame("null");
    // Which payloads parse is the protocol's tests'; here, one of each way the daemon meets them.
    const std::vector<Case> cases = {
        {"a request of 4 KiB and a byte", protocol::framed(padded + std::string(4064, 'x') + "\"}"), {}, End::closed},
        {"garbage", protocol::framed(std::string("\xff\xfe\0{garbage", 11)), {}, End::closed},
        {"an empty frame", protocol::framed(""), {}, End::closed},
        {"half a frame", versionFrame().substr(0, 10), {}, End::closed},
        {"nothing", "", {}, End::closed},
        {"three 1 MiB replies unread", fetchFrame(disk) + fetchFrame(disk) + fetchFrame(disk), {}, End::closedUnread},
        {"refused names", refusedNames, {"error 3", "error 3", "error 3", "error 4"}, End::open},
        {"an unknown method", protocol::framed(R"({"method":"runCommand","argv":["rm"]})"), {"error 2"}, End::open},
        {"40 frames at once", forty, std::vector<std::string>(40, "version"), End::open},
        {"a fetch, then gone", fetchFrame(disk), {}, End::clientLeaves},
    };
    for (const auto& c : cases) {
        HelperClient client(daemon->socketPath());
        client.send(c.bytes);  // fails where the daemon closes before it has all
        for (const auto& expected : c.replies) EXPECT_EQ(kindOf(client.reply(5s)), expected) << c.what;
        switch (c.end) {
            case End::closed: EXPECT_EQ(kindOf(client.reply(5s)), "nothing") << c.what; [[fallthrough]];
            case End::closedUnread: EXPECT_TRUE(peerHungUp(client.fd, 5s)) << c.what; break;
            case End::open: EXPECT_EQ(kindOf(client.ask(versionFrame())), "version") << c.what; break;
            case End::clientLeaves: break;
        }
    }
    const auto reply = HelperClient(daemon->socketPath()).ask(fetchFrame(disk));
    ASSERT_NE(result(reply), nullptr);
    EXPECT_EQ(result(reply)->jsonData.size(), 1U << 20U);
    EXPECT_LT(statusKilobytes(daemon->pid(), "VmHWM"), kPeakKilobytes);
    for (const auto& start : standIn->starts()) EXPECT_EQ(start.back(), "/dev/" + disk);  // nothing else ran
}

TEST(HostileClients, OneUserCannotKeepAnotherOut) {
    if (::geteuid() != 0) GTEST_SKIP() << "connecting as other users needs root";
    auto standIn = SmartctlStandIn::create(printing(kHelperFixture));
    auto daemon = startHelper(standIn->path());
    ASSERT_NE(daemon, nullptr);
    const auto connectedAs = [&daemon](uid_t uid) {
        return std::make_unique<HelperClient>(connectAs(uid, daemon->socketPath()));
    };
    // Users 65534, 65533, … take as many connections as each may, each used once and then idle,
    // until the server is full. One more of the first user's is refused at once.
    std::vector<std::unique_ptr<HelperClient>> held;
    for (uid_t uid = 65534; held.size() < helper::HelperServer::kMaximumConnections; --uid) {
        for (std::size_t i = 0; i < helper::HelperServer::kMaximumConnectionsPerUser; ++i) {
            held.push_back(connectedAs(uid));
            ASSERT_EQ(kindOf(held.back()->ask(versionFrame())), "version") << uid;
        }
        if (uid == 65534) {
            EXPECT_EQ(kindOf(connectedAs(uid)->ask(versionFrame())), "nothing");
        }
    }
    // Another user is served: the first connection of those holding the most gives way.
    EXPECT_NE(result(connectedAs(1000)->ask(fetchFrame(rootDiskName()))), nullptr);
    EXPECT_TRUE(peerHungUp(held.front()->fd, 5s));
    EXPECT_EQ(kindOf(held.back()->ask(versionFrame())), "version");
}

TEST(HelperFrames, AnnounceTheirLengthBigEndianRefuseMoreThanTheirCapAndCarryTheArchivedReplies) {
    EXPECT_EQ(protocol::framed("{}"), std::string("\0\0\0\x02{}", 6));
    struct Case {
        unsigned char header[protocol::kFrameHeaderBytes];
        std::size_t cap;
        std::optional<std::size_t> length;
    };
    const std::vector<Case> cases = {
        {{0, 0, 0, 0}, protocol::kMaximumFrameBytes, 0},
        {{0, 0x80, 0, 0}, protocol::kMaximumFrameBytes, protocol::kMaximumFrameBytes},
        {{0, 0x80, 0, 1}, protocol::kMaximumFrameBytes, std::nullopt},
        {{0xFF, 0xFF, 0xFF, 0xFF}, protocol::kMaximumFrameBytes, std::nullopt},
        {{0, 0, 0x10, 0}, protocol::kMaximumRequestBytes, protocol::kMaximumRequestBytes},
        {{0, 0, 0x10, 1}, protocol::kMaximumRequestBytes, std::nullopt},
    };
    for (const auto& c : cases) EXPECT_EQ(protocol::payloadLength(c.header, c.cap), c.length);
    const SmartctlExecutionResult result{std::string("{\"a\":1}\n\xff", 9), "smartctl --json -a -n standby /dev/sda",
                                         "warning", 4};
    const std::vector<protocol::Reply> replies = {
        protocol::Reply(result), protocol::Reply(protocol::VersionReply{"0.1.0"}),
        protocol::Reply(protocol::helperError(HelperFailure::timedOut, "too slow"))};
    for (const auto& reply : replies) EXPECT_EQ(protocol::parsedReply(protocol::encodedReply(reply)), reply);

    // Archived records as a peer might send them: "terminationStatus" may be left out (then 0);
    // the three other members are required, with their types.
    const std::string data = "\"jsonData\":\"e30=\",\"commandDescription\":\"c\",\"standardError\":\"\"";
    // Each record and its termination status; nothing: the record does not decode.
    const std::vector<std::pair<std::string, std::optional<std::int32_t>>> records = {
        {"{" + data + "}", 0},
        {"{" + data + ",\"terminationStatus\":-1}", -1},
        {"{" + data + ",\"terminationStatus\":2147483648}", std::nullopt},
        {R"({"commandDescription":"c","standardError":""})", std::nullopt},
        {R"({"jsonData":"{}","commandDescription":"c","standardError":""})", std::nullopt},
    };
    for (const auto& [record, status] : records) {
        const auto expected = status ? std::optional<protocol::Reply>(SmartctlExecutionResult{"{}", "c", "", *status})
                                     : std::nullopt;
        EXPECT_EQ(protocol::parsedReply("{\"result\":" + record + "}"), expected) << record;
    }
    for (const std::string bad :
         {"{}", R"({"error":{"code":1}})", R"({"error":{"domain":"d","code":"1"}})", "[]", "x"}) {
        EXPECT_FALSE(protocol::parsedReply(bad).has_value()) << bad;
    }
}

// What a payload parses into: "version", "fetch <device>", "error <code>", or "nothing".
std::string parsedAs(const std::string& payload) {
    const auto parsed = protocol::parsedRequest(payload);
    if (!parsed) return "nothing";
    if (const auto* error = std::get_if<protocol::HelperError>(&*parsed)) {
        EXPECT_EQ(error->domain, protocol::kHelperErrorDomain);
        EXPECT_FALSE(error->description.empty());
        return "error " + std::to_string(error->code);
    }
    const auto* fetch = std::get_if<protocol::FetchRequest>(&std::get<protocol::Request>(*parsed));
    return fetch ? "fetch " + fetch->deviceName : "version";
}

TEST(HelperRequests, ParseIntoRequestsErrorsOrNothing) {
    const std::string padded = R"({"method":"helperVersion","x":")";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {protocol::encodedRequest(protocol::FetchRequest{"sda"}), "fetch sda"},
        {protocol::encodedRequest(protocol::VersionRequest{}), "version"},
        // As deep (an object and seven arrays) and as long as allowed, then one more.
        {R"({"method":"helperVersion","x":[[[[[[[1]]]]]]]})", "version"},
        {R"({"method":"helperVersion","x":[[[[[[[[1]]]]]]]]})", "nothing"},
        {R"({"method":"helperVersion","x":{"a":{"a":{"a":{"a":{"a":{"a":{"a":{}}}}}}}}})", "nothing"},
        {padded + std::string(protocol::kMaximumRequestBytes - 33, 'x') + "\"}", "version"},
        {padded + std::string(protocol::kMaximumRequestBytes - 32, 'x') + "\"}", "nothing"},
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

}  // namespace
}  // namespace vantorix::testing
