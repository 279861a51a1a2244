// Policy derivation, the daemon's map list and the inquiry page parsers, on crafted input.
#include <gtest/gtest.h>

#include <cstring>

#include "host/multipath.h"
#include "host/policy.h"
#include "platform/scsi_pages.h"
#include "testlib/fake_platform.h"

namespace {

MpioDsmPathV2 Query(std::initializer_list<uint32_t> states) {
    MpioDsmPathV2 q;
    uint64_t id = 1;
    for (uint32_t s : states) {
        MpioDsmPathV2Entry& e = q.paths[q.numDsmPathV2++];
        std::memset(&e, 0, sizeof e);
        e.DsmPathId = id++;
        e.TargetPortGroup_State = s;
        e.PathWeight = 7;
        e.PreferredPath = 1;
    }
    q.DSMPathCount = q.numDsmPathV2;
    return q;
}

TEST(DerivePathsV2, RoundRobinTakesFlagsFromStateAndKeepsPreference) {
    MpioDsmPathV2 q = Query({0, 1, 2, 3, 16});
    VDS_PATH_POLICY in[1] = {{{0, 2}, TRUE, 0}};
    auto out = DerivePathsV2(q, VDS_LBP_ROUND_ROBIN, in, 1, false, false);
    ASSERT_EQ(out.size(), 5u);
    const uint32_t primary[] = {1, 1, 0, 0, 1}, optimized[] = {1, 0, 1, 0, 1};
    for (size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(out[i].PrimaryPath, primary[i]) << i;
        EXPECT_EQ(out[i].OptimizedPath, optimized[i]) << i;
        EXPECT_EQ(out[i].PreferredPath, 1u) << i;
    }
    EXPECT_EQ(out[4].TargetPortGroup_State, 16u);  // written as queried
}

TEST(DerivePathsV2, FailoverWithOptionKeepsOneOptimizedPath) {
    struct Case { bool both; uint32_t primary, optimized; } cases[] = {{true, 1, 0}, {false, 0, 1}};
    for (const Case& c : cases) {
        auto out = DerivePathsV2(Query({0, 0}), VDS_LBP_FAILOVER, nullptr, 0, c.both, true);
        ASSERT_EQ(out.size(), 2u);
        EXPECT_EQ(out[0].PrimaryPath, 1u);
        EXPECT_EQ(out[0].OptimizedPath, 1u);
        EXPECT_EQ(out[1].PrimaryPath, c.primary);
        EXPECT_EQ(out[1].OptimizedPath, c.optimized);
    }
}

TEST(DerivePathsV2, WeightsReplaceOnlyWhenGivenAndNamed) {
    VDS_PATH_POLICY in[2] = {{{0, 1}, FALSE, 0}, {{0, 2}, FALSE, 30}};
    auto out = DerivePathsV2(Query({0, 1, 2}), VDS_LBP_FAILOVER, in, 2, false, false);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].PathWeight, 7u);
    EXPECT_EQ(out[1].PathWeight, 30u);
    EXPECT_EQ(out[2].PathWeight, 7u);
    // The older form writes a zero weight.
    DsmLoadPolicy old;
    old.DSMPathCount = 1;
    old.paths[0] = {1, 0, 9, 1};
    EXPECT_EQ(DerivePaths(old, in, 1)[0].PathWeight, 0u);
}

TEST(MultipathMaps, RefusesWhatItCannotRead) {
    const char* bad[] = {"", "garbage", "[]", "{\"major_version\": 9, \"maps\": []}", "{\"major_version\":0,\"maps\":{}}"};
    for (const char* text : bad) {
        std::vector<MultipathMap> maps;
        std::string why;
        EXPECT_FALSE(ParseMultipathMaps(text, &maps, &why)) << text;
        EXPECT_FALSE(why.empty());
    }
}

TEST(MultipathMaps, BoundsPathsAndDropsUnsafeNames) {
    std::string paths;
    for (int i = 0; i < 300; ++i) paths += std::string(i ? "," : "") + "{\"dev\":\"sd" + std::to_string(i) + "\"}";
    std::string text = "{\"major_version\":0,\"maps\":[{\"name\":\"mpatha\",\"path_groups\":[{\"paths\":[" + paths +
                       ",{\"dev\":\"../etc\"}]}]}]}";
    std::vector<MultipathMap> maps;
    std::string why;
    ASSERT_TRUE(ParseMultipathMaps(text, &maps, &why)) << why;
    ASSERT_EQ(maps.size(), 1u);
    EXPECT_EQ(maps[0].paths.size(), kMaxPathsPerMap);
}

TEST(DeviceIdPage, MalformedAndShortPages) {
    // A descriptor whose length runs past the page's end is not taken.
    const uint8_t overlong[] = {0x00, 0x83, 0x00, 0x08, 0x01, 0x03, 0x00, 0x10, 0x60, 0, 0, 0};
    std::vector<Designator> d;
    EXPECT_EQ(ParseDeviceIdPage(overlong, sizeof overlong, &d), DeviceIdStatus::Malformed);
    EXPECT_TRUE(d.empty());
    const uint8_t wrong[] = {0x00, 0x80, 0x00, 0x00};
    EXPECT_EQ(ParseDeviceIdPage(wrong, sizeof wrong, &d), DeviceIdStatus::WrongPage);
    EXPECT_EQ(ParseDeviceIdPage(wrong, 2, &d), DeviceIdStatus::Short);
    const uint8_t good[] = {0x00, 0x83, 0x00, 0x08, 0x01, 0x14, 0x00, 0x04, 0x00, 0x00, 0x00, 0x05};
    ASSERT_EQ(ParseDeviceIdPage(good, sizeof good, &d), DeviceIdStatus::Ok);
    uint32_t port = 0;
    ASSERT_TRUE(FindRelativeTargetPort(d, &port));
    EXPECT_EQ(port, 5u);
}

}  // namespace
