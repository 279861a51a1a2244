// The whole path as an administrator meets it: trovctl, with the provider it loads, drives
// `trovproxy-sim --iscsi` (both as child processes), and a real initiator on loopback sees what the
// commands made: the LUN with the array's inquiry data and the identification the provider
// reports, its capacity after an extend, the masking as the target's admission, and nothing after
// the delete. The initiators are the project's test initiator (byte-exact pages) and, where
// libiscsi-bin is installed, libiscsi's own tools. Skipped, with a message, only where tgtd is not
// installed.
//
// The emulator follows a change within a second; these tests allow some seconds more, because a
// loaded build machine runs them beside other work.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "../trovctl/child.h"
#include "iscsi/initiator.h"
#include "sim/iscsi_service.h"

using iscsitest::Initiator;
using iscsitest::ScsiResult;
using testchild::Child;

namespace {

const char* kTargetA = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.a";
const char* kTargetB = "iqn.1995-03.com.trov:01.array.00c0ff1a2b3c.b";
const char* kFirst = "iqn.2024-01.test.trov:first";
const char* kSecond = "iqn.2024-01.test.trov:second";
constexpr int kFollowMs = 8000;  // for the target daemon to follow a change of the model
constexpr int kRunMs = 60000;    // for one trovctl command

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Hex(const std::vector<uint8_t>& bytes, size_t from, size_t to) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = from; i < to && i < bytes.size(); ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 15];
    }
    return out;
}

