#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <regex>
#include <set>
#include <string>

#include "platform/hresult.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"

namespace {

// --- Record layout: offsets a 64-bit host reads the fields at ---

struct FieldCase {
    const char* name;
    size_t actual;
    size_t expected;
};

#define FIELD(rec, field, off) FieldCase{#rec "." #field, offsetof(rec, field), off}

TEST(VdsRecords, FieldOffsetsMatchTheHostLayout) {
    const FieldCase cases[] = {
        FIELD(VDS_PROVIDER_PROP, pwszName, 16),
        FIELD(VDS_PROVIDER_PROP, guidVersionId, 24),
        FIELD(VDS_PROVIDER_PROP, pwszVersion, 40),
        FIELD(VDS_PROVIDER_PROP, sRebuildPriority, 60),
        FIELD(VDS_SUB_SYSTEM_PROP, ulFlags, 32),
        FIELD(VDS_SUB_SYSTEM_PROP, sRebuildPriority, 54),
        FIELD(VDS_SUB_SYSTEM_PROP2, ulSupportedRaidTypeFlags, 40),
        FIELD(VDS_SUB_SYSTEM_PROP2, ulNumberOfEnclosures, 60),
        FIELD(VDS_CONTROLLER_PROP, sNumberOfPorts, 40),
        FIELD(VDS_DRIVE_PROP, ullSize, 16),
        FIELD(VDS_DRIVE_PROP, sSlotNumber, 54),
        FIELD(VDS_DRIVE_PROP2, busType, 60),
        FIELD(VDS_DRIVE_PROP2, ulSpindleSpeed, 64),
        FIELD(VDS_DRIVE_EXTENT, ullSize, 32),
        FIELD(VDS_DRIVE_EXTENT, bUsed, 40),
        FIELD(VDS_LUN_PROP, pwszUnmaskingList, 40),
        FIELD(VDS_LUN_PROP, ulFlags, 48),
        FIELD(VDS_LUN_PROP, TransitionState, 64),
        FIELD(VDS_LUN_PROP, sRebuildPriority, 68),
        FIELD(VDS_LUN_PLEX_PROP, ulStripeSize, 44),
        FIELD(VDS_LUN_INFORMATION, m_bCommandQueueing, 8),
        FIELD(VDS_LUN_INFORMATION, m_szVendorId, 16),
        FIELD(VDS_LUN_INFORMATION, m_diskSignature, 48),
        FIELD(VDS_LUN_INFORMATION, m_deviceIdDescriptor, 64),
        FIELD(VDS_LUN_INFORMATION, m_rgInterconnects, 88),
        FIELD(VDS_STORAGE_IDENTIFIER, m_rgbIdentifier, 16),
        FIELD(VDS_INTERCONNECT, m_pbAddress, 24),
        FIELD(VDS_HINTS, bFastCrashRecoveryRequired, 40),
        FIELD(VDS_HINTS, sRebuildPriority, 76),
        FIELD(VDS_HINTS2, bFastCrashRecoveryRequired, 52),
        FIELD(VDS_HINTS2, BusType, 112),
        FIELD(VDS_HINTS2, sRebuildPriority, 128),
        FIELD(VDS_POOL_ATTRIBUTES, pwszIntendedUsage, 16),
        FIELD(VDS_POOL_ATTRIBUTES, ullProvisionedSpace, 32),
        FIELD(VDS_POOL_ATTRIBUTES, pPoolCustomAttributes, 136),
        FIELD(VDS_POOL_ATTRIBUTES, ullReserved2, 168),
        FIELD(VDS_STORAGE_POOL_PROP, pwszName, 32),
        FIELD(VDS_STORAGE_POOL_PROP, ullRemainingFreeSpace, 64),
        FIELD(VDS_IPADDRESS, wszTextAddress, 32),
        FIELD(VDS_IPADDRESS, ulPort, 548),
        FIELD(VDS_ISCSI_PORTAL_PROP, status, 568),
        FIELD(VDS_ISCSI_PORTALGROUP_PROP, tag, 16),
        FIELD(VDS_ISCSI_TARGET_PROP, bChapEnabled, 32),
        FIELD(VDS_HBAPORT_PROP, type, 32),
        FIELD(VDS_PATH_INFO, controllerPortId, 24),
        FIELD(VDS_PATH_INFO, initiatorAdapterId, 40),
        FIELD(VDS_PATH_INFO, pInitiatorPortalIpAddr, 56),
        FIELD(VDS_PATH_POLICY, ulWeight, 20),
        // The union arms: each one's first pointer where the others' is.
        FIELD(VDS_ASYNC_OUTPUT, cp.volumeId, 16),
        FIELD(VDS_ASYNC_OUTPUT, ct.pTargetUnk, 8),
        FIELD(VDS_ASYNC_OUTPUT, cpg.pPortalGroupUnk, 8),
        FIELD(VDS_NOTIFICATION, Controller, 8),
        FIELD(VDS_LUN_NOTIFICATION, LunId, 4),
        FIELD(VDS_PARTITION_NOTIFICATION, ullOffset, 24),
        FIELD(VDS_DRIVE_LETTER_NOTIFICATION, volumeId, 8),
    };
    for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected) << c.name;
}

