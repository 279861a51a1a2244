// The commands of a LUN's life after its creation (extend, shrink, delete, masking, controllers,
// ports and targets, hints, conversion) against the provider and the emulator's demo array: what
// each command prints is checked against what the array's model then holds, the words a command
// refuses before the provider is asked, and that a refusal (the provider's own or the array's,
// injected) reaches the user by name and number with status 1 and leaves the array as it was.
// The provider runs on the fake clock, and each of its pauses moves the emulator's clock as far,
// so that an expansion of minutes of array time runs at once.
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>

#include "child.h"
#include "loaded_array_shell.h"
#include "proxy/requests.h"
#include "render.h"

namespace {

constexpr uint64_t kGiB = uint64_t(1) << 30;
constexpr uint64_t kMiB = uint64_t(1) << 20;
constexpr uint64_t kBlocksPerGiB = kGiB / 512;
const std::string kHost01 = "iqn.1991-05.com.microsoft:host01.demo.local";
const std::string kHostA = "iqn.1991-05.com.example:a", kHostB = "iqn.1991-05.com.example:b";

class LunLife : public LoadedArrayShell {
protected:
    void SetUp() override {
        LoadedArrayShell::SetUp();
        env.tp.SetSleepHook([this](uint32_t ms) {
            env.sim->AdvanceTime(ms);
            if (auto f = onSleep) f(ms);  // a copy: the hook may clear itself
        });
    }
    void TearDown() override { env.tp.SetSleepHook({}); }

    bool HasEvent(const std::string& text) {
        for (const auto& e : env.tp.Events())
            if (e.text.find(text) != std::string::npos) return true;
        return false;
    }
    // What a refusal must leave as it was: every vdisk with its members and owner, every
    // partition with its size, role, views and cache bytes.
    std::multiset<std::string> ArrayState() {
        std::multiset<std::string> all;
        for (const VdiskView& v : Vdisks()) {
            std::string vd = "vdisk " + v.name + " owner " + std::to_string(v.owner);
            for (const std::string& m : v.members) vd += " " + m;
            all.insert(vd);
            for (auto& p : v.parts) {
                trovsim::Partition part = Part(p.first);
                std::string s = p.first + " " + std::to_string(p.second) + " type " + std::to_string(part.type) +
                                " lun " + std::to_string(part.defaultLun) + " cache " +
                                std::to_string(part.cache[9]) + std::to_string(part.cache[10]);
                for (const trovsim::View& w : part.views) s += " " + w.host + "=" + std::to_string(w.lun);
                all.insert(s);
            }
        }
        return all;
    }
    // The names "list luns" shows.
    std::set<std::string> LunNames() {
        std::set<std::string> names;
        for (const Json& l : JsonOf("list luns")) names.insert(l.value("pwszFriendlyName", std::string()));
        return names;
    }
    // The list number of the object of a kind whose JSON field has this value ("" when none).
    std::string NumberOf(const std::string& kind, const char* field, const Json& value) {
        Json all = JsonOf("list " + kind);
        for (size_t i = 0; i < all.size(); ++i)
            if (all[i].value(field, Json()) == value) return std::to_string(i);
        ADD_FAILURE() << "no " << kind << " with " << field << " " << value.dump();
        return "";
    }

    std::function<void(uint32_t)> onSleep;
};

// The records std::cerr receives (the progress bar's stream) for the length of a scope.
class CerrCapture {
public:
    CerrCapture() : old_(std::cerr.rdbuf(buf_.rdbuf())) {}
    ~CerrCapture() { std::cerr.rdbuf(old_); }
    std::string str() const { return buf_.str(); }

private:
    std::ostringstream buf_;
    std::streambuf* old_;
};

}  // namespace

