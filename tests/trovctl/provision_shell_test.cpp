// The provisioning commands against a provider loaded as a host loads it, with the emulator's
// demo array behind it: what create lun makes is checked in the array's model and in the
// listings that follow, maxsize against the array's free space, and every refusal by its exit
// status, its result by name and the array left as it was.
#include "loaded_array_shell.h"

namespace {

using ProvisionShell = LoadedArrayShell;

constexpr uint64_t kGiB = uint64_t(1) << 30;
constexpr uint64_t kMiB = uint64_t(1) << 20;

}  // namespace

TEST_F(ProvisionShell, ALunOnNamedDrivesIsANewVdiskShownAsDetailAndSelected) {
    size_t vdisksBefore = Vdisks().size();
    // The drives as an operator names them: a list number, BUS:SLOT and a serial.
    Json made = JsonOf("create lun raid5 size=10GB drives=4,0:5,3SJ01207K stripe=32KB");
    ASSERT_TRUE(made.is_object());
    EXPECT_EQ(made["ullSize"], 10 * kGiB);
    EXPECT_EQ(made["type"], 18);
    EXPECT_EQ(made["typeText"], "RAID5");
    std::string name = made["pwszFriendlyName"];

    std::vector<VdiskView> now = Vdisks();
    ASSERT_EQ(now.size(), vdisksBefore + 1);
    VdiskView vd = VdiskOf(name);
    EXPECT_EQ(vd.raid, trovsim::kRaid5);
    EXPECT_EQ(vd.stripeKiB, 32u);
    EXPECT_EQ(vd.members, (std::set<std::string>{"3SJ01205K", "3SJ01206K", "3SJ01207K"}));
    ASSERT_EQ(vd.parts.size(), 1u);
    EXPECT_EQ(vd.parts[0].second, 10 * kGiB / 512);

    // The selection: detail without a target is the new LUN, as create printed it.
    EXPECT_EQ(JsonOf("detail"), made);
    // The next number of "list luns", shown by the text form and found by the listing.
    Result text = Run("detail");
    EXPECT_NE(text.out.find("pwszFriendlyName   : " + name), std::string::npos) << text.out;
    Json luns = JsonOf("list luns");
    ASSERT_EQ(luns.size(), 5u);
    EXPECT_EQ(luns[4]["id"], made["id"]);
    // Its drives are no longer free.
    Json drive = JsonOf("detail drive 0:5");
    EXPECT_EQ(drive["ulFlagsText"], "assigned");
}