// Retries `check` until it holds or `ms` passed; the last try's verdict.
bool Eventually(const std::function<bool()>& check, int ms = kFollowMs) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    for (;;) {
        if (check()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}

// What one initiator sees of a target: whether it may log in, and each LUN's page 0x80 text,
// 16-byte NAA designator from page 0x83, standard inquiry and capacity.
struct SeenLun {
    uint32_t lun = 0;
    std::string vendor, product, serialText;
    std::vector<uint8_t> naa;
    uint64_t bytes = 0;
};
struct Seen {
    bool loggedIn = false;
    std::string error;
    std::vector<SeenLun> luns;
    const SeenLun* WithSerial(const std::string& prefix) const {
        for (const SeenLun& l : luns)
            if (!prefix.empty() && l.serialText.compare(0, prefix.size(), prefix) == 0) return &l;
        return nullptr;
    }
};

Seen Look(uint16_t port, const std::string& who, const std::string& target, const std::string& address = "127.0.0.1") {
    Seen s;
    Initiator ini;
    s.loggedIn = ini.Login(address, port, who, target, &s.error);
    if (!s.loggedIn) return s;
    std::vector<uint32_t> numbers;
    if (!ini.ReportLuns(&numbers)) {
        s.error = "REPORT LUNS failed";
        return s;
    }
    for (uint32_t n : numbers) {
        if (n == 0) continue;  // the daemon's own controller device
        SeenLun l;
        l.lun = n;
        ScsiResult std = ini.Inquiry(n, -1, 96);
        if (std.ok && std.status == 0 && std.data.size() >= 32) {
            l.vendor.assign(std.data.begin() + 8, std.data.begin() + 16);
            l.product.assign(std.data.begin() + 16, std.data.begin() + 32);
        }
        // As the host side asks: 48 bytes, the text from byte 4.
        ScsiResult p80 = ini.Inquiry(n, 0x80, 0x30);
        if (p80.ok && p80.status == 0 && p80.data.size() > 4 && p80.data[1] == 0x80) {
            size_t len = std::min<size_t>(p80.data[3], p80.data.size() - 4);
            l.serialText.assign(p80.data.begin() + 4, p80.data.begin() + 4 + static_cast<long>(len));
        }
        ScsiResult p83 = ini.Inquiry(n, 0x83, 0x80);
        if (p83.ok && p83.status == 0 && p83.data.size() >= 4 && p83.data[1] == 0x83) {
            size_t end = std::min<size_t>(p83.data.size(), 4 + (size_t(p83.data[2]) << 8 | p83.data[3]));
            for (size_t at = 4; at + 4 <= end && l.naa.empty();) {
                size_t len = p83.data[at + 3];
                if (at + 4 + len > end) break;
                // binary, NAA, 16 bytes: the designator the host side takes
                if ((p83.data[at] & 0x0F) == 1 && (p83.data[at + 1] & 0x0F) == 3 && len == 16)
                    l.naa.assign(p83.data.begin() + static_cast<long>(at + 4),
                                 p83.data.begin() + static_cast<long>(at + 20));
                at += 4 + len;
            }
        }
        uint64_t blocks = 0;
        uint32_t bs = 0;
        if (ini.Capacity(n, &blocks, &bs)) l.bytes = blocks * bs;
        s.luns.push_back(l);
    }
    return s;
}

// True while the process runs (a zombie does not).
bool Running(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

// The output of a program run to its end (bounded), standard error folded in.
std::string Output(const std::vector<std::string>& argv, int* rc = nullptr) {
    Child c(argv);
    bool ended = c.Finish(30000);
    if (rc) *rc = ended ? c.exitCode() : -1;
    return c.out + c.err;
}

class ProviderPath : public ::testing::Test {
protected:
    void SetUp() override {
        if (trovsim::FindProgram("", "tgtd").empty() || trovsim::FindProgram("", "tgtadm").empty())
            GTEST_SKIP() << "tgtd or tgtadm is not installed (Debian package tgt): the provider's LUNs are not "
                            "looked at from an initiator";
        char tmpl[] = "/tmp/trovsim-provider-path.XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        conf_ = dir_ + "/kelvane.conf";
        port_ = iscsitest::FreePort();
        ASSERT_NE(port_, 0);
        sim_ = std::make_unique<Child>(std::vector<std::string>{
            TROVSIM_BIN, "--scenario", "demo", "--port", "0", "--no-stdin", "--quiet", "--heartbeat", "0",
            "--write-conf", conf_, "--iscsi", (loopback_ ? "loopback:" : "127.0.0.1:") + std::to_string(port_),
            "--iscsi-folder", dir_ + "/iscsi"});
        ASSERT_TRUE(sim_->WaitFor("iSCSI: serving on", 20000)) << sim_->err;
        ASSERT_TRUE(sim_->WaitFor("wrote " + conf_, 10000)) << sim_->err;
        std::ifstream(dir_ + "/iscsi/tgtd.pid") >> daemon_;
        ASSERT_GT(daemon_, 0) << "no pid file of tgtd";
    }
    void TearDown() override {
        if (sim_) {
            // A stop in order: the emulator takes its tgtd down through tgtadm.
            sim_->Signal(SIGTERM);
            EXPECT_TRUE(sim_->Finish(20000)) << "the emulator did not stop";
            EXPECT_EQ(sim_->exitCode(), 0) << sim_->err;
            EXPECT_NE(sim_->err.find("iSCSI: stopped"), std::string::npos) << sim_->err;
            sim_.reset();
            EXPECT_TRUE(Eventually([&] { return !Running(daemon_); }, 5000)) << "tgtd " << daemon_ << " still runs";
        }
        if (!dir_.empty()) {
            std::string cmd = "rm -rf '" + dir_ + "'";
            if (::system(cmd.c_str()) != 0) ADD_FAILURE() << "cannot remove " << dir_;
        }
    }

    // One trovctl command with --json against the emulator; its document, or null when it failed.
    nlohmann::json Trovctl(const std::vector<std::string>& words) {
        std::vector<std::string> argv{TROVCTL_BIN, "--proxy-conf", conf_, "--json", "--yes"};
        argv.insert(argv.end(), words.begin(), words.end());
        std::string line;
        for (const std::string& w : words) line += w + " ";
        Child run(argv, {"-TROVHWIPRV_SETTINGS", "-TROVCTL_REGISTRY", "HOME=" + dir_});
        bool ended = run.Finish(kRunMs);
        EXPECT_TRUE(ended) << line << "still runs";
        EXPECT_EQ(run.exitCode(), 0) << line << "\n" << run.out << run.err;
        if (!ended || run.exitCode() != 0) return nullptr;
        nlohmann::json doc = nlohmann::json::parse(run.out, nullptr, false);
        EXPECT_FALSE(doc.is_discarded()) << line << "\n" << run.out;
        return doc;
    }

    Seen LookAtB(const std::string& who) { return Look(port_, who, kTargetB); }

    std::string dir_, conf_;
    uint16_t port_ = 0;
    bool loopback_ = false;  // each model portal an address of its own
    pid_t daemon_ = 0;
    std::unique_ptr<Child> sim_;
};

TEST_F(ProviderPath, ALunMadeMaskedExtendedAndDeletedByTheProviderIsWhatTheInitiatorSees) {
    // Made on the vdisk of controller B for every host.
    nlohmann::json made = Trovctl({"create", "lun", "mirror", "size=1GB", "unmask=*", "pool=VD-SATA-R1"});
    ASSERT_TRUE(made.is_object()) << made;
    const std::string ident = Lower(made.value("pwszIdentification", ""));
    ASSERT_GE(ident.size(), 26u) << made;
    const std::string name = made.value("pwszFriendlyName", "");
    ASSERT_FALSE(name.empty()) << made;
    EXPECT_EQ(made.value("ullSize", uint64_t(0)), 1ull << 30);

    // Any initiator sees it, with the array's inquiry data: page 0x80 the serial the provider's
    // identification compares, page 0x83 a designator whose bytes 8..15 are serial bytes 8..15.
    Seen seen;
    ASSERT_TRUE(Eventually([&] {
        seen = LookAtB(kFirst);
        return seen.WithSerial(ident) != nullptr;
    })) << "no LUN with serial " << ident << " for " << kFirst << " (" << seen.error << ")\n" << sim_->err;
    SeenLun lun = *seen.WithSerial(ident);
    EXPECT_EQ(lun.vendor, "TROV    ");
    EXPECT_EQ(lun.product, "R3000i          ");
    EXPECT_EQ(lun.serialText.size(), 32u) << lun.serialText;
    ASSERT_EQ(lun.naa.size(), 16u) << "no 16-byte NAA designator";
    EXPECT_EQ(lun.naa[0] >> 4, 6) << "NAA type";
    EXPECT_EQ(Hex(lun.naa, 8, 16), lun.serialText.substr(16, 16));
    EXPECT_EQ(Hex(lun.naa, 8, 13), ident.substr(16, 10));
    EXPECT_EQ(lun.bytes, 1ull << 30);
    EXPECT_TRUE(LookAtB(kSecond).WithSerial(ident)) << "a default view admits every initiator";

    // libiscsi's tools agree, where they are installed.
    const std::string url =
        "iscsi://127.0.0.1:" + std::to_string(port_) + "/" + kTargetB + "/" + std::to_string(lun.lun);
    if (!trovsim::FindProgram("", "iscsi-inq").empty()) {
        int rc = -1;
        std::string p80 =
            Output({trovsim::FindProgram("", "iscsi-inq"), "-i", kFirst, "-e", "1", "-c", "128", url}, &rc);
        EXPECT_EQ(rc, 0) << p80;
        EXPECT_NE(Lower(p80).find(ident), std::string::npos) << p80;
        std::string cap = Output({trovsim::FindProgram("", "iscsi-readcapacity16"), "-i", kFirst, url}, &rc);
        EXPECT_EQ(rc, 0) << cap;
        EXPECT_NE(cap.find("Total size:" + std::to_string(1ull << 30)), std::string::npos) << cap;
    } else {
        std::printf("libiscsi-bin is not installed: only the test initiator looked\n");
    }

    // Extend: the capacity grows.
    nlohmann::json grown = Trovctl({"extend", "size=1GB", "lun", name});
    ASSERT_TRUE(grown.is_object()) << grown;
    EXPECT_EQ(grown.value("ullSize", uint64_t(0)), 2ull << 30) << grown;
    EXPECT_TRUE(Eventually([&] {
        Seen seen = LookAtB(kFirst);
        const SeenLun* l = seen.WithSerial(ident);
        return l && l->bytes == (2ull << 30);
    })) << sim_->err;

    // Masked to the first initiator: it alone is admitted; then to the second: the first is
    // refused and the second sees the LUN at the same number.
    ASSERT_TRUE(Trovctl({"unmask", kFirst, "lun", name}).is_object());
    EXPECT_TRUE(Eventually([&] { return !LookAtB(kSecond).loggedIn; })) << sim_->err;
    EXPECT_TRUE(LookAtB(kFirst).WithSerial(ident));
    ASSERT_TRUE(Trovctl({"unmask", kSecond, "lun", name}).is_object());
    EXPECT_TRUE(Eventually([&] { return !LookAtB(kFirst).loggedIn; })) << sim_->err;
    Seen second = LookAtB(kSecond);
    ASSERT_TRUE(second.WithSerial(ident)) << second.error;
    EXPECT_EQ(second.WithSerial(ident)->lun, lun.lun);
    EXPECT_EQ(second.WithSerial(ident)->bytes, 2ull << 30);

    // Delete: gone for everyone.
    ASSERT_FALSE(Trovctl({"delete", "lun", name}).is_null());
    EXPECT_TRUE(Eventually([&] { return !LookAtB(kSecond).WithSerial(ident); })) << sim_->err;
    EXPECT_FALSE(LookAtB(kFirst).WithSerial(ident));
}

}  // namespace

// A target secret the provider sets for one initiator becomes the target's CHAP account: without it, or
// with another secret, that initiator is refused; with it, it logs in; cleared, it is let in as
// before.
TEST_F(ProviderPath, ATargetSecretForOneInitiatorIsItsChapAccountOnTheTarget) {
    nlohmann::json made = Trovctl({"create", "lun", "mirror", "size=64MB", std::string("unmask=") + kFirst,
                                   "pool=VD-SATA-R1"});
    ASSERT_TRUE(made.is_object()) << made;
    const std::string ident = Lower(made.value("pwszIdentification", ""));
    ASSERT_TRUE(Eventually([&] { return LookAtB(kFirst).WithSerial(ident) != nullptr; })) << sim_->err;

    // Twelve to sixteen characters: hosts ask for twelve, the array's record holds sixteen.
    const std::string secret = "chap-secret-0123";
    ASSERT_FALSE(Trovctl({"target", "secret", secret, "initiator", kFirst, "target", kTargetB}).is_null());
    auto withChap = [&](const std::string& user, const std::string& word, std::string* err) {
        Initiator ini;
        ini.SetChap(user, word);
        return ini.Login("127.0.0.1", port_, kFirst, kTargetB, err);
    };
    std::string err;
    EXPECT_TRUE(Eventually([&] { return !LookAtB(kFirst).loggedIn; })) << "still admitted without CHAP";
    EXPECT_TRUE(Eventually([&] { return withChap(kFirst, secret, &err); })) << err << "\n" << sim_->err;
    EXPECT_FALSE(withChap(kFirst, "another-secret-99", &err));
    EXPECT_NE(err.find("status 0x02"), std::string::npos) << err;
    {
        Initiator ini;
        ini.SetChap(kFirst, secret);
        ASSERT_TRUE(ini.Login("127.0.0.1", port_, kFirst, kTargetB, &err)) << err;
        std::vector<uint32_t> luns;
        EXPECT_TRUE(ini.ReportLuns(&luns));
        EXPECT_GE(luns.size(), 2u) << "the LUN is served in the CHAP session";
    }
    if (!trovsim::FindProgram("", "iscsi-ls").empty()) {
        int rc = -1;
        std::string url = "iscsi://" + std::string(kFirst) + "%" + secret + "@127.0.0.1:" + std::to_string(port_);
        std::string out = Output({trovsim::FindProgram("", "iscsi-ls"), "-i", kFirst, "-s", url}, &rc);
        EXPECT_EQ(rc, 0) << out;
        EXPECT_NE(out.find(kTargetB), std::string::npos) << out;
    }

    ASSERT_FALSE(Trovctl({"target", "secret", "-", "initiator", kFirst, "target", kTargetB}).is_null());
    EXPECT_TRUE(Eventually([&] { return LookAtB(kFirst).WithSerial(ident) != nullptr; })) << sim_->err;
}

// The provider moves a LUN (without a view, as it must be) to the other controller; mapped again
// it is served by that controller's target, at the number free there, with the data it had.
TEST_F(ProviderPath, ALunMovedToThePartnerControllerIsServedByItsTargetWithItsData) {
    nlohmann::json made = Trovctl({"create", "lun", "mirror", "size=64MB", "unmask=*", "pool=VD-SATA-R1"});
    ASSERT_TRUE(made.is_object()) << made;
    const std::string ident = Lower(made.value("pwszIdentification", ""));
    const std::string name = made.value("pwszFriendlyName", "");
    Seen seen;
    ASSERT_TRUE(Eventually([&] {
        seen = LookAtB(kFirst);
        return seen.WithSerial(ident) != nullptr;
    })) << seen.error << "\n" << sim_->err;
    std::vector<uint8_t> block(512);
    for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<uint8_t>(i * 13 + 5);
    {
        Initiator ini;
        std::string err;
        ASSERT_TRUE(ini.Login("127.0.0.1", port_, kFirst, kTargetB, &err)) << err;
        ASSERT_TRUE(ini.Write(seen.WithSerial(ident)->lun, 100, block));
    }

    ASSERT_TRUE(Trovctl({"unmask", "-", "lun", name}).is_object());
    ASSERT_TRUE(Trovctl({"associate", "controllerports", "0", "lun", name}).is_object());  // a port of A
    ASSERT_TRUE(Trovctl({"unmask", "*", "lun", name}).is_object());
    // Controller A's target also serves db01 to host01 alone: the union, and a warning saying so.
    Seen onA;
    ASSERT_TRUE(Eventually([&] {
        onA = Look(port_, kFirst, kTargetA);
        return onA.WithSerial(ident) != nullptr;
    })) << onA.error << "\n" << sim_->err;
    EXPECT_FALSE(LookAtB(kFirst).WithSerial(ident)) << "still on controller B's target";
    EXPECT_NE(onA.WithSerial(ident)->lun, 1u) << "db01 holds LUN 1 there";
    EXPECT_TRUE(sim_->WaitFor("views it cannot separate", 5000)) << sim_->err;
    Initiator ini;
    std::string err;
    ASSERT_TRUE(ini.Login("127.0.0.1", port_, kFirst, kTargetA, &err)) << err;
    std::vector<uint8_t> back;
    ASSERT_TRUE(ini.Read(onA.WithSerial(ident)->lun, 100, 1, &back));
    EXPECT_EQ(back, block);
}

class ProviderPathOnLoopback : public ProviderPath {
protected:
    ProviderPathOnLoopback() { loopback_ = true; }
};

// With loopback:PORT the portals the provider reports are addresses an initiator reaches: the
// detail of controller B's target names them, and a LUN made there is served on each.
TEST_F(ProviderPathOnLoopback, TheTargetsPortalsInItsDetailAreWhereItsLunsAreServed) {
    nlohmann::json target = Trovctl({"detail", "target", kTargetB});
    ASSERT_TRUE(target.is_object()) << target;
    ASSERT_TRUE(target.contains("portals") && target["portals"].is_array()) << target;
    std::vector<std::string> portals;
    for (const auto& p : target["portals"]) portals.push_back(p.is_string() ? p.get<std::string>() : p.dump());
    ASSERT_FALSE(portals.empty()) << target;
    const std::string suffix = ":" + std::to_string(port_);
    for (const std::string& p : portals) {
        EXPECT_EQ(p.rfind("127.1.2.", 0), 0u) << p << ": not controller B's loopback address";
        EXPECT_EQ(p.size() > suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix), 0) << p;
    }

    nlohmann::json made = Trovctl({"create", "lun", "mirror", "size=64MB", "unmask=*", "pool=VD-SATA-R1"});
    ASSERT_TRUE(made.is_object()) << made;
    const std::string ident = Lower(made.value("pwszIdentification", ""));
    for (const std::string& p : portals) {
        std::string address = p.substr(0, p.rfind(':'));
        Seen seen;
        EXPECT_TRUE(Eventually([&] {
            seen = Look(port_, kFirst, kTargetB, address);
            return seen.WithSerial(ident) != nullptr;
        })) << p << ": " << seen.error << "\n" << sim_->err;
    }
    // Discovery on one of them names the target at its controller's portals.
    Initiator ini;
    std::string err;
    ASSERT_TRUE(ini.Login(portals[0].substr(0, portals[0].rfind(':')), port_, kFirst, "", &err)) << err;
    std::vector<std::string> found = ini.SendTargets(&err);
    std::string all;
    for (const std::string& kv : found) all += kv + "\n";
    EXPECT_NE(all.find(std::string("TargetName=") + kTargetB), std::string::npos) << all;
    for (const std::string& p : portals) EXPECT_NE(all.find("TargetAddress=" + p), std::string::npos) << all;
}