TEST_F(LunLife, BadWordsAreRefusedBeforeTheProviderIsAsked) {
    auto layout = Layout();
    struct Case {
        const char* line;
        const char* says;
    } cases[] = {
        {"extend lun db01", "extend by how much?"},
        {"extend size=lots lun db01", "is no size"},
        {"extend size=1GB drives=99 lun db01", "there is no drive 99"},
        {"extend size=1GB drives=4,3SJ01205K lun db01", "named twice"},
        {"extend size=1GB stripe=64KB lun db01", "takes no stripe="},
        {"extend size=1GB drive 4", "takes a lun, not a drive"},
        {"shrink lun db01", "shrink by how much?"},
        {"shrink size=0 lun db01", "shrink by how much?"},
        {"shrink drives=4 size=1GB lun db01", "takes no drives="},
        {"delete lun nosuchlun", "there is no lun \"nosuchlun\""},
        {"delete lun drive 3", "takes a lun, not a drive"},
        {"delete", "usage: delete lun"},
        {"unmask", "usage: unmask LIST"},
        {"unmask * lun nosuchlun", "there is no lun"},
        {"associate controllerports", "usage: associate controllerports|targets"},
        {"associate controllerports lun db01", "usage: associate"},
        {"associate controllerports 0,9 lun db01", "there is no port 9 (there are 4)"},
        {"associate controllerports 0,0 lun db01", "named twice"},
        {"associate controllerports 0 inactive=1,0 lun db01", "cannot be active and inactive"},
        {"associate targets 5 lun db01", "there is no target 5 (there are 2)"},
        {"associate widgets 0", "unknown associate kind \"widgets\" (controllerports, targets)"},
        {"activecontrollers drive 0", "takes a lun, not a drive"},
        {"hints drive 0", "takes a lun or plex, not a drive"},
        {"hints set lun db01", "hints set what?"},
        {"hints set writethrough=maybe lun db01", "on or off"},
        {"hints set size=1GB lun db01", "takes no size="},
        {"convert sideways lun db01", "unknown convert direction \"sideways\" (master, standard)"},
        {"convert master lun db01 extra", "too many words"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Result r = Run(c.line);
        EXPECT_EQ(r.rc, trovctl::kUsage) << r.out << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_EQ(Layout(), layout);
    }
}

TEST_F(LunLife, RefusalsArePrintedByNameAndNumberAndLeaveTheArrayAsItWas) {
    // Each refused by the provider itself, or by the array (a fault on one command).
    struct Case {
        int64_t failOpcode;  // -1: no fault
        uint32_t arrayError;
        const char* line;
        const char* says;
    } cases[] = {
        {-1, 0, "shrink size=1GB lun db01", "Shrink failed: VDS_E_NOT_SUPPORTED (0x80042400)"},
        {-1, 0, "shrink size=200GB lun db01", "Shrink failed: E_INVALIDARG (0x80070057)"},
        {-1, 0, "unmask iqn.2004-1.com.x lun db01", "SetMask failed: E_INVALIDARG (0x80070057)"},
        // A mapped LUN, and a vdisk with a mapped partition, stay where they are.
        {-1, 0, "associate controllerports 2 lun db01", "AssociateControllerPorts failed: VDS_E_NOT_SUPPORTED"},
        {-1, 0, "associate controllerports 2 lun logs01", "AssociateControllerPorts failed: VDS_E_NOT_SUPPORTED"},
        {-1, 0, "associate targets 1 lun db01", "AssociateTargets failed: VDS_E_NOT_SUPPORTED"},
        {-1, 0, "convert standard lun db01", "ApplyHints failed: VDS_E_NOT_SUPPORTED"},
        {-1, 0, "convert master lun db01", "ApplyHints failed: VDS_E_NOT_SUPPORTED"},  // no backing store
        {-1, 0, "extend drives=10 lun db01", "Extend failed: VDS_E_NOT_SUPPORTED"},  // SATA on a SAS vdisk
        {-1, 0, "extend drives=7 lun db01", "Extend failed: VDS_E_DEVICE_IN_USE (0x80042413)"},  // a spare
        {cmd::kDeletePart.opcode, 10, "delete lun db01", "Delete failed: VDS_E_INTERNAL_ERROR (0x"},
        {cmd::kCacheParams.opcode, 10, "hints set writethrough=on lun db01",
         "ApplyHints2 failed: VDS_E_INTERNAL_ERROR"},
        {cmd::kSetOwner.opcode, 16, "associate controllerports 0 lun archive01",
         "AssociateControllerPorts failed: VDS_E_INTERNAL_ERROR"},
        {cmd::kExpandArray.opcode, 12, "extend drives=4 lun scratch01", "Extend failed: VDS_E_INTERNAL_ERROR"},
    };
    const auto state = ArrayState();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        if (c.failOpcode >= 0) env.sim->FailOpcode(uint32_t(c.failOpcode), c.arrayError, -1);
        Result r = Run(c.line);
        env.sim->ClearFaults();
        EXPECT_EQ(r.rc, trovctl::kFailed) << r.out << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_EQ(ArrayState(), state);
    }
    // Under --json the refusal is an error object too.
    Json e = Json::parse(Run("shrink size=1GB lun db01", true).out, nullptr, false);
    EXPECT_EQ(e["error"], "VDS_E_NOT_SUPPORTED");
    EXPECT_EQ(e["code"], 0x80042400u);
    // The LUN is still there, and so is the selection a refused delete left.
    ASSERT_EQ(Run("select lun db01").rc, 0);
    env.sim->FailOpcode(cmd::kDeletePart.opcode, 10);
    EXPECT_EQ(Run("delete lun").rc, trovctl::kFailed);
    EXPECT_EQ(JsonOf("detail")["pwszFriendlyName"], "db01");
    EXPECT_EQ(ArrayState(), state);
}