// Values that are easy to get wrong from older copies of the headers.
TEST(VdsRecords, PublishedValues) {
    struct Case {
        const char* name;
        long long actual, expected;
    } cases[] = {
        {"VDS_OT_SUB_SYSTEM", VDS_OT_SUB_SYSTEM, 30},
        {"VDS_OT_STORAGE_POOL", VDS_OT_STORAGE_POOL, 39},
        {"VDS_OT_HBAPORT", VDS_OT_HBAPORT, 90},
        {"VDS_OT_ASYNC", VDS_OT_ASYNC, 100},
        {"VDS_OT_OPEN_VDISK", VDS_OT_OPEN_VDISK, 201},
        {"VDS_NTT_LUN", VDS_NTT_LUN, VDS_OT_LUN},
        {"VDS_NTT_PORTAL_GROUP", VDS_NTT_PORTAL_GROUP, VDS_OT_PORTAL_GROUP},
        {"VDS_TS_RESTRIPING", VDS_TS_RESTRIPING, 5},
        {"VDS_VSF_3_0", VDS_VSF_3_0, 16},
        {"VDS_PF_SUPPORT_DYNAMIC", VDS_PF_SUPPORT_DYNAMIC, 0x80000000LL},
        {"VDS_LPT_RAID60", VDS_LPT_RAID60, VDS_LT_RAID60},
        {"VDS_NF_CONTROLLER_ARRIVE", VDS_NF_CONTROLLER_ARRIVE, 103},
        {"VDS_NF_DRIVE_REMOVED", VDS_NF_DRIVE_REMOVED, 354},
        {"VDS_NF_PORT_MODIFY", VDS_NF_PORT_MODIFY, 352},
        {"VDS_HINT_CONSISTENCYCHECKENABLED", static_cast<long long>(VDS_HINT_CONSISTENCYCHECKENABLED), 0x8000},
        {"VDSBusTypeiScsi", VDSBusTypeiScsi, 9},
        {"VDS_HSF_NOT_NEGOTIATED", VDS_HSF_NOT_NEGOTIATED, 0x8000},
    };
    for (const auto& c : cases) EXPECT_EQ(c.actual, c.expected) << c.name;
}

// --- Interface ids ---

TEST(VdsInterfaces, IdsHaveThePublishedText) {
    struct Case {
        const char* name;
        const IID* iid;
        const char* text;
    } cases[] = {
        {"IVdsProvider", &IID_IVdsProvider, "10c5e575-7984-4e81-a56b-431f5f92ae42"},
        {"IVdsHwProvider", &IID_IVdsHwProvider, "d99bdaae-b13a-4178-9fdb-e27f16b4603e"},
        {"IVdsProviderPrivate", &IID_IVdsProviderPrivate, "11f3cd41-b7e8-48ff-9472-9dff018aa292"},
        {"IVdsSubSystem", &IID_IVdsSubSystem, "6fcee2d3-6d90-4f91-80e2-a5c7caaca9d8"},
        {"IVdsLun", &IID_IVdsLun, "3540a9c7-e60f-4111-a840-8bba6c2c83d8"},
        {"IVdsAsync", &IID_IVdsAsync, "d5d23b6d-5a55-4492-9889-397a3c2d2dbc"},
        {"IEnumVdsObject", &IID_IEnumVdsObject, "118610b7-8d94-4030-b5b8-500889788e4e"},
        {"IVdsAdviseSink", &IID_IVdsAdviseSink, "8326cd1d-cf59-4936-b786-5efc08798e25"},
        {"IVdsSubSystemIscsi", &IID_IVdsSubSystemIscsi, "0027346f-40d0-4b45-8cec-5906dc0380c8"},
        {"IVdsAdmin", &IID_IVdsAdmin, "d188e97d-85aa-4d33-abc6-26299a10ffc1"},
    };
    for (const auto& c : cases) EXPECT_EQ(GuidToString(*c.iid), c.text) << c.name;
}

