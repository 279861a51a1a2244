// The commands of a LUN's life after its creation (extend, shrink, delete, masking, controllers,
// ports and targets, hints, conversion): their words and what they refuse before the provider is
// asked, and that the provider's refusal reaches the user by name and number with status 1 and
// the array as it was. The provider answers E_NOTIMPL for these calls until its work on them
// lands; the tests of their success paths against the array come with it.
#include <cstdio>
#include <string>

#include "child.h"
#include "loaded_array_shell.h"
#include "render.h"

namespace {

using LunLife = LoadedArrayShell;

std::multiset<std::pair<std::string, uint64_t>> LayoutOf(LunLife& t) {
    std::multiset<std::pair<std::string, uint64_t>> all;
    for (const VdiskView& v : t.Vdisks()) {
        all.insert({"vdisk " + v.name, v.members.size()});
        for (auto& p : v.parts) all.insert(p);
    }
    return all;
}

}  // namespace

TEST_F(LunLife, BadWordsAreRefusedBeforeTheProviderIsAsked) {
    auto layout = LayoutOf(*this);
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
        EXPECT_EQ(LayoutOf(*this), layout);
    }
}

TEST_F(LunLife, TheProvidersRefusalIsPrintedByNameAndNumber) {
    auto layout = LayoutOf(*this);
    const char* notImpl = "failed: E_NOTIMPL (0x80004001)";
    struct Case {
        const char* line;
        const char* call;
    } cases[] = {
        {"extend size=1GB lun db01", "Extend"},
        {"extend drives=4,5 lun db01", "Extend"},
        {"shrink size=1GB lun db01", "Shrink"},
        {"delete lun db01", "Delete"},  // no terminal here: nothing is asked
        {"delete lun --yes db01", "Delete"},
        {"unmask * lun db01", "SetMask"},
        {"unmask - lun db01", "SetMask"},
        {"unmask iqn.1991-05.com.example:a;iqn.1991-05.com.example:b lun db01", "SetMask"},
        {"associate controllerports 0,1 lun db01", "AssociateControllerPorts"},
        {"associate controllerports 0 inactive=2 lun db01", "AssociateControllerPorts"},
        {"associate targets 0 lun db01", "AssociateTargets"},
        {"activecontrollers lun db01", "QueryActiveControllers"},
        {"activeports lun db01", "QueryActiveControllerPorts"},
        {"associatedtargets lun db01", "QueryAssociatedTargets"},
        {"hints lun db01", "QueryHints2"},
        {"hints plex 0", "QueryHints"},
        {"hints set writethrough=on sequentialreads sequentialwrites lun db01", "ApplyHints2"},
        {"convert master lun db01", "ApplyHints"},
        {"convert standard lun db01", "ApplyHints"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        Result r = Run(c.line);
        EXPECT_EQ(r.rc, trovctl::kFailed) << r.out << r.err;
        EXPECT_NE(r.err.find(std::string(c.call) + " " + notImpl), std::string::npos) << r.err;
        EXPECT_TRUE(r.out.empty()) << r.out;
        EXPECT_EQ(LayoutOf(*this), layout);
    }
    // Under --json the refusal is an error object too.
    Result j = Run("extend size=1GB lun db01", true);
    EXPECT_EQ(j.rc, trovctl::kFailed);
    Json e = Json::parse(j.out, nullptr, false);
    EXPECT_EQ(e["error"], "E_NOTIMPL");
    EXPECT_EQ(e["code"], 0x80004001u);
    // The LUN is still there, and so is the selection a refused delete left.
    ASSERT_EQ(Run("select lun db01").rc, 0);
    EXPECT_EQ(Run("delete lun").rc, trovctl::kFailed);
    EXPECT_EQ(JsonOf("detail")["pwszFriendlyName"], "db01");
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
        const char* then;
    } cases[] = {
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "n\n", true, "not deleted"},
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "\n", true, "not deleted"},
        {{TROVCTL_BIN, "delete", "lun", "db01"}, "yes\n", true, "Delete failed: E_NOTIMPL"},
        {{TROVCTL_BIN, "--yes", "delete", "lun", "db01"}, "", false, "Delete failed: E_NOTIMPL"},
        {{TROVCTL_BIN, "delete", "lun", "db01", "--yes"}, "", false, "Delete failed: E_NOTIMPL"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.argv.back() + " " + c.answer);
        testchild::Child run(c.argv, {"-TROVHWIPRV_SETTINGS", "TERM=dumb"}, /*pty=*/true);
        if (c.asked) {
            ASSERT_TRUE(run.WaitFor("delete lun 0 (db01) of 200 GiB and its data? [y/N] ", 10000)) << run.out;
            run.Write(c.answer);
        }
        ASSERT_TRUE(run.Finish(10000)) << run.out;
        EXPECT_EQ(run.exitCode(), 1) << run.out;
        EXPECT_NE(run.out.find(c.then), std::string::npos) << run.out;
        if (!c.asked) EXPECT_EQ(run.out.find("[y/N]"), std::string::npos) << run.out;
    }
}
