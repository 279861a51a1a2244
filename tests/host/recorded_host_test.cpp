// The provider loaded against the emulator on a recorded host (tests/host/data, written by
// make_hosts.py there): which host disk is which LUN in both directions, the multipath facts of
// the load, the adapter list with the proxy's initiators, the path lookups, the policy and path
// status writes, and recorded hosts that are broken in the ways real ones are.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/provider.h"
#include "host/host_facts.h"
#include "host/identification.h"
#include "host/paths.h"
#include "host/policy.h"
#include "lun/lun.h"
#include "platform/host_disk.h"
#include "platform/host_library.h"
#include "platform/vds_errors.h"
#include "sim/model.h"
#include "testlib/provider_env.h"

namespace {

// The demo array's LUN serials, as the recording's pages give them: db01 is partition 1,
// archive01 partition 4.
constexpr char kDb01Serial[] = "00c0ff49fe0a500000000001b0000000";
constexpr char kArchiveSerial[] = "00c0ff49fe0a500000000004b0000000";
const uint8_t kDb01GptGuid[16] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77,
                                  0x88, 0x99, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF};

std::string Scenario() {
    nlohmann::json doc = trovsim::Model::DemoScenario();
    doc["subsystems"][0]["ulp"] = true;
    static int n = 0;
    std::string path = "/tmp/trovhost." + std::to_string(getpid()) + "." + std::to_string(n++) + ".json";
    std::ofstream(path) << doc.dump();
    return path;
}

int Shell(const std::string& cmd) { return system(cmd.c_str()); }

std::string ReadFile(const std::string& path) {
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

class RecordedHost : public ::testing::Test {
protected:
    // A copy of the recorded host, so that writes and breakages stay with the test.
    explicit RecordedHost(const char* host = "iscsi-array") : scenario_(Scenario()), env(scenario_) {
        root_ = env.dir() + "/host";
        EXPECT_EQ(Shell("cp -r '" + std::string(TROV_SOURCE_DIR) + "/tests/host/data/" + host + "' '" + root_ + "'"), 0);
        env.tp.SetHostRoot(root_);
    }
    ~RecordedHost() override { unlink(scenario_.c_str()); }

    void Load() { ASSERT_EQ(env.Load(), S_OK); }
    CProvider* provider() { return static_cast<CProvider*>(env.provider); }
    const HostFacts& facts() { return provider()->Host(); }
    std::string at(const std::string& rel) const { return root_ + "/" + rel; }
    std::string unit(const char* addr) const { return at(std::string("sys/class/scsi_device/") + addr + "/device/"); }
    void Write(const std::string& rel, const std::string& bytes) { std::ofstream(at(rel), std::ios::binary) << bytes; }

    CLun* LunNamed(const char* name) {
        auto subs = env.SubSystems();
        if (subs.empty()) return nullptr;
        for (auto& l : testlib::CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return subs[0]->QueryLuns(e); },
                                                     IID_IVdsLun)) {
            VDS_LUN_PROP p{};
            EXPECT_EQ(l->GetProperties(&p), S_OK);
            bool match = testlib::Narrow(p.pwszFriendlyName) == name;
            CoTaskMemFree(p.pwszFriendlyName);
            CoTaskMemFree(p.pwszIdentification);
            CoTaskMemFree(p.pwszUnmaskingList);
            if (match) return static_cast<CLun*>(static_cast<IVdsLun*>(l));
        }
        ADD_FAILURE() << "no LUN " << name;
        return nullptr;
    }

    // The LUN's identification; its serial, product and disk signature.
    struct Ident {
        HRESULT hr = E_FAIL;
        std::string serial, product, vendor;
        GUID signature{};
        std::vector<std::vector<uint8_t>> ids;
    };
    Ident Identify(const char* name) {
        Ident out;
        CLun* lun = LunNamed(name);
        if (!lun) return out;
        VDS_LUN_INFORMATION info{};
        out.hr = static_cast<IVdsLun*>(lun)->GetIdentificationData(&info);
        if (out.hr != S_OK) return out;
        out.serial = info.m_szSerialNumber;
        out.product = info.m_szProductId;
        out.vendor = info.m_szVendorId;
        out.signature = info.m_diskSignature;
        for (ULONG i = 0; i < info.m_deviceIdDescriptor.m_cIdentifiers; ++i) {
            const VDS_STORAGE_IDENTIFIER& id = info.m_deviceIdDescriptor.m_rgIdentifiers[i];
            out.ids.emplace_back(id.m_rgbIdentifier, id.m_rgbIdentifier + id.m_cbIdentifier);
        }
        FreeHostLunInformation(&info);
        return out;
    }

    // Which LUN a host disk is, as the host service asks: S_OK with the id, S_FALSE for none.
    HRESULT WhichLun(const char* disk, VDS_OBJECT_ID* id) {
        HostDiskIdentity d;
        std::string why;
        if (!ReadHostDiskIdentity(disk, &d, &why)) {
            ADD_FAILURE() << disk << ": " << why;
            return E_FAIL;
        }
        VDS_LUN_INFORMATION info{};
        EXPECT_EQ(MakeHostLunInformation(d, &info), S_OK);
        std::u16string path = u"/dev/" + std::u16string(d.unit.blockName.begin(), d.unit.blockName.end());
        HRESULT hr = provider()->QueryIfCreatedLun(const_cast<WCHAR*>(path.c_str()), &info, id);
        FreeHostLunInformation(&info);
        return hr;
    }

    std::string scenario_;
    testlib::ProviderEnv env;
    std::string root_;
};