TEST_F(LunLife, ExtendBySizeGrowsThePartitionIntoTheFreeSpaceBehindIt) {
    const uint64_t before = Part("scratch01").blocks;
    ASSERT_EQ(before, 20 * kBlocksPerGiB);
    Json lun = JsonOf("extend size=1GB lun scratch01");
    EXPECT_EQ(lun["pwszFriendlyName"], "scratch01");
    EXPECT_EQ(lun["ullSize"], 21 * kGiB);
    EXPECT_EQ(Part("scratch01").blocks, 21 * kBlocksPerGiB);
    EXPECT_EQ(VdiskOf("scratch01").members.size(), 4u);  // no drive joined
    // A size past a whole MiB grows by the next one; the text form shows the LUN as detail does.
    Result r = Run("extend size=1048577 lun scratch01");
    ASSERT_EQ(r.rc, 0) << r.err;
    const uint64_t bytes = 21 * kGiB + 2 * kMiB;
    EXPECT_EQ(Part("scratch01").blocks * 512, bytes);
    EXPECT_NE(r.out.find("pwszFriendlyName   : scratch01"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("(" + std::to_string(bytes) + " bytes)"), std::string::npos) << r.out;
    EXPECT_TRUE(HasEvent("has started a vdisk expansion operation"));
}

TEST_F(LunLife, ExtendOntoANamedDriveRestripesThenGrowsThePartition) {
    const uint64_t before = Part("scratch01").blocks;
    const uint64_t freeBefore = VdiskOf("scratch01").freeBlocks;
    Json lun = JsonOf("extend drives=3SJ01205K lun scratch01");
    ASSERT_TRUE(lun.is_object()) << lun.dump();
    VdiskView vd = VdiskOf("scratch01");
    EXPECT_EQ(vd.members.size(), 5u);
    EXPECT_EQ(vd.members.count("3SJ01205K"), 1u);
    const uint64_t after = Part("scratch01").blocks;
    // The old free space and the new drive's share, once the restripe was over.
    EXPECT_GT(after, before + freeBefore);
    EXPECT_EQ(lun["ullSize"], after * 512);
    EXPECT_TRUE(HasEvent("has finished a vdisk expansion operation"));
    EXPECT_EQ(JsonOf("detail drive 4")["ulFlagsText"], "assigned");
}

TEST_F(LunLife, TheBarFollowsTheExtensionToItsEnd) {
    shell->SetProgress(true);
    std::string bar;
    Result r;
    {
        CerrCapture cap;
        r = Run("extend drives=4 lun scratch01");
        bar = cap.str();
    }
    ASSERT_EQ(r.rc, 0) << r.err << bar;
    EXPECT_EQ(VdiskOf("scratch01").members.size(), 5u);
    // Drawn in place; the last state drawn is the finished one, and the line ends.
    EXPECT_EQ(bar.rfind("\rextend lun 2 (scratch01) [", 0), 0u) << bar;
    std::string last = bar.substr(bar.rfind('\r') + 1);
    EXPECT_EQ(last.rfind("extend lun 2 (scratch01) [##############################] 100%", 0), 0u) << bar;
    EXPECT_NE(last.find("  done"), std::string::npos) << bar;
    EXPECT_EQ(bar.back(), '\n') << bar;
    EXPECT_NE(r.out.find("pwszFriendlyName   : scratch01"), std::string::npos) << r.out;
}

TEST_F(LunLife, DeleteTakesThePartitionAndSaysWhenTheTreeLagsBehind) {
    // The provider's 90 seconds pass on the fake clock with no rebuild of the shell's (its period
    // set beyond any test's run): the array deleted the LUN, the tree follows at the next refresh.
    ASSERT_EQ(Run("select lun scratch01").rc, 0);
    shell->SetDeleteRebuildPeriod(std::chrono::hours(1));
    Result r = Run("delete lun");
    shell->SetDeleteRebuildPeriod(std::chrono::seconds(1));
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out,
              "delete lun: done, S_FALSE (0x00000001): the array deleted it, but the provider's refresh did not take "
              "it out of the tree in time; it goes at the next refresh\n");
    EXPECT_FALSE(Part("scratch01").blocks);
    EXPECT_EQ(VdiskOf("db01").parts.size(), 2u);
    EXPECT_EQ(JsonOf("detail")["pwszFriendlyName"], "demo-array");  // the selection went back to the subsystem
    EXPECT_EQ(LunNames(), (std::set<std::string>{"db01", "logs01", "scratch01", "archive01"}));
    EXPECT_EQ(Run("refresh").rc, 0);
    EXPECT_EQ(LunNames(), (std::set<std::string>{"db01", "logs01", "archive01"}));

    // A refresh while it waits (as another caller of the host's would cause): done at once.
    onSleep = [this](uint32_t ms) {
        if (ms != 1000) return;  // the delete's own pause, with the provider's lock given up
        onSleep = nullptr;
        IVdsHwProvider* hw = env.Query<IVdsHwProvider>(IID_IVdsHwProvider);
        ASSERT_TRUE(hw);
        EXPECT_EQ(hw->Refresh(), S_OK);
        hw->Release();
    };
    Json done = JsonOf("delete lun logs01");
    EXPECT_EQ(done, Json::parse(R"({"command": "delete lun", "result": "S_OK"})"));
    EXPECT_FALSE(Part("logs01").blocks);
    EXPECT_EQ(LunNames(), (std::set<std::string>{"db01", "archive01"}));

    // The last partition of a vdisk takes the vdisk with it, and its drives are free again.
    const size_t vdisks = Vdisks().size();
    EXPECT_EQ(Run("delete lun archive01").rc, 0);
    EXPECT_EQ(Vdisks().size(), vdisks - 1);
    for (const char* d : {"9WM03301Z", "9WM03302Z"})
        EXPECT_EQ(JsonOf(std::string("detail drive ") + d)["ulFlagsText"], "unassigned") << d;
}

