// The emulator's iSCSI side without a daemon: what the model asks tgtd to serve, the tgtadm
// commands that bring a daemon there (on a recorded driver), and the relay's byte work.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "sim/iscsi_front.h"
#include "sim/iscsi_plan.h"
#include "sim/iscsi_reconcile.h"
#include "sim/model.h"

using namespace trovsim;

namespace {

const std::string kA = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.a";
const std::string kB = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.b";
const std::string kHost01 = "iqn.1991-05.com.microsoft:host01.demo.local";

struct Demo {
    Model m;
    Demo() {
        std::string err;
        EXPECT_TRUE(m.LoadBuiltin("demo", &err)) << err;
    }
    Subsystem& sub() { return m.subsystems()[0]; }
    CtrlRef Ctrl(int i) { return CtrlRef{&sub(), i}; }
    Partition& Part(const std::string& name) {
        for (Vdisk& v : sub().vdisks)
            for (Partition& p : v.parts)
                if (p.name == name) return p;
        ADD_FAILURE() << "no volume " << name;
        static Partition none;
        return none;
    }
    uint32_t Map(const std::string& name, const std::string& host, uint16_t lun) {
        Model::ViewChange vc;
        vc.part = Part(name).serial;
        vc.hasHost = !host.empty();
        vc.view.host = host;
        vc.view.lun = lun;
        return m.ChangeView(Ctrl(0), vc);
    }
    const IscsiTargetPlan* Target(const IscsiPlan& plan, const std::string& name) {
        for (const auto& t : plan.targets)
            if (t.name == name) return &t;
        return nullptr;
    }
};

bool HasWarning(const IscsiPlan& plan, const std::string& part) {
    return std::any_of(plan.warnings.begin(), plan.warnings.end(),
                       [&](const std::string& w) { return w.find(part) != std::string::npos; });
}

TEST(IscsiPlan, TheDemoServesItsOneMappedVolumeToItsHostWithTheArraysInquiryData) {
    Demo d;
    IscsiPlan plan = PlanIscsi(d.m, false);
    ASSERT_EQ(plan.targets.size(), 2u);
    const IscsiTargetPlan* a = d.Target(plan, kA);
    ASSERT_NE(a, nullptr);
    ASSERT_EQ(a->luns.size(), 1u);
    const IscsiLunPlan& l = a->luns.at(1);
    const Partition& db01 = d.Part("db01");
    EXPECT_EQ(l.bytes, db01.blocks * 512);
    EXPECT_EQ(l.inquiry.vendor, "TROV");
    EXPECT_EQ(l.inquiry.product, "R3000i");
    EXPECT_EQ(l.inquiry.revision, "J210");
    EXPECT_EQ(l.inquiry.serial, IscsiSerialText(db01.serial));
    EXPECT_FALSE(a->admitAll);
    EXPECT_EQ(a->initiatorNames, std::set<std::string>{kHost01});
    // B's volume has no view: nothing to hide, nothing served.
    const IscsiTargetPlan* b = d.Target(plan, kB);
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(b->luns.empty());
    EXPECT_TRUE(plan.warnings.empty());
    EXPECT_EQ(plan.files.size(), 4u);  // every partition's file is kept, served or not
}

TEST(IscsiPlan, SerialTextAndDesignatorAreTheFormsTheHostSideCompares) {
    Serial s{};
    for (int i = 0; i < 16; ++i) s[i] = static_cast<uint8_t>(0x10 * (i % 16) + (15 - i));
    EXPECT_EQ(IscsiSerialText(s), "0f1e2d3c4b5a69788796a5b4c3d2e1f0");
    auto d = IscsiDesignator(s);
    const std::array<uint8_t, 16> want{0x60, 0xF1, 0xE2, 0xD0, 0x00, 0x3C, 0x4B, 0x5A,
                                       0x87, 0x96, 0xA5, 0xB4, 0xC3, 0xD2, 0xE1, 0xF0};
    EXPECT_EQ(d, want);
    EXPECT_TRUE(IsIscsiLunFile(IscsiLunFile(s)));
    for (const char* bad : {"lun-0f1e.img", "lun-0F1E2D3C4B5A69788796A5B4C3D2E1F0.img", "../etc/passwd", "tgtd.log"})
        EXPECT_FALSE(IsIscsiLunFile(bad)) << bad;
}

TEST(IscsiPlan, ViewsTheDaemonCannotSeparateAreServedAsTheirUnionWithOneWarning) {
    struct Case {
        const char* name;
        std::string host;  // a second view on logs01; empty: the default view
        uint16_t lun;
        bool admitAll;
        size_t names;
        const char* warning;  // nullptr: none
    } cases[] = {
        {"same host", kHost01, 2, false, 1, nullptr},
        {"another host", "iqn.x:host02", 2, false, 2, "views it cannot separate: db01 (" },
        {"every host", "", 2, true, 0, "logs01 (all initiators)"},
        {"LUN 0", "", 0, false, 1, "LUN 0, which tgtd keeps"},
        {"a number in use", "iqn.x:host02", 1, false, 1, "are both LUN 1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Demo d;
        ASSERT_EQ(d.Map("logs01", c.host, c.lun), 0u);
        IscsiPlan plan = PlanIscsi(d.m, false);
        const IscsiTargetPlan* a = d.Target(plan, kA);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a->admitAll, c.admitAll);
        EXPECT_EQ(a->initiatorNames.size(), c.names);
        if (c.warning) {
            EXPECT_TRUE(HasWarning(plan, c.warning)) << (plan.warnings.empty() ? "" : plan.warnings[0]);
        }
        else EXPECT_TRUE(plan.warnings.empty()) << plan.warnings[0];
    }
}

TEST(IscsiPlan, AnOfflineControllerHasNoTargetAndItsVolumesMoveToThePartner) {
    Demo d;
    ASSERT_EQ(d.m.SetControllerOffline(d.Ctrl(0), true), 0u);
    IscsiPlan plan = PlanIscsi(d.m, false);
    EXPECT_EQ(d.Target(plan, kA), nullptr);
    const IscsiTargetPlan* b = d.Target(plan, kB);
    ASSERT_NE(b, nullptr);
    ASSERT_EQ(b->luns.count(1), 1u);
    EXPECT_EQ(b->luns.at(1).volume, "db01");
}

TEST(IscsiPlan, ChapSecretsBecomeAccountsBoundToEveryTarget) {
    Demo d;
    d.sub().chap.push_back(ChapRecord{kHost01, "", "secret-of-01", "", ""});
    d.sub().targetSecret = "shared-secret";
    IscsiPlan plan = PlanIscsi(d.m, false);
    EXPECT_EQ(plan.accounts.at(kHost01), "secret-of-01");  // its own secret wins over the shared one
    EXPECT_EQ(plan.accounts.at("iqn.1991-05.com.microsoft:host02.demo.local"), "shared-secret");
    for (const auto& t : plan.targets) EXPECT_EQ(t.accounts.size(), 2u) << t.name;
}

// ---------------------------------------------------------------------------------------------

// A daemon that records each tgtadm call and refuses those whose text holds a given word.
class RecordedDriver : public IscsiDriver {
public:
    std::vector<std::string> calls;
    std::string refuse;  // a call holding this text fails
    std::map<std::string, uint64_t> files;
    bool Tgtadm(const std::vector<std::string>& args, std::string* output) override {
        std::string line;
        for (const auto& a : args) line += (line.empty() ? "" : " ") + a;
        calls.push_back(line);
        bool fail = !refuse.empty() && line.find(refuse) != std::string::npos;
        *output = fail ? "tgtadm: this can't be done" : "";
        return !fail;
    }
    bool SizeFile(const std::string& name, uint64_t bytes, std::string*) override {
        files[name] = bytes;
        return true;
    }
    bool RemoveFile(const std::string& name, std::string*) override {
        files.erase(name);
        return true;
    }
    std::string PathOf(const std::string& name) const override { return "/f/" + name; }
    size_t Count(const std::string& part) const {
        return static_cast<size_t>(
            std::count_if(calls.begin(), calls.end(), [&](const std::string& c) { return c.find(part) != std::string::npos; }));
    }
};

struct ReconcileTest : ::testing::Test {
    Demo d;
    RecordedDriver driver;
    std::vector<std::string> log;
    IscsiReconciler rec{driver, [this](const std::string& l) { log.push_back(l); }};
    uint32_t Sync() { return rec.Sync(PlanIscsi(d.m, false)); }
    bool Logged(const std::string& part) const {
        return std::any_of(log.begin(), log.end(), [&](const std::string& l) { return l.find(part) != std::string::npos; });
    }
};

TEST_F(ReconcileTest, ABuildFromNothingThenNothingMoreWhileTheModelStaysTheSame) {
    ASSERT_EQ(Sync(), 0u);
    EXPECT_EQ(driver.Count("--mode target --tid 1 --targetname " + kA), 1u);
    EXPECT_EQ(driver.Count("--mode target --tid 2 --targetname " + kB), 1u);
    std::string file = IscsiLunFile(d.Part("db01").serial);
    EXPECT_EQ(driver.Count("--op new --mode logicalunit --tid 1 --lun 1 --backing-store /f/" + file), 1u);
    EXPECT_EQ(driver.Count("--op update --mode logicalunit --tid 1 --lun 1 --params vendor_id=TROV,product_id=R3000i"),
              1u);
    EXPECT_EQ(driver.Count("--op bind --mode target --tid 1 --initiator-name " + kHost01), 1u);
    EXPECT_EQ(driver.Count("--op bind --mode target --tid 2 --initiator-address ALL"), 1u);
    EXPECT_EQ(driver.files.at(file), d.Part("db01").blocks * 512);
    driver.calls.clear();
    EXPECT_EQ(Sync(), 0u);
    EXPECT_TRUE(driver.calls.empty()) << driver.calls[0];
}

TEST_F(ReconcileTest, AGrownVolumeIsMadeAgainAndADeletedOneGoesWithItsFile) {
    ASSERT_EQ(d.Map("scratch01", kHost01, 3), 0u);  // the last volume: free space lies behind it
    ASSERT_EQ(Sync(), 0u);
    Serial serial = d.Part("scratch01").serial;
    ASSERT_EQ(d.m.ExpandPartition(d.Ctrl(0), Serial{}, serial, d.Part("scratch01").blocks + kMiBBlocks * 1024), 0u);
    driver.calls.clear();
    ASSERT_EQ(Sync(), 0u);
    EXPECT_EQ(driver.Count("--op delete --mode logicalunit --tid 1 --lun 3"), 1u);
    EXPECT_EQ(driver.Count("--op new --mode logicalunit --tid 1 --lun 3"), 1u);
    EXPECT_EQ(driver.files.at(IscsiLunFile(serial)), d.Part("scratch01").blocks * 512);

    ASSERT_EQ(d.m.DeletePartition(d.Ctrl(0), serial), 0u);
    driver.calls.clear();
    ASSERT_EQ(Sync(), 0u);
    EXPECT_EQ(driver.Count("--op delete --mode logicalunit --tid 1 --lun 3"), 1u);
    EXPECT_EQ(driver.files.count(IscsiLunFile(serial)), 0u);
}

TEST_F(ReconcileTest, ARefusedChangeIsLoggedOnceTriedAgainAndNeverChangesTheModel) {
    driver.refuse = "--op new --mode logicalunit";
    uint64_t changes = d.m.changes();
    EXPECT_EQ(Sync(), 1u);
    EXPECT_EQ(Sync(), 1u);
    EXPECT_EQ(driver.Count("--op new --mode logicalunit"), 2u);
    EXPECT_EQ(std::count_if(log.begin(), log.end(), [](const std::string& l) { return l.find("refused") != std::string::npos; }),
              1);
    EXPECT_TRUE(Logged("add LUN 1 (db01) of " + kA + " refused: tgtadm: this can't be done"));
    EXPECT_EQ(d.m.changes(), changes);
    driver.refuse.clear();
    EXPECT_EQ(Sync(), 0u);
    EXPECT_TRUE(Logged("done after 2 refusal(s)"));
}

TEST_F(ReconcileTest, ANarrowedTargetDropsTheSessionsOfThoseNoLongerAdmitted) {
    ASSERT_EQ(d.Map("logs01", "", 2), 0u);  // target A admits everyone
    ASSERT_EQ(Sync(), 0u);
    Model::ViewChange vc;
    vc.part = d.Part("logs01").serial;
    vc.create = false;
    vc.removeAll = true;
    ASSERT_EQ(d.m.ChangeView(d.Ctrl(0), vc), 0u);
    driver.calls.clear();
    ASSERT_EQ(Sync(), 0u);
    EXPECT_EQ(driver.Count("--op unbind --mode target --tid 1 --initiator-address ALL"), 1u);
    EXPECT_EQ(driver.Count("--op show --mode conn --tid 1"), 1u);
    EXPECT_EQ(driver.Count("--op delete --mode logicalunit --tid 1 --lun 2"), 1u);
}

TEST_F(ReconcileTest, AfterTheDaemonRestartedEverythingIsBuiltAgain) {
    ASSERT_EQ(Sync(), 0u);
    size_t first = driver.calls.size();
    rec.ForgetDaemon();
    driver.calls.clear();
    ASSERT_EQ(Sync(), 0u);
    EXPECT_EQ(driver.calls.size(), first);
}

TEST(TgtParamValue, NothingCanEndAPairOrStartAnother) {
    EXPECT_EQ(TgtParamValue("a,b=c\nd"), "a_b_c_d");
    EXPECT_EQ(TgtParamValue("TROV"), "TROV");
}

// ---------------------------------------------------------------------------------------------

std::vector<uint8_t> DataIn(uint32_t itt, const std::vector<uint8_t>& data, uint8_t flags = 0x81) {
    std::vector<uint8_t> pdu;
    pdu.reserve(48 + data.size() + 3);
    pdu.resize(48, 0);
    pdu[0] = 0x25;
    pdu[1] = flags;
    pdu[5] = uint8_t(data.size() >> 16);
    pdu[6] = uint8_t(data.size() >> 8);
    pdu[7] = uint8_t(data.size());
    pdu[19] = uint8_t(itt);
    pdu.insert(pdu.end(), data.begin(), data.end());
    pdu.resize((pdu.size() + 3) & ~size_t(3), 0);
    return pdu;
}

TEST(IscsiFront, TheSerialPageLosesTheBlanksInFrontAndTheResidualCountsThem) {
    std::string serial = "00c0ff49fe0a500000000001b0000000";
    std::vector<uint8_t> page{0x00, 0x80, 0x00, 36, ' ', ' ', ' ', ' '};
    page.insert(page.end(), serial.begin(), serial.end());
    std::vector<uint8_t> pdu = DataIn(7, page);
    ASSERT_TRUE(PatchSerialPage(pdu));
    EXPECT_EQ(pdu[7], 36);  // data segment length
    EXPECT_EQ(pdu[48 + 3], 32);
    EXPECT_EQ(std::string(pdu.begin() + 52, pdu.begin() + 84), serial);
    EXPECT_EQ(pdu[1] & 0x02, 0x02);  // underflow
    EXPECT_EQ(pdu[47], 4);           // residual
    std::vector<uint8_t> again = pdu;
    EXPECT_FALSE(PatchSerialPage(again));  // no blanks left
    EXPECT_EQ(again, pdu);
}

TEST(IscsiFront, PdusThatAreNotWholeSerialAnswersAreLeftAlone) {
    std::vector<uint8_t> page{0x00, 0x80, 0x00, 6, ' ', ' ', 'a', 'b', 'c', 'd'};
    struct Case {
        const char* name;
        std::vector<uint8_t> pdu;
    } cases[] = {
        {"no status in it", DataIn(1, page, 0x80)},
        {"another page", DataIn(1, {0x00, 0x83, 0x00, 2, ' ', 'a'})},
        {"page longer than the data", DataIn(1, {0x00, 0x80, 0x00, 60, ' ', 'a'})},
        {"header only", std::vector<uint8_t>(20, 0x25)},
        {"data segment beyond the PDU", [&] {
             auto p = DataIn(1, page);
             p[6] = 0x10;
             return p;
         }()},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> before = c.pdu;
        EXPECT_FALSE(PatchSerialPage(c.pdu));
        EXPECT_EQ(c.pdu, before);
    }
}

TEST(IscsiFront, DiscoveryNamesThePortalsOfEachTargetOrTheOneAsked) {
    std::string text = std::string("TargetName=t1") + '\0' + "TargetAddress=127.0.0.1:5555,1" + '\0' +
                       "TargetName=t2" + '\0' + "TargetAddress=127.0.0.1:5555,1" + '\0';
    std::vector<uint8_t> pdu(48, 0);
    pdu[0] = 0x24;
    pdu[1] = 0x80;
    pdu[7] = static_cast<uint8_t>(text.size());
    pdu.insert(pdu.end(), text.begin(), text.end());
    pdu.resize((pdu.size() + 3) & ~size_t(3), 0);
    auto portals = [](const std::string& t) {
        return t == "t1" ? std::vector<std::string>{"127.1.1.1:3260", "127.1.1.2:3260"} : std::vector<std::string>{};
    };
    ASSERT_TRUE(RewriteTargetAddresses(pdu, "127.0.0.1:3260", portals));
    size_t len = size_t(pdu[5]) << 16 | size_t(pdu[6]) << 8 | pdu[7];
    std::string out(pdu.begin() + 48, pdu.begin() + 48 + static_cast<long>(len));
    EXPECT_EQ(out, std::string("TargetName=t1") + '\0' + "TargetAddress=127.1.1.1:3260,1" + '\0' +
                       "TargetAddress=127.1.1.2:3260,1" + '\0' + "TargetName=t2" + '\0' +
                       "TargetAddress=127.0.0.1:3260,1" + '\0');
}

TEST(IscsiFront, PortalTexts) {
    struct Case {
        const char* text;
        bool ok;
        const char* host;
        uint16_t port;
    } cases[] = {
        {"127.0.0.1:3260", true, "127.0.0.1", 3260}, {"[::1]:3261", true, "::1", 3261}, {":3262", true, "", 3262},
        {"127.0.0.1", false, "", 0},                  {"127.0.0.1:0", false, "", 0},    {"127.0.0.1:70000", false, "", 0},
        {"host.example:3260", false, "", 0},          {"[::1:3260", false, "", 0},      {"1.2.3.4:32a", false, "", 0},
    };
    for (const Case& c : cases) {
        Endpoint e;
        EXPECT_EQ(ParseEndpoint(c.text, &e), c.ok) << c.text;
        if (c.ok) {
            EXPECT_EQ(e, (Endpoint{c.host, c.port})) << c.text;
        }
    }
}

}  // namespace