TEST_F(RecordedHost, LunToHostDiskTakesTheDisksProductSignatureAndPage83) {
    Load();
    Ident db = Identify("db01");
    ASSERT_EQ(db.hr, S_OK);
    EXPECT_EQ(db.serial, kDb01Serial);
    EXPECT_EQ(db.vendor, "TROV");
    EXPECT_EQ(db.product, "R3000i");
    EXPECT_EQ(std::memcmp(&db.signature, kDb01GptGuid, 16), 0);
    ASSERT_EQ(db.ids.size(), 4u);
    const std::vector<uint8_t> naa = {0x60, 0x0C, 0x0F, 0xF0, 0, 0x49, 0xFE, 0x0A, 0, 0, 0, 1, 0xB0, 0, 0, 0};
    EXPECT_EQ(db.ids[0], naa);
    EXPECT_EQ(db.ids[1], (std::vector<uint8_t>{0, 0, 0, 1}));  // owned by controller A
    // Active-active: the vendor identifier ends with the disk's own page 0x83 from byte 68, which
    // in the recording is the vendor designator's bytes from its 24th.
    ASSERT_EQ(db.ids[2].size(), 64u);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(db.ids[2][32 + i], 0x40 + 24 + i) << i;

    // A disk without a partition table; and a LUN the host doesn't see keeps the array's words.
    Ident archive = Identify("archive01");
    ASSERT_EQ(archive.hr, S_OK);
    EXPECT_EQ(archive.serial, kArchiveSerial);
    EXPECT_EQ(archive.ids[1], (std::vector<uint8_t>{0, 0, 0, 2}));  // owned by controller B
    GUID zero{};
    EXPECT_EQ(std::memcmp(&archive.signature, &zero, sizeof zero), 0);
    Ident scratch = Identify("scratch01");
    ASSERT_EQ(scratch.hr, S_OK);
    EXPECT_EQ(std::memcmp(&scratch.signature, &zero, sizeof zero), 0);
    EXPECT_EQ(scratch.ids[2].size(), 32u);
}