TEST_F(LunLife, UnmaskTurnsTheListIntoTheArraysViews) {
    struct Case {
        const char* line;
        std::string list;                // the LUN's unmasking list afterwards
        std::vector<std::string> hosts;  // custom views
        bool allHosts;                   // a default view
    } cases[] = {
        {"unmask * lun db01", "*", {}, true},
        {"unmask - lun db01", "", {}, false},
        {"unmask iqn.1991-05.com.example:a;iqn.1991-05.com.example:b lun db01", kHostA + ";" + kHostB, {kHostA, kHostB},
         false},
        {"unmask iqn.1991-05.com.example:b lun db01", kHostB, {kHostB}, false},
    };
    ASSERT_EQ(Part("db01").views.size(), 1u);
    ASSERT_EQ(Part("db01").views[0].host, kHost01);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Result r = Run(c.line);
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_EQ(r.out, "unmask: done\n");
        trovsim::Partition p = Part("db01");
        std::vector<std::string> hosts;
        for (const trovsim::View& v : p.views) {
            hosts.push_back(v.host);
            EXPECT_EQ(v.lun, p.views[0].lun);  // one unit number for every host
            EXPECT_GE(v.lun, 1);
        }
        EXPECT_EQ(hosts, c.hosts);
        EXPECT_EQ(p.defaultLun >= 1, c.allHosts) << p.defaultLun;
        EXPECT_EQ(JsonOf("detail lun db01")["pwszUnmaskingList"], c.list);
    }
}