TEST_F(ProvisionShell, TextFormSaysWhatWasMadeAndTheNextLineActsOnIt) {
    Result r = Run("create lun mirror size=1048577 drives=10,11");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out.rfind("created lun 4 (", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("ullSize            : 2 MiB (2097152 bytes)"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("type               : mirror (13)"), std::string::npos) << r.out;
    // A size one byte past a MiB is rounded up to the next whole MiB on the array.
    Json lun = JsonOf("detail");
    VdiskView vd = VdiskOf(lun["pwszFriendlyName"]);
    EXPECT_EQ(vd.raid, trovsim::kRaid1);
    EXPECT_EQ(vd.members, (std::set<std::string>{"9WM03303Z", "9WM03304Z"}));
    EXPECT_EQ(vd.parts[0].second, 2 * kMiB / 512);
    // The selection is what "lun 4" names, and the shell's next command acts on it.
    EXPECT_EQ(JsonOf("detail lun 4")["id"], lun["id"]);
    Json grow = JsonOf("maxsize extend");
    EXPECT_EQ(grow["command"], "maxsize extend");
    // A mirror grows by its vdisk's free space alone.
    EXPECT_EQ(grow["ullMaxBytesToBeAdded"], (VdiskOf(lun["pwszFriendlyName"]).freeBlocks * 512) & ~(kMiB - 1));
}

TEST_F(ProvisionShell, ALunInAPoolGoesIntoThatPoolsVdisk) {
    size_t before = VdiskOf("db01").parts.size();
    Json made = JsonOf("create lun default size=5GB pool=VD-SAS-R5");
    ASSERT_TRUE(made.is_object());
    VdiskView vd = VdiskOf(made["pwszFriendlyName"]);
    EXPECT_EQ(vd.name, "VD-SAS-R5");
    EXPECT_EQ(vd.parts.size(), before + 1);
    EXPECT_EQ(made["type"], 18);  // the pool's own type stands for "default"
    Json inPool = JsonOf("pool luns pool VD-SAS-R5");
    bool found = false;
    for (const Json& l : inPool) found = found || l["id"] == made["id"];
    EXPECT_TRUE(found) << inPool.dump();
}

TEST_F(ProvisionShell, HintWordsReachTheProvider) {
    // The last named drive becomes the new vdisk's dedicated spare; "=off" fills the hint in as
    // off, which asks for none.
    struct Case {
        const char* words;
        size_t members, spares;
        std::set<std::string> drives;
    } cases[] = {{"drives=4,5,6 hotspare", 2, 1, {"3SJ01205K", "3SJ01206K", "3SJ01207K"}},
                 {"drives=10,11 hotspare=off", 2, 0, {"9WM03303Z", "9WM03304Z"}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words);
        Json made = JsonOf(std::string("create lun stripe size=8MB ") + c.words);
        ASSERT_TRUE(made.is_object());
        VdiskView vd = VdiskOf(made["pwszFriendlyName"]);
        EXPECT_EQ(vd.raid, trovsim::kRaid0);
        EXPECT_EQ(vd.members.size(), c.members);
        EXPECT_EQ(vd.spares.size(), c.spares);
        std::set<std::string> all = vd.members;
        all.insert(vd.spares.begin(), vd.spares.end());
        EXPECT_EQ(all, c.drives);
    }
}

TEST_F(ProvisionShell, TheProvidersOwnHintsAskForSpecialLuns) {
    size_t before = Vdisks().size();
    // dummy: a vdisk without a partition, shown as a LUN of size 0.
    Json dummy = JsonOf("create lun raid5 dummy drives=4,5,6");
    ASSERT_TRUE(dummy.is_object());
    EXPECT_EQ(dummy["ullSize"], 0u);
    std::vector<VdiskView> now = Vdisks();
    ASSERT_EQ(now.size(), before + 1);
    EXPECT_EQ(now.back().members, (std::set<std::string>{"3SJ01205K", "3SJ01206K", "3SJ01207K"}));
    EXPECT_TRUE(now.back().parts.empty());
    EXPECT_EQ(JsonOf("list luns").size(), 5u);
    // master: the demo array has no backing store for a master volume.
    Result master = Run("create lun raid5 master size=1GB");
    EXPECT_EQ(master.rc, 1);
    EXPECT_NE(master.err.find("VDS_E_NOT_SUPPORTED"), std::string::npos) << master.err;
    EXPECT_EQ(Vdisks().size(), before + 1);
}

TEST_F(ProvisionShell, MaxSizeAnswersInBytesAndUnits) {
    // A concrete pool answers its vdisk's free space.
    Json pool = JsonOf("maxsize mirror pool=VD-SATA-R1");
    uint64_t free = VdiskOf("archive01").freeBlocks * 512;
    EXPECT_EQ(pool["command"], "maxsize mirror");
    EXPECT_EQ(pool["ullMaxLunSize"].get<uint64_t>() & ~(kMiB - 1), free & ~(kMiB - 1));
    Result text = Run("maxsize extend lun archive01");
    ASSERT_EQ(text.rc, 0) << text.err;
    uint64_t grow = free & ~(kMiB - 1);
    EXPECT_NE(text.out.find("(" + std::to_string(grow) + " bytes)"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("TiB"), std::string::npos) << text.out;
    // An answer is a size the array then takes.
    Json made = JsonOf("create lun mirror size=" + std::to_string(pool["ullMaxLunSize"].get<uint64_t>()) +
                       " pool=VD-SATA-R1");
    ASSERT_TRUE(made.is_object());
    EXPECT_EQ(VdiskOf(made["pwszFriendlyName"]).freeBlocks * 512 < kMiB, true);
    // Named drives of two kinds are no request the provider sizes.
    Result mixed = Run("maxsize raid5 drives=4,5,10");
    EXPECT_EQ(mixed.rc, 1);
    EXPECT_NE(mixed.err.find("VDS_E_NOT_SUPPORTED (0x80042400)"), std::string::npos) << mixed.err;
}

TEST_F(ProvisionShell, RefusalsPrintTheResultByNameAndNumberAndChangeNothing) {
    auto layout = Layout();
    struct Case {
        const char* line;
        int rc;
        const char* says;
    } cases[] = {
        {"create lun span size=1GB", 1, "CreateLun2 failed: VDS_E_NOT_SUPPORTED (0x80042400)"},
        {"create lun raid5 size=1048575", 1, "VDS_E_NOT_SUPPORTED (0x80042400)"},
        {"create lun 99 size=1GB", 1, "E_INVALIDARG (0x80070057)"},
        {"create lun simple size=1GB stripe=64KB", 1, "VDS_E_NOT_SUPPORTED"},
        {"create lun raid5 size=1GB stripe=48KB", 1, "E_INVALIDARG"},
        {"create lun raid5 size=1GB drives=4,5,10", 1, "VDS_E_NOT_SUPPORTED"},  // SAS and SATA
        {"create lun parity size=1GB drives=4,5", 1, "E_INVALIDARG"},
        {"create lun raid5 size=1GB drives=4,3SJ01208K,5", 1, "VDS_E_DISK_NOT_EMPTY (0x80042414)"},  // a spare
        {"create lun raid5 size=1GB drives=0,1,2", 1, "VDS_E_DEVICE_IN_USE (0x80042413)"},
        {"create lun raid5 size=100TB drives=4,5,6", 1, "VDS_E_NOT_ENOUGH_SPACE (0x8004240F)"},
        {"create lun mirror size=1GB pool=VD-SAS-R5 snapshot", 1, "VDS_E_NOT_SUPPORTED"},
        {"create lun", 2, "usage: create lun TYPE"},
        {"create lun raid7", 2, "\"raid7\" is no LUN type"},
        {"create lun raid5 size=1.5", 2, "no whole number of bytes"},
        {"create lun raid5 size=99999999999TB", 2, "too large"},
        {"create lun raid5 drives=99", 2, "there is no drive 99 (there are 12)"},
        {"create lun raid5 drives=4,0:4", 2, "named twice"},
        {"create lun raid5 drives=4 pool=VD-SAS-R5", 2, "do not go together"},
        {"create lun raid5 pool=nosuchpool", 2, "there is no pool \"nosuchpool\""},
        {"create lun raid5 size=1GB lun 0", 2, "takes a subsystem, not a lun"},
        {"create lun raid5 raid50 raid3", 2, "choose one"},
        {"maxsize", 2, "usage: maxsize"},
        {"maxsize extend size=1GB", 2, "takes no size="},
        {"maxsize extend drives=4 drive 4", 2, "takes a lun, not a drive"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Result r = Run(c.line);
        EXPECT_EQ(r.rc, c.rc) << r.out << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(Layout(), layout);
    }
    // Under --json a refusal is also an error object on standard output.
    Result j = Run("create lun span", true);
    EXPECT_EQ(j.rc, 1);
    Json e = Json::parse(j.out, nullptr, false);
    EXPECT_EQ(e["error"], "VDS_E_NOT_SUPPORTED");
    EXPECT_EQ(e["code"], 0x80042400u);
    EXPECT_EQ(JsonOf("list luns").size(), 4u);
}