TEST_F(RecordedHost, HostDiskToLunByEitherPathAndNotForOtherDisks) {
    Load();
    CLun* db = LunNamed("db01");
    CLun* archive = LunNamed("archive01");
    ASSERT_TRUE(db && archive);
    struct Case {
        const char* disk;
        HRESULT hr;
        CLun* lun;
    } cases[] = {{"/dev/sdb", S_OK, db}, {"sdc", S_OK, db}, {"3:0:0:2", S_OK, archive},
                 {"sde", S_OK, archive}, {"sda", S_FALSE, nullptr}};
    for (const Case& c : cases) {
        VDS_OBJECT_ID id{};
        EXPECT_EQ(WhichLun(c.disk, &id), c.hr) << c.disk;
        if (c.lun) {
            EXPECT_TRUE(id == c.lun->Id()) << c.disk;
        }
    }
}

TEST_F(RecordedHost, LoadGathersTheMultipathDisksPathsAndAdapters) {
    Load();
    const HostFacts& h = facts();
    ASSERT_EQ(h.mpioDiskInfoVec.size(), 2u);
    EXPECT_EQ(h.mpioDiskInfoVec[0].SerialNumber, kDb01Serial);
    EXPECT_EQ(h.mpioDiskInfoVec[1].SerialNumber, kArchiveSerial);
    ASSERT_EQ(h.mpioDescriptorVec.size(), 2u);
    EXPECT_EQ(h.mpioDescriptorVec[0].numPdoInfo, 2u);
    EXPECT_EQ(h.mpioDescriptorVec[0].PdoInfo[1].PortNumber, 4u);
    ASSERT_EQ(h.mpioDsmPathV2Vec.size(), 2u);
    const MpioDsmPathV2& a = h.mpioDsmPathV2Vec[0];
    ASSERT_EQ(a.numDsmPathV2, 2u);
    EXPECT_EQ(a.paths[0].DsmPathId, PathIdFromAddress(3, 0, 0, 1));
    EXPECT_EQ(a.paths[0].TargetPortGroup_State, kTpgActiveOptimized);
    EXPECT_EQ(a.paths[1].TargetPortGroup_State, kTpgActiveNonOptimized);
    EXPECT_EQ(a.paths[1].TargetPort_Identifier, 3u);
    EXPECT_EQ(a.paths[1].TargetPortGroup_Identifier, 2u);
    EXPECT_EQ(a.LoadBalancePolicy, 1u);                    // two groups of one path: failover
    EXPECT_EQ(h.mpioDsmPathV2Vec[1].LoadBalancePolicy, 2u);  // one round-robin group
    // No Fibre Channel port on this host: the proxy's initiator is the list.
    ASSERT_EQ(h.HBA_vec.size(), 1u);
    const uint8_t proxyWwn[8] = {0x21, 0x00, 0x00, 0x1B, 0x32, 0xA1, 0xB2, 0xC3};
    EXPECT_EQ(std::memcmp(h.HBA_vec[0].PortWWN, proxyWwn, 8), 0);
    EXPECT_EQ(h.HBA_vec[0].PortState, HBA_PORTSTATE_ONLINE);
    EXPECT_EQ(h.DsmLoadPolicyVec.size(), 2u);
}