TEST_F(LunLife, CreateLunMasksWhatItMakes) {
    struct Case {
        const char* words;
        std::vector<std::string> hosts;
        bool allHosts;
    } cases[] = {
        {"unmask=*", {}, true},
        {"unmask=-", {}, false},
        {"unmask=iqn.1991-05.com.example:a;iqn.1991-05.com.example:b", {kHostA, kHostB}, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words);
        Json made = JsonOf(std::string("create lun raid5 size=1GB pool=VD-SAS-R5 ") + c.words);
        ASSERT_TRUE(made.is_object());
        trovsim::Partition p = Part(made["pwszFriendlyName"]);
        std::vector<std::string> hosts;
        for (const trovsim::View& v : p.views) hosts.push_back(v.host);
        EXPECT_EQ(hosts, c.hosts);
        EXPECT_EQ(p.defaultLun >= 1, c.allHosts);
    }
}

TEST_F(LunLife, AssociationMovesTheVdiskAndTheQueriesFollowIt) {
    auto ownerOf = [this](const char* lun) { return VdiskOf(lun).owner; };
    // The controllers, ports and targets by the side they are on ("A": the owner code 1).
    Json ctrls = JsonOf("list controllers");
    ASSERT_EQ(ctrls.size(), 2u);
    ASSERT_EQ(ownerOf("archive01"), 0);  // VD-SATA-R1 is on B
    auto ids = [](const Json& rows) {
        std::set<std::string> out;
        for (const Json& r : rows) out.insert(r.value("id", std::string()));
        return out;
    };
    Json onB = JsonOf("activecontrollers lun archive01");
    ASSERT_EQ(onB.size(), 1u);
    Json portsB = JsonOf("activeports lun archive01");
    ASSERT_EQ(portsB.size(), 2u);
    EXPECT_TRUE(JsonOf("associatedtargets lun archive01").empty());  // no host sees it yet

    // A port of the other controller: the vdisk moves there.
    std::string portOfA;
    for (size_t i = 0; i < 4 && portOfA.empty(); ++i)
        if (!ids(portsB).count(JsonOf("detail port " + std::to_string(i))["id"])) portOfA = std::to_string(i);
    ASSERT_FALSE(portOfA.empty());
    Result r = Run("associate controllerports " + portOfA + " lun archive01");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "associate controllerports: done\n");
    EXPECT_EQ(ownerOf("archive01"), 1);
    Json onA = JsonOf("activecontrollers lun archive01");
    ASSERT_EQ(onA.size(), 1u);
    EXPECT_NE(onA[0]["id"], onB[0]["id"]);
    Json portsA = JsonOf("activeports lun archive01");
    EXPECT_EQ(portsA.size(), 2u);
    EXPECT_TRUE(ids(portsA).count(JsonOf("detail port " + portOfA)["id"]));
    // A port of the controller that has it: nothing moves.
    ASSERT_EQ(Run("associate controllerports " + portOfA + " lun archive01").rc, 0);
    EXPECT_EQ(ownerOf("archive01"), 1);

    // The target of B: the vdisk moves back, and every host sees the LUN through that target.
    std::string targetOfB;
    Json targets = JsonOf("list targets");
    ASSERT_EQ(targets.size(), 2u);
    for (size_t i = 0; i < targets.size(); ++i) {
        std::string iqn = targets[i].value("pwszIscsiName", std::string());
        if (iqn.size() > 2 && iqn.substr(iqn.size() - 2) == ".b") targetOfB = std::to_string(i);
    }
    ASSERT_FALSE(targetOfB.empty()) << targets.dump();
    r = Run("associate targets " + targetOfB + " lun archive01");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "associate targets: done\n");
    EXPECT_EQ(ownerOf("archive01"), 0);
    EXPECT_GE(Part("archive01").defaultLun, 1);
    EXPECT_EQ(JsonOf("detail lun archive01")["pwszUnmaskingList"], "*");
    EXPECT_EQ(ids(JsonOf("activecontrollers lun archive01")), ids(onB));
    Json assoc = JsonOf("associatedtargets lun archive01");
    ASSERT_EQ(assoc.size(), 1u);
    EXPECT_EQ(assoc[0]["id"], JsonOf("detail target " + targetOfB)["id"]);
}