TEST(VdsInterfaces, IdsAreDistinct) {
    const IID* all[] = {
        &IID_IEnumVdsObject,        &IID_IVdsAsync,
        &IID_IVdsAdviseSink,        &IID_IVdsProvider,
        &IID_IVdsProviderSupport,   &IID_IVdsProviderPrivate,
        &IID_IVdsHwProvider,        &IID_IVdsHwProviderType,
        &IID_IVdsHwProviderType2,   &IID_IVdsHwProviderStoragePools,
        &IID_IVdsSubSystem,         &IID_IVdsSubSystem2,
        &IID_IVdsSubSystemNaming,   &IID_IVdsSubSystemIscsi,
        &IID_IVdsSubSystemInterconnect, &IID_IVdsControllerPort,
        &IID_IVdsController,        &IID_IVdsControllerControllerPort,
        &IID_IVdsDrive,             &IID_IVdsDrive2,
        &IID_IVdsLun,               &IID_IVdsLun2,
        &IID_IVdsLunNaming,         &IID_IVdsLunNumber,
        &IID_IVdsLunControllerPorts, &IID_IVdsLunMpio,
        &IID_IVdsLunIscsi,          &IID_IVdsLunPlex,
        &IID_IVdsIscsiPortal,       &IID_IVdsIscsiTarget,
        &IID_IVdsIscsiPortalGroup,  &IID_IVdsStoragePool,
        &IID_IVdsMaintenance,       &IID_IVdsHwProviderPrivate,
        &IID_IVdsHwProviderPrivateMpio, &IID_IVdsAdmin,
        &IID_IUnknown,              &IID_IClassFactory,
    };
    std::set<GUID, GuidLess> seen;
    for (const IID* iid : all) EXPECT_TRUE(seen.insert(*iid).second) << GuidToString(*iid);
}

// --- Result code names ---

TEST(HResultName, NamesKnownCodes) {
    struct Case {
        HRESULT hr;
        const char* name;
    } cases[] = {
        {static_cast<HRESULT>(0x80042448u), "VDS_E_INTERNAL_ERROR"},
        {static_cast<HRESULT>(0x00042700u), "VDS_S_NAME_TRUNCATED"},
        {static_cast<HRESULT>(0x80042400u), "VDS_E_NOT_SUPPORTED"},
        {static_cast<HRESULT>(0x0004244Du), "VDS_S_IN_PROGRESS"},
        {static_cast<HRESULT>(0x00044244u), "VDS_S_ACCESS_PATH_NOT_DELETED"},
        {static_cast<HRESULT>(0x80042436u), "VDS_E_BOOT_PARTITION_NUMBER_CHANGE"},
        {static_cast<HRESULT>(0x00042436u), "VDS_S_BOOT_PARTITION_NUMBER_CHANGE"},
        {static_cast<HRESULT>(0x8004270Bu), "VDS_E_ASSOCIATED_LUNS_EXIST"},
        {static_cast<HRESULT>(0x80042B00u), "VDS_E_SHRINK_EXTEND_UNALIGNED"},
        {static_cast<HRESULT>(0x8007000Eu), "E_OUTOFMEMORY"},
        {0, "S_OK"},
        {1, "S_FALSE"},
    };
    for (const auto& c : cases) {
        const char* got = HResultName(c.hr);
        ASSERT_NE(got, nullptr) << c.name;
        EXPECT_STREQ(got, c.name);
    }
}

TEST(HResultName, UnnamedCodesGiveNull) {
    // 0x2506 and 0x2704 are gaps in the published list.
    for (uint32_t v : {0x80042506u, 0x80042704u, 0x12345678u, 0x80042449u, 0xFFFFFFFFu})
        EXPECT_EQ(HResultName(static_cast<HRESULT>(v)), nullptr) << std::hex << v;
}

// Every code defined in vds_errors.h must be named, and by its own name.
TEST(HResultName, CoversEveryDefinedVdsCode) {
    std::string path = __FILE__;
    path = path.substr(0, path.rfind("tests/platform/")) + "src/platform/vds_errors.h";
    std::ifstream in(path);
    ASSERT_TRUE(in) << path;
    const std::regex def(R"(^#define\s+(VDS_[ES]_\w+)\s+\(\(HRESULT\)0x([0-9A-Fa-f]{8})L\))");
    std::string line;
    int count = 0;
    while (std::getline(in, line)) {
        std::smatch m;
        if (!std::regex_search(line, m, def)) continue;
        ++count;
        auto hr = static_cast<HRESULT>(std::stoul(m[2].str(), nullptr, 16));
        const char* got = HResultName(hr);
        ASSERT_NE(got, nullptr) << m[1];
        EXPECT_EQ(std::string(got), m[1].str());
    }
    EXPECT_GT(count, 350);
}

}  // namespace