TEST_F(RecordedHost, PathsReachTheControllerPortsTheirRelativeIdsName) {
    Load();
    CLun* db = LunNamed("db01");
    ASSERT_TRUE(db);
    std::u16string instance;
    uint32_t policy = 0;
    std::vector<LunHostPath> paths;
    ASSERT_TRUE(FindLunHostPaths(db, facts(), &instance, &policy, &paths));
    EXPECT_EQ(instance, u"mpatha");
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(paths[0].status, VDS_MPS_ONLINE);
    EXPECT_EQ(paths[1].status, VDS_MPS_STANDBY);  // the failover's waiting group, non-optimized
    // Relative port 1 is A's first port, 3 is B's first (A's two ports come first).
    VDS_OBJECT_ID none{};
    EXPECT_FALSE(paths[0].controllerPortId == none);
    EXPECT_FALSE(paths[1].controllerPortId == paths[0].controllerPortId);
    EXPECT_TRUE(db->GetCtrlPortIdByTargetPortIdentifier(1, true) == paths[0].controllerPortId);
    EXPECT_TRUE(db->GetCtrlPortIdByTargetPortIdentifier(3, true) == paths[1].controllerPortId);
    EXPECT_TRUE(db->GetCtrlPortIdByTargetPortIdentifier(9, true) == none);
    // The port whose identification is B's first address.
    EXPECT_TRUE(db->GetCtrlPortIdByPortWWN(db->SubSystem(), "192.168.10.20") == paths[1].controllerPortId);
    EXPECT_TRUE(db->GetCtrlPortIdByPortWWN(db->SubSystem(), "10.9.9.9") == none);
    // iSCSI ports have no world-wide name, and this host no Fibre Channel mapping.
    EXPECT_TRUE(db->GetPathInfo(5, 0) == none);
}

TEST_F(RecordedHost, PolicyWriteDryRunSaysWhatItWouldWriteAndSendsNothing) {
    Load();
    const HostFacts& h = facts();
    MultipathWrite plan;
    VDS_PATH_POLICY in[1] = {};
    in[0].pathId.ullPathId = PathIdFromAddress(4, 0, 0, 1);
    in[0].bPrimaryPath = TRUE;
    in[0].ulWeight = 7;
    EXPECT_EQ(WmiSetLoadBalancePolicy_V2(h.mpioDiskInfoVec, kDb01Serial, h.mpioDsmPathV2Vec, VDS_LBP_FAILOVER, in, 1,
                                         true, /*dryRun=*/true, &plan),
              0);
    EXPECT_NE(plan.file.find("/etc/multipath/conf.d/trovhwiprv-3600c0ff00049fe0a00000001b0000000.conf"),
              std::string::npos)
        << plan.file;
    EXPECT_NE(plan.content.find("path_grouping_policy failover"), std::string::npos) << plan.content;
    EXPECT_NE(plan.content.find("prio_args \"hbtl 3:0:0:1 "), std::string::npos) << plan.content;
    EXPECT_EQ(plan.commands, std::vector<std::string>{"reconfigure"});
    EXPECT_NE(access(plan.file.c_str(), F_OK), 0);
    EXPECT_EQ(access(at("multipathd/received").c_str(), F_OK), -1);

    // A serial no disk has, and a policy multipath can't express.
    EXPECT_EQ(WmiSetLoadBalancePolicy_V2(h.mpioDiskInfoVec, "nope", h.mpioDsmPathV2Vec, VDS_LBP_FAILOVER, in, 1, true,
                                         true, &plan),
              1);
    EXPECT_EQ(WmiSetLoadBalancePolicy_V2(h.mpioDiskInfoVec, kDb01Serial, h.mpioDsmPathV2Vec, 99, in, 1, true, true,
                                         &plan),
              EINVAL);
}

TEST_F(RecordedHost, PathStatusWritesFailAndReinstateThePathsByName) {
    Load();
    const uint64_t sdc = PathIdFromAddress(4, 0, 0, 1), sde = PathIdFromAddress(4, 0, 0, 2);
    MultipathWrite plan;
    EXPECT_EQ(WmiSetPathStatus({sdc, sde}, VDS_MPS_FAILED, true, &plan), 0);
    EXPECT_EQ(plan.commands, (std::vector<std::string>{"fail path sdc", "fail path sde"}));
    EXPECT_EQ(access(at("multipathd/received").c_str(), F_OK), -1);
    EXPECT_EQ(WmiSetPathStatus({sdc}, VDS_MPS_FAILED), 0);
    EXPECT_EQ(WmiSetPathStatus({sdc}, VDS_MPS_ONLINE), 0);
    EXPECT_EQ(ReadFile(at("multipathd/received")), "fail path sdc\nreinstate path sdc\n");
    EXPECT_EQ(WmiSetPathStatus({sdc}, VDS_MPS_STANDBY), EINVAL);
    EXPECT_EQ(WmiSetPathStatus({PathIdFromAddress(9, 0, 0, 1)}, VDS_MPS_FAILED), 1);
}