TEST_F(LunLife, HintsSetReachesTheCacheAndReadsBack) {
    struct Case {
        const char* words;
        size_t cacheByte;
        uint8_t value;
        const char* field;
        bool reads;
    } cases[] = {
        {"writethrough=on", 9, 0, "bWriteThroughCachingEnabled", true},
        {"writethrough=off", 9, 1, "bWriteThroughCachingEnabled", false},
        {"sequentialreads sequentialwrites", 10, 1, "bOptimizeForSequentialReads", true},
        {"sequentialreads=off sequentialwrites=off", 10, 0, "bOptimizeForSequentialWrites", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.words);
        Result r = Run(std::string("hints set ") + c.words + " lun db01");
        ASSERT_EQ(r.rc, 0) << r.err;
        EXPECT_EQ(r.out, "hints set: done\n");
        EXPECT_EQ(Part("db01").cache[c.cacheByte], c.value);
        Json h = JsonOf("hints lun db01");
        EXPECT_EQ(h[c.field], c.reads) << h.dump();
    }
    // The LUN's RAID level among the provider's own bits; the plex reads as a sequential one.
    Json lun = JsonOf("hints lun db01");
    EXPECT_NE(lun["ullHintMaskText"].get<std::string>().find("raid5"), std::string::npos) << lun.dump();
    EXPECT_EQ(lun["BusTypeText"], JsonOf("detail drive 0")["busTypeText"]);
    Json plex = JsonOf("hints plex 0");
    EXPECT_NE(plex["ullHintMaskText"].get<std::string>().find("raid5"), std::string::npos) << plex.dump();
    EXPECT_EQ(plex["bOptimizeForSequentialReads"], true);
    EXPECT_EQ(plex["bWriteThroughCachingEnabled"], false);
    // Sequential reads and writes go together on this array.
    const uint8_t byte10 = Part("db01").cache[10];
    Result half = Run("hints set sequentialreads sequentialwrites=off lun db01");
    EXPECT_EQ(half.rc, trovctl::kFailed);
    EXPECT_NE(half.err.find("ApplyHints2 failed: VDS_E_NOT_SUPPORTED"), std::string::npos) << half.err;
    EXPECT_EQ(Part("db01").cache[10], byte10);
}

