#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "monitor/DiskIOKitStatisticsProvider.h"
#include "platform/FakeRegistry.h"
#include "log/Log.h"

namespace vantorix {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Snapshot = DiskIOKitStatisticsProvider::Snapshot;
constexpr const char* kCategory = "DiskIOKitStatistics";

std::shared_ptr<const PropertyDictionary> statistics(std::uint64_t br, std::uint64_t bw, std::uint64_t r,
                                                     std::uint64_t w) {
    return makeDictionary({{"Bytes (Read)", br}, {"Bytes (Write)", bw}, {"Operations (Read)", r},
                           {"Operations (Write)", w}});
}

std::shared_ptr<const PropertyDictionary> withStatistics(std::shared_ptr<const PropertyDictionary> stats) {
    return makeDictionary({{"IOClass", "IOBlockStorageDriver"}, {"Statistics", PropertyValue(std::move(stats))}});
}

DiskVolumeDescriptor volume(std::string deviceName) {
    DiskVolumeDescriptor descriptor;
    descriptor.deviceName = std::move(deviceName);
    return descriptor;
}

std::vector<std::string> containing(const std::vector<std::string>& lines, const std::string& needle) {
    std::vector<std::string> out;
    for (const auto& line : lines) {
        if (line.find(needle) != std::string::npos) out.push_back(line);
    }
    return out;
}

TEST(StatisticsProvider, ServiceDescriptionUsesClassNameAndHexEntryId) {
    const std::tuple<std::optional<std::string>, std::optional<std::uint64_t>, std::string> cases[] = {
        {"IOMedia", 0x1A2Bu, "IOMedia#0x1a2b"}, {"IOMedia", std::nullopt, "IOMedia"},
        {std::nullopt, 0x10u, "UnknownIOService#0x10"}, {"IOMedia", 0u, "IOMedia#0x0"}};
    FakeRegistry registry;
    for (const auto& [className, entryId, description] : cases) {
        const auto id = registry.addService({className, PropertyValue(makeDictionary({})), std::nullopt, entryId});
        EXPECT_EQ(DiskIOKitStatisticsProvider::serviceDescription(registry, id), description);
    }
}

// One service's properties and what reading it must log and return.
TEST(StatisticsProvider, ReadSnapshotPassesOverBadServicesWithTheirLogLines) {
    struct Case {
        const char* name;
        std::optional<PropertyValue> properties;
        std::optional<KernReturn> copyFailure;
        std::optional<Snapshot> snapshot;
        log::Level level;
        std::string line;
    };
    const auto threeKeys = makeDictionary({{"Bytes (Read)", 1}, {"Bytes (Write)", 2}, {"Operations (Write)", 4}});
    const auto textValue = makeDictionary({{"Bytes (Read)", 1}, {"Bytes (Write)", "2"}, {"Operations (Read)", 3},
                                           {"Operations (Write)", 4}});
    // Negative and large counters are read as unsigned 64-bit numbers, a whole double as its value.
    const auto extremes = makeDictionary({{"Bytes (Read)", std::uint64_t{18446744073709551615u}},
                                          {"Bytes (Write)", std::int64_t{-1}},
                                          {"Operations (Read)", 2.0},
                                          {"Operations (Write)", 0}});
    const std::optional<Snapshot> none;
    const std::vector<Case> cases{
        {"complete", PropertyValue(withStatistics(statistics(512, 1024, 3, 4))), std::nullopt, Snapshot{512, 1024, 3, 4},
         log::Level::debug, "Read statistics snapshot from L: bytesRead=512, bytesWritten=1024, reads=3, writes=4"},
        {"extremes", PropertyValue(withStatistics(extremes)), std::nullopt,
         Snapshot{18446744073709551615u, 18446744073709551615u, 2, 0}, log::Level::debug,
         "Read statistics snapshot from L: bytesRead=18446744073709551615, bytesWritten=18446744073709551615, "
         "reads=2, writes=0"},
        {"copy fails", PropertyValue(makeDictionary({})), -536870211, none, log::Level::error,
         "IORegistryEntryCreateCFProperties failed for L; kresult=-536870211"},
        {"no properties", std::nullopt, std::nullopt, none, log::Level::error,
         "IORegistryEntryCreateCFProperties returned no properties for L"},
        {"properties not a dictionary", PropertyValue("text"), std::nullopt, none, log::Level::error,
         "IORegistryEntryCreateCFProperties returned no properties for L"},
        {"no statistics", PropertyValue(makeDictionary({{"b", 1}, {"a", 2}})), std::nullopt, none, log::Level::debug,
         "Statistics dictionary missing on L; available keys: [b, a]"},
        {"statistics not a dictionary", PropertyValue(makeDictionary({{"Statistics", 5}})), std::nullopt, none,
         log::Level::debug, "Statistics dictionary missing on L; available keys: [Statistics]"},
        {"three of four keys", PropertyValue(withStatistics(threeKeys)), std::nullopt, none, log::Level::error,
         "Statistics dictionary on L missing expected numeric keys [Operations (Read)]; available keys: "
         "[Bytes (Read), Bytes (Write), Operations (Write)]"},
        {"value not a number", PropertyValue(withStatistics(textValue)), std::nullopt, none, log::Level::error,
         "Statistics dictionary on L missing expected numeric keys []; available keys: "
         "[Bytes (Read), Bytes (Write), Operations (Read), Operations (Write)]"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        FakeRegistry registry;
        const auto id = registry.addService({"IOBlockStorageDriver", c.properties, std::nullopt, 1u});
        registry.setCopyPropertiesFailure(id, c.copyFailure);
        log::Capture capture;
        const auto snapshot = DiskIOKitStatisticsProvider::readSnapshot(registry, id, "L");
        EXPECT_EQ(snapshot, c.snapshot);
        EXPECT_THAT(capture.messages(kCategory, c.level), ElementsAre(c.line));
        EXPECT_EQ(capture.records().size(), 1u);
    }
}

// media (matched) -> partition scheme -> media -> driver with statistics, three levels up.
struct AncestorChain {
    FakeRegistry registry;
    FakeRegistry::ServiceId driver, wholeMedia, scheme, media;
    AncestorChain() {
        driver = registry.addService("IOBlockStorageDriver", withStatistics(statistics(4096, 8192, 10, 20)),
                                     std::nullopt, 0xd0);
        wholeMedia = registry.addService("IOMedia", makeDictionary({{"Whole", true}}), driver, 0xc0);
        scheme = registry.addService("IOGUIDPartitionScheme", makeDictionary({}), wholeMedia, 0xb0);
        media = registry.addService("IOMedia", makeDictionary({{"BSD Name", "disk4s1"}}), scheme, 0xa0);
        registry.addMatch("disk4s1", media);
    }
};

TEST(StatisticsProvider, WalksUpToTheAncestorWithStatistics) {
    AncestorChain chain;
    log::Capture capture;
    auto match = DiskIOKitStatisticsProvider::matchServices(chain.registry, "disk4s1");
    ASSERT_TRUE(match.ok());
    EXPECT_EQ(match->snapshot, (Snapshot{4096, 8192, 10, 20}));
    ASSERT_EQ(match->services.size(), 1u);
    EXPECT_EQ(match->services[0].service, FakeRegistry::handleOf(chain.driver));
    EXPECT_EQ(match->services[0].description, "IOBlockStorageDriver#0xd0 (ancestor depth 3)");

    const auto debug = capture.messages(kCategory, log::Level::debug);
    EXPECT_THAT(containing(debug, "Ascending"),
                ElementsAre("Ascending to ancestor depth 1 -> IOGUIDPartitionScheme#0xb0 for BSD name disk4s1",
                            "Ascending to ancestor depth 2 -> IOMedia#0xc0 for BSD name disk4s1",
                            "Ascending to ancestor depth 3 -> IOBlockStorageDriver#0xd0 for BSD name disk4s1"));
    EXPECT_THAT(containing(debug, "Inspecting"), ElementsAre("Inspecting IOService IOMedia#0xa0 for BSD name disk4s1"));
    EXPECT_THAT(containing(debug, "resolved"),
                ElementsAre("Statistics resolved from ancestor depth 3 -> IOBlockStorageDriver#0xd0 (ancestor depth 3) "
                            "for BSD name disk4s1"));
    EXPECT_THAT(containing(debug, "missing on IOGUIDPartitionScheme"),
                ElementsAre("Statistics dictionary missing on IOGUIDPartitionScheme#0xb0 (ancestor depth 1); "
                            "available keys: []"));

    // The match holds exactly one reference: the cached driver.
    EXPECT_EQ(chain.registry.outstandingReferences(), 1);
    EXPECT_EQ(chain.registry.referenceCount(FakeRegistry::handleOf(chain.driver)), 1);
    chain.registry.release(match->services[0].service);
    EXPECT_EQ(chain.registry.outstandingReferences(), 0);
    EXPECT_EQ(chain.registry.overReleases(), 0);
}

TEST(StatisticsProvider, DirectHitIsRetainedForTheCaller) {
    FakeRegistry registry;
    const auto driver = registry.addService("block", withStatistics(statistics(1, 2, 3, 4)), std::nullopt, 0x7);
    registry.addMatch("vda", driver);
    log::Capture capture;
    auto match = DiskIOKitStatisticsProvider::matchServices(registry, "vda");
    ASSERT_TRUE(match.ok());
    EXPECT_EQ(match->services[0].description, "block#0x7");
    EXPECT_THAT(containing(capture.messages(kCategory), "resolved"),
                ElementsAre("Statistics resolved directly from IOService block#0x7 for BSD name vda"));
    EXPECT_EQ(registry.referenceCount(FakeRegistry::handleOf(driver)), 1);
}

TEST(StatisticsProvider, TwoMatchesEndingAtTheSameDriverAreCachedOnce) {
    FakeRegistry registry;
    const auto driver = registry.addService("IOBlockStorageDriver", withStatistics(statistics(1, 2, 3, 4)));
    const auto first = registry.addService("IOMedia", makeDictionary({}), driver);
    const auto second = registry.addService("IOMedia", makeDictionary({}), driver);
    const auto otherDriver = registry.addService("IOBlockStorageDriver", withStatistics(statistics(9, 9, 9, 9)));
    const auto third = registry.addService("IOMedia", makeDictionary({}), otherDriver);
    registry.addMatch("disk2", first);
    registry.addMatch("disk2", second);
    registry.addMatch("disk2", third);

    auto match = DiskIOKitStatisticsProvider::matchServices(registry, "disk2");
    ASSERT_TRUE(match.ok());
    EXPECT_EQ(match->snapshot, (Snapshot{1, 2, 3, 4}));  // the first result of the pass
    ASSERT_EQ(match->services.size(), 2u);
    EXPECT_EQ(match->services[0].service, FakeRegistry::handleOf(driver));
    EXPECT_EQ(match->services[1].service, FakeRegistry::handleOf(otherDriver));
    EXPECT_EQ(registry.outstandingReferences(), 2);  // one per cache entry, the duplicate was released
}

// Matching `deviceName` fails with `error` and `line` as the only error logged, and leaves nothing
// retained. Returns the debug lines.
std::vector<std::string> failedMatch(FakeRegistry& registry, const std::string& deviceName, const MonitorError& error,
                                     const std::string& line) {
    log::Capture capture;
    const auto match = DiskIOKitStatisticsProvider::matchServices(registry, deviceName);
    EXPECT_FALSE(match.ok());
    if (!match.ok()) {
        EXPECT_EQ(match.error(), error);
    }
    EXPECT_THAT(capture.messages(kCategory, log::Level::error), ElementsAre(line));
    EXPECT_EQ(registry.outstandingReferences(), 0);
    EXPECT_EQ(registry.overReleases(), 0);
    return capture.messages(kCategory, log::Level::debug);
}

TEST(StatisticsProvider, MatchingFailuresAndTheirLogLines) {
    FakeRegistry noMatching;
    noMatching.failBsdNameMatching(true);
    failedMatch(noMatching, "sdz", MonitorError::ioKitMatchingFailed(-536870210),
                "IOBSDNameMatching returned nil for BSD name sdz");

    FakeRegistry noServices;
    noServices.failMatchingServices(-536870199);
    failedMatch(noServices, "sdz", MonitorError::ioKitMatchingFailed(-536870199),
                "IOServiceGetMatchingServices failed for BSD name sdz with code -536870199");

    // Nothing matches at all: a session cannot be created either.
    FakeRegistry empty;
    failedMatch(empty, "proc", MonitorError::statisticsUnavailable(),
                "statisticsUnavailable triggered because no IOService yielded statistics for BSD name proc");
    auto session = StatisticsSession::create(std::shared_ptr<Registry>(&empty, [](Registry*) {}), volume("tmpfs"));
    ASSERT_FALSE(session.ok());
    EXPECT_EQ(session.error(), MonitorError::statisticsUnavailable());

    // No statistics anywhere up to the root.
    FakeRegistry registry;
    const auto root = registry.addService("IOPlatformExpertDevice", makeDictionary({}), std::nullopt, 0x1);
    registry.addMatch("sdz", registry.addService("IOMedia", makeDictionary({}), root, 0x2));
    const auto debug = failedMatch(registry, "sdz", MonitorError::statisticsUnavailable(),
                                   "statisticsUnavailable triggered because no IOService yielded statistics for BSD name sdz");
    EXPECT_THAT(containing(debug, "Traversal"),
                ElementsAre("Traversal terminated at IOService IOPlatformExpertDevice#0x1 (ancestor depth 1) for "
                            "BSD name sdz; no further ancestors available (kresult=-536870160)"));
    EXPECT_THAT(containing(debug, "No statistics"),
                ElementsAre("No statistics located in IOService chain rooted at IOMedia#0x2; advancing to next "
                            "match for BSD name sdz"));
}

TEST(StatisticsProvider, ThreeKeysOnTheChildThenTheParentAnswers) {
    FakeRegistry registry;
    const auto parent = registry.addService("IOBlockStorageDriver", withStatistics(statistics(5, 6, 7, 8)));
    const auto child = registry.addService(
        "IOMedia", withStatistics(makeDictionary({{"Bytes (Read)", 1}, {"Bytes (Write)", 2}, {"Operations (Read)", 3}})),
        parent);
    registry.addMatch("disk1", child);
    log::Capture capture;
    auto match = DiskIOKitStatisticsProvider::matchServices(registry, "disk1");
    ASSERT_TRUE(match.ok());
    EXPECT_EQ(match->snapshot, (Snapshot{5, 6, 7, 8}));
    const auto errors = capture.messages(kCategory, log::Level::error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_THAT(errors[0], HasSubstr("missing expected numeric keys [Operations (Write)]"));
}

TEST(StatisticsProvider, SessionReadsOnlyTheCachedServiceAndReleasesOnEnd) {
    AncestorChain chain;
    auto session = StatisticsSession::create(std::shared_ptr<Registry>(&chain.registry, [](Registry*) {}),
                                             volume("disk4s1"));
    ASSERT_TRUE(session.ok());
    const int copiesBefore = chain.registry.totalCopyCount();
    for (int i = 0; i < 5; ++i) {
        auto snapshot = session.value()->snapshot();
        ASSERT_TRUE(snapshot.ok());
        EXPECT_EQ(snapshot.value(), (Snapshot{4096, 8192, 10, 20}));
    }
    // Five reads, one property copy each, all of the cached driver: no walk.
    EXPECT_EQ(chain.registry.totalCopyCount() - copiesBefore, 5);
    EXPECT_EQ(chain.registry.copyCount(chain.media), 1);
    EXPECT_EQ(chain.registry.referenceCount(FakeRegistry::handleOf(chain.driver)), 1);

    session.value()->end();
    EXPECT_EQ(chain.registry.outstandingReferences(), 0);
    session.value().reset();  // ending twice releases nothing more
    EXPECT_EQ(chain.registry.overReleases(), 0);
}

TEST(StatisticsProvider, SessionRebuildsWhenTheCachedServiceDisappears) {
    FakeRegistry registry;
    auto shared = std::shared_ptr<Registry>(&registry, [](Registry*) {});
    const auto oldDriver = registry.addService("IOBlockStorageDriver", withStatistics(statistics(1, 1, 1, 1)));
    const auto oldMedia = registry.addService("IOMedia", makeDictionary({}), oldDriver);
    registry.addMatch("disk5", oldMedia);
    auto session = StatisticsSession::create(shared, volume("disk5"));
    ASSERT_TRUE(session.ok());

    // Detached: the cached driver is gone and nothing matches any more.
    registry.removeService(oldDriver);
    registry.removeService(oldMedia);
    {
        log::Capture capture;
        auto snapshot = session.value()->snapshot();
        ASSERT_FALSE(snapshot.ok());
        EXPECT_EQ(snapshot.error(), MonitorError::statisticsUnavailable());
        EXPECT_THAT(capture.messages(kCategory, log::Level::notice),
                    ElementsAre("Cached IOService entries for BSD name disk5 failed; rebuilding matching cache"));
        EXPECT_EQ(session.value()->cachedDescriptions().size(), 1u);  // the old list stays
    }

    // Re-attached under new services: the next read rebuilds and answers from them.
    const auto newDriver = registry.addService("IOBlockStorageDriver", withStatistics(statistics(7, 7, 7, 7)));
    const auto newMedia = registry.addService("IOMedia", makeDictionary({}), newDriver);
    registry.addMatch("disk5", newMedia);
    auto snapshot = session.value()->snapshot();
    ASSERT_TRUE(snapshot.ok());
    EXPECT_EQ(snapshot.value(), (Snapshot{7, 7, 7, 7}));
    EXPECT_EQ(registry.referenceCount(FakeRegistry::handleOf(oldDriver)), 0);
    EXPECT_EQ(registry.referenceCount(FakeRegistry::handleOf(newDriver)), 1);
    session.value().reset();
    EXPECT_EQ(registry.outstandingReferences(), 0);
    EXPECT_EQ(registry.overReleases(), 0);
}

}  // namespace
}  // namespace vantorix