TEST_F(RecordedHost, MaskChangeAsksForAHostUpdateThatTheNextPathReadMakes) {
    Load();
    CLun* scratch = LunNamed("scratch01");
    ASSERT_TRUE(scratch);
    EXPECT_EQ(scratch->WmiUpdateCookie(), 0u);
    scratch->refreshWmiIfRequested();  // nothing asked: the facts stay
    ASSERT_EQ(facts().mpioDiskInfoVec.size(), 2u);
    std::u16string all = u"*";
    ASSERT_EQ(static_cast<IVdsLun*>(scratch)->SetMask(const_cast<WCHAR*>(all.c_str())), S_OK);
    EXPECT_EQ(scratch->WmiUpdateCookie(), kWmiUpdateMarker);
    // The host has meanwhile lost its maps; the asked-for update reads the host again, once.
    Write("multipathd/show_maps_json", R"({"major_version": 0, "minor_version": 1, "maps": []})");
    scratch->refreshWmiIfRequested();
    EXPECT_EQ(scratch->WmiUpdateCookie(), 0u);
    EXPECT_TRUE(facts().mpioDiskInfoVec.empty());
}

TEST_F(RecordedHost, LibraryEntryPointsAnswerWithinTheCallersBuffers) {
    Load();
    CLun* db = LunNamed("db01");
    ASSERT_TRUE(db);
    TrovHostLunPathList list;
    ASSERT_EQ(TrovHostLunPaths(&db->Id(), &list), S_OK);
    EXPECT_STREQ(list.disk, "mpatha");
    ASSERT_EQ(list.count, 2u);
    EXPECT_TRUE(list.paths[0].controllerPortId == db->GetCtrlPortIdByTargetPortIdentifier(1, true));
    EXPECT_EQ(list.paths[1].status, VDS_MPS_STANDBY);
    EXPECT_EQ(TrovHostLunPaths(&LunNamed("scratch01")->Id(), &list), S_FALSE);
    EXPECT_EQ(list.count, 0u);
    VDS_OBJECT_ID nothing{};
    nothing.Data1 = 0x1234;
    EXPECT_EQ(TrovHostLunPaths(&nothing, &list), VDS_E_OBJECT_NOT_FOUND);
    EXPECT_EQ(TrovHostLunPaths(&db->Id(), nullptr), E_POINTER);

    uint32_t count = 0;
    EXPECT_EQ(TrovHostHbaPorts(nullptr, 0, &count), S_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(TrovHostHbaPorts(nullptr, 4, &count), E_POINTER);

    // A plan cut to the buffer; nothing sent in a dry run.
    char small[16];
    std::memset(small, 'x', sizeof small);
    EXPECT_EQ(TrovHostSetLunPolicy(&db->Id(), VDS_LBP_ROUND_ROBIN, nullptr, 0, TRUE, small, sizeof small), S_OK);
    EXPECT_EQ(std::string(small), std::string("write " + root_).substr(0, 15));
    EXPECT_EQ(db->WmiUpdateCookie(), 0u);

    // A write asks for the LUN's path facts to be read again, which its next path query does.
    char plan[2048];
    ASSERT_EQ(TrovHostSetLunPolicy(&db->Id(), VDS_LBP_ROUND_ROBIN, nullptr, 0, FALSE, plan, sizeof plan), S_OK);
    EXPECT_NE(ReadFile(at("etc/multipath/conf.d/trovhwiprv-3600c0ff00049fe0a00000001b0000000.conf"))
                  .find("path_grouping_policy multibus"),
              std::string::npos);
    EXPECT_EQ(db->WmiUpdateCookie(), kWmiUpdateMarker);
    Write("multipathd/show_maps_json", R"({"major_version": 0, "minor_version": 1, "maps": []})");
    EXPECT_EQ(TrovHostLunPaths(&db->Id(), &list), S_FALSE);
    EXPECT_EQ(db->WmiUpdateCookie(), 0u);
}

TEST_F(RecordedHost, LibraryWritesThatFailSayWhy) {
    Load();
    CLun* db = LunNamed("db01");
    ASSERT_TRUE(db);
    ASSERT_EQ(Shell("rm -r '" + at("etc/multipath") + "'"), 0);
    char why[512];
    EXPECT_EQ(TrovHostSetLunPolicy(&db->Id(), VDS_LBP_FAILOVER, nullptr, 0, FALSE, why, sizeof why), E_FAIL);
    EXPECT_NE(std::string(why).find("No such file or directory"), std::string::npos) << why;
    EXPECT_EQ(access(at("multipathd/received").c_str(), F_OK), -1);  // no reconfigure without the file
    const uint64_t sdc = PathIdFromAddress(4, 0, 0, 1);
    EXPECT_EQ(TrovHostSetPathStatus(&db->Id(), &sdc, 1, VDS_MPS_STANDBY, FALSE, why, sizeof why), E_INVALIDARG);
    EXPECT_NE(std::string(why).find("path status"), std::string::npos) << why;
    EXPECT_EQ(TrovHostSetLunPolicy(&db->Id(), 42, nullptr, 0, TRUE, why, sizeof why), E_INVALIDARG);
    EXPECT_EQ(TrovHostSetPathStatus(&db->Id(), nullptr, 1, VDS_MPS_FAILED, TRUE, why, sizeof why), E_POINTER);
}

class FibreChannelHost : public RecordedHost {
protected:
    FibreChannelHost() : RecordedHost("fc-other") {}
};

TEST_F(FibreChannelHost, AdapterComesFirstThenTheProxysInitiatorAndOtherDisksAreNoLun) {
    Load();
    const HostFacts& h = facts();
    ASSERT_EQ(h.HBA_vec.size(), 2u);
    const uint8_t fc[8] = {0x21, 0x00, 0x00, 0x24, 0xff, 0x3a, 0x5b, 0x6c};
    EXPECT_EQ(std::memcmp(h.HBA_vec[0].PortWWN, fc, 8), 0);
    EXPECT_EQ(h.HBA_vec[0].portNumber, 5u);
    EXPECT_EQ(h.HBA_vec[0].PortType, HBA_PORTTYPE_NPORT);
    EXPECT_EQ(h.HBA_vec[0].PortState, HBA_PORTSTATE_ONLINE);
    EXPECT_TRUE(h.mpioDiskInfoVec.empty());
    std::vector<HbaFcpScsiEntryV2> mappings;
    GetFcpTargetMappings(fc, mappings);
    ASSERT_EQ(mappings.size(), 1u);
    EXPECT_EQ(mappings[0].ScsiId.ScsiTargetNumber, 0u);
    EXPECT_EQ(mappings[0].FcpId.FcId, 0x010200u);
    VDS_OBJECT_ID id{};
    EXPECT_EQ(WhichLun("sdf", &id), S_FALSE);  // another maker's revision
    Ident db = Identify("db01");
    ASSERT_EQ(db.hr, S_OK);
    EXPECT_EQ(db.product, "R3000i");  // the host doesn't see it: the controller's product id
}

class EmptyHost : public RecordedHost {
protected:
    EmptyHost() : RecordedHost("empty") {}
};

TEST_F(EmptyHost, LoadGoesOnWithEverySourceEmpty) {
    Load();
    const HostFacts& h = facts();
    EXPECT_TRUE(h.mpioDiskInfoVec.empty());
    EXPECT_TRUE(h.mpioDsmPathV2Vec.empty());
    EXPECT_TRUE(h.HBA_vec.empty());
    EXPECT_EQ(env.SubSystems().size(), 1u);
    Ident db = Identify("db01");
    EXPECT_EQ(db.hr, S_OK);
    EXPECT_EQ(db.serial, kDb01Serial);
    EXPECT_EQ(WmiSetPathStatus({PathIdFromAddress(3, 0, 0, 1)}, VDS_MPS_FAILED), 1);  // no daemon
}

// Recorded hosts broken as real ones are: each load goes on, and what the breakage touches is
// left out rather than misread.
struct Breakage {
    const char* name;
    const char* file;     // under the host root
    std::string content;  // what it becomes; "<gone>" removes it
    bool multipathKept;   // the load still has the two multipath disks
    bool db01Found;       // db01's host disk is still found (its GPT signature)
    bool sdbIsLun;        // sdb still names db01
};

class BrokenHost : public RecordedHost, public ::testing::WithParamInterface<Breakage> {};

TEST_P(BrokenHost, LoadGoesOnAndLeavesOutWhatIsBroken) {
    const Breakage& b = GetParam();
    if (b.content == "<gone>")
        ASSERT_EQ(unlink(at(b.file).c_str()), 0) << b.file;
    else
        Write(b.file, b.content);
    Load();
    EXPECT_EQ(facts().mpioDiskInfoVec.size(), b.multipathKept ? 2u : 0u);
    Ident db = Identify("db01");
    ASSERT_EQ(db.hr, S_OK);
    EXPECT_EQ(db.serial, kDb01Serial);
    EXPECT_EQ(std::memcmp(&db.signature, kDb01GptGuid, 16) == 0, b.db01Found);
    HostDiskIdentity d;
    std::string why;
    if (ReadHostDiskIdentity("sdb", &d, &why)) {
        VDS_OBJECT_ID id{};
        EXPECT_EQ(WhichLun("sdb", &id) == S_OK, b.sdbIsLun);
    } else {
        EXPECT_FALSE(b.sdbIsLun) << why;
        EXPECT_FALSE(why.empty());
    }
}

const std::string kPage83Header(std::string("\x00\x83\x00\x14", 4));

INSTANTIATE_TEST_SUITE_P(
    Recorded, BrokenHost,
    ::testing::Values(
        Breakage{"MultipathdAnswersGarbage", "multipathd/show_maps_json", "<html>no</html>", false, true, true},
        Breakage{"MultipathdUnknownFormat", "multipathd/show_maps_json", R"({"major_version": 7, "maps": []})", false,
                 true, true},
        Breakage{"MultipathdSilent", "multipathd/show_maps_json.silent", "", false, true, true},
        Breakage{"MultipathdAbsentDaemon", "multipathd/show_daemon", "fail\n", false, true, true},
        // Both paths of db01 answer its serial: losing one leaves the other.
        Breakage{"NodeMissing", "dev/sdb", "<gone>", true, true, false},
        Breakage{"Page83Truncated", "sys/class/scsi_device/3:0:0:1/device/vpd_pg83", kPage83Header + "\x01\x03",
                 true, true, false},
        Breakage{"Page83AbsurdLength", "sys/class/scsi_device/3:0:0:1/device/vpd_pg83",
                 std::string("\x00\x83\xff\xff\x01\x03\x00\xff", 8), true, true, false},
        Breakage{"Page80AbsurdLength", "sys/class/scsi_device/3:0:0:1/device/vpd_pg80",
                 std::string("\x00\x80\x00\xff" "00c0", 8), true, true, true},
        Breakage{"AccessStateJunk", "sys/class/scsi_device/3:0:0:1/device/access_state", "\x01\x02zzz", true, true,
                 true},
        Breakage{"InquiryShort", "sys/class/scsi_device/3:0:0:1/device/inquiry", "\x00\x00", true, true, false}),
    [](const ::testing::TestParamInfo<Breakage>& i) { return std::string(i.param.name); });

}  // namespace