TEST_F(LunLife, ConvertMakesAMasterVolumeOnABackingStoreAndBack) {
    Json store = JsonOf("create lun raid5 backingstore size=2GB pool=VD-SAS-R5");
    ASSERT_TRUE(store.is_object());
    trovsim::Partition bs = Part(store["pwszFriendlyName"]);
    ASSERT_EQ(bs.type, 1);
    Result r = Run("convert master lun scratch01");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "convert master: done\n");
    EXPECT_EQ(Part("scratch01").type, 2);
    EXPECT_EQ(Part("scratch01").backingStore, bs.serial);
    EXPECT_NE(JsonOf("hints lun scratch01")["ullHintMaskText"].get<std::string>().find("master"), std::string::npos);
    // A master already: refused, and nothing changes.
    Result again = Run("convert master lun scratch01");
    EXPECT_EQ(again.rc, trovctl::kFailed);
    EXPECT_NE(again.err.find("ApplyHints failed: VDS_E_NOT_SUPPORTED"), std::string::npos) << again.err;
    r = Run("convert standard lun scratch01");
    ASSERT_EQ(r.rc, 0) << r.err;
    EXPECT_EQ(r.out, "convert standard: done\n");
    EXPECT_EQ(Part("scratch01").type, 0);
    EXPECT_EQ(JsonOf("hints lun scratch01")["ullHintMaskText"].get<std::string>().find("master"), std::string::npos);
}

TEST(ProgressBarNote, ThePhaseAndTimeFollowTheBar) {
    EXPECT_EQ(trovctl::ProgressBar::Text("extend lun 0", 37, 10, "0:42  restriping the vdisk"),
              "extend lun 0 [###       ]  37%  0:42  restriping the vdisk");
    std::ostringstream tty;
    {
        trovctl::ProgressBar bar(tty, "x", true, 4);
        bar.Update(50, "0:01  restriping the vdisk");
        bar.Update(50, "0:01  restriping the vdisk");  // the same text is not drawn again
        bar.Update(100, "0:02  growing");
    }
    // A shorter line blanks the tail of the longer one before it.
    EXPECT_EQ(tty.str(), "\rx [##  ]  50%  0:01  restriping the vdisk"
                         "\rx [####] 100%  0:02  growing             \n");
}

// The question of delete lun, as an operator meets it on a terminal.
TEST(DeleteQuestion, AskedOnATerminalUnlessYesIsGiven) {
    struct Case {
        std::vector<std::string> argv;
        const char* answer;
        bool asked;
        int rc;
        const char* then;
    } cases[] = {
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "n\n", true, 1, "not deleted"},
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "\n", true, 1, "not deleted"},
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "yes\n", true, 0, "delete lun: done\r\n"},
        {{TROVCTL_BIN, "--yes", "delete", "lun", "db01"}, "", false, 0, "delete lun: done\r\n"},
        {{TROVCTL_BIN, "delete", "lun", "db01", "--yes"}, "", false, 0, "delete lun: done\r\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.argv.back() + " " + c.answer);
        testchild::Child run(c.argv, {"-TROVHWIPRV_SETTINGS", "TERM=dumb"}, /*pty=*/true);
        if (c.asked) {
            ASSERT_TRUE(run.WaitFor("delete lun 0 (db01) of 200 GiB and its data? [y/N] ", 10000)) << run.out;
            run.Write(c.answer);
        }
        ASSERT_TRUE(run.Finish(20000)) << run.out;
        EXPECT_EQ(run.exitCode(), c.rc) << run.out;
        EXPECT_NE(run.out.find(c.then), std::string::npos) << run.out;
        if (!c.asked) {
            EXPECT_EQ(run.out.find("[y/N]"), std::string::npos) << run.out;
        }
    }
}