// The initiator's secret the provider remembers on a target is what the target proves itself
// with (mutual CHAP): the target answers the initiator's challenge under its own name with that
// secret, and an initiator that expects another secret gives up.
TEST_F(ProviderPath, AnInitiatorSecretRememberedOnATargetIsWhatTheTargetProvesItselfWith) {
    nlohmann::json made = Trovctl({"create", "lun", "mirror", "size=64MB", std::string("unmask=") + kFirst,
                                   "pool=VD-SATA-R1"});
    ASSERT_TRUE(made.is_object()) << made;
    const std::string incoming = "incoming-secr-01", mutual = "mutual-secret-01";
    ASSERT_FALSE(Trovctl({"target", "secret", incoming, "initiator", kFirst, "target", kTargetB}).is_null());
    ASSERT_FALSE(Trovctl({"initiator", "secret", kFirst, mutual, "target", kTargetB}).is_null());
    std::string err;
    Initiator ini;
    ini.SetChap(kFirst, incoming, mutual);
    EXPECT_TRUE(Eventually([&] { return ini.Login("127.0.0.1", port_, kFirst, kTargetB, &err); }))
        << err << "\n" << sim_->err;
    EXPECT_EQ(ini.targetChapName(), kTargetB);
    ini.Close();
    Initiator wary;
    wary.SetChap(kFirst, incoming, "not-the-secret-0");
    EXPECT_FALSE(wary.Login("127.0.0.1", port_, kFirst, kTargetB, &err));
    EXPECT_NE(err.find("the target's CHAP answer is wrong"), std::string::npos) << err;
}
