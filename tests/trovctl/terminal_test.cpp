// The shell on a pseudo-terminal, as an operator types into it: Tab completion of commands and
// names in any case, secrets asked without echo and kept out of the history, and a notification
// that arrives while a line is typed, printed above it with the prompt and the line drawn again.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "child.h"

using testchild::Child;

namespace {

// A home folder of the test's own, for the history file.
class Home {
public:
    Home() {
        char tmpl[] = "/tmp/trovctl-home.XXXXXX";
        if (mkdtemp(tmpl)) path_ = tmpl;
    }
    ~Home() {
        std::remove(History().c_str());
        rmdir(path_.c_str());
    }
    std::string Env() const { return "HOME=" + path_; }
    std::string History() const { return path_ + "/.trovctl_history"; }
    std::string Read() const {
        std::stringstream s;
        s << std::ifstream(History()).rdbuf();
        return s.str();
    }

private:
    std::string path_;
};

TEST(Terminal, TabCompletesCommandsKindsAndNamesInAnyCase) {
    Home home;
    Child sh({TROVCTL_BIN, "shell"}, {"-TROVHWIPRV_SETTINGS", home.Env(), "TERM=dumb"}, /*pty=*/true);
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 10000)) << sh.out;
    sh.out.clear();
    sh.Write("LIST dri\t");
    ASSERT_TRUE(sh.WaitFor("LIST drives ", 5000)) << sh.out;
    sh.Write("\n");
    ASSERT_TRUE(sh.WaitFor("drives (12)", 5000)) << sh.out;
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000, sh.out.find("drives (12)"))) << sh.out;
    sh.out.clear();
    // A LUN by the beginning of its name: the name is completed, and the detail is that LUN's.
    sh.Write("detail lun lo\t");
    ASSERT_TRUE(sh.WaitFor("detail lun logs01 ", 5000)) << sh.out;
    sh.Write("\n");
    ASSERT_TRUE(sh.WaitFor("pwszFriendlyName", 5000)) << sh.out;
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000, sh.out.find("pwszFriendlyName"))) << sh.out;
    EXPECT_NE(sh.out.find("pwszFriendlyName   : logs01"), std::string::npos) << sh.out;
    sh.Write("quit\n");
    EXPECT_TRUE(sh.Finish(10000));
}

TEST(Terminal, SecretsAreAskedWithoutEchoAndKeptOutOfTheHistory) {
    Home home;
    Child sh({TROVCTL_BIN, "shell"}, {"-TROVHWIPRV_SETTINGS", home.Env(), "TERM=dumb"}, /*pty=*/true);
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 10000)) << sh.out;
    sh.Write("target secret target 0\n");
    ASSERT_TRUE(sh.WaitFor("CHAP secret of target 0", 5000)) << sh.out;
    sh.Write("unseen-secret1\n");
    ASSERT_TRUE(sh.WaitFor("target secret: done", 5000)) << sh.out;
    sh.Write("target secret onthe-line12 target 1\n");
    ASSERT_TRUE(sh.WaitFor("onthe-line12", 5000)) << sh.out;  // the echo of the line
    ASSERT_TRUE(sh.WaitFor("target secret: done", 5000, sh.out.find("onthe-line12"))) << sh.out;
    sh.Write("list controllers\n");
    ASSERT_TRUE(sh.WaitFor("controllers (2)", 5000)) << sh.out;
    sh.Write("quit\n");
    ASSERT_TRUE(sh.Finish(10000));
    EXPECT_EQ(sh.out.find("unseen-secret1"), std::string::npos) << "echoed: " << sh.out;
    std::string history = home.Read();
    EXPECT_NE(history.find("target secret target 0\n"), std::string::npos) << history;  // no secret on it
    EXPECT_NE(history.find("list controllers\n"), std::string::npos) << history;
    EXPECT_EQ(history.find("onthe-line12"), std::string::npos) << history;
    EXPECT_EQ(history.find("unseen-secret1"), std::string::npos) << history;
}

TEST(Terminal, ThePasswordIsAskedWithoutEchoForAKelvaneConfWithoutOne) {
    const std::string conf = "/tmp/trovctl-ask-" + std::to_string(getpid()) + ".conf";
    Child sim({TROVSIM_BIN, "--port", "0", "--no-stdin", "--password", "typed-in"});
    ASSERT_TRUE(sim.WaitFor("listening on 127.0.0.1:", 10000)) << sim.err;
    ASSERT_TRUE(sim.WaitFor("\n", 10000, sim.err.find("127.0.0.1:")));
    size_t at = sim.err.find("127.0.0.1:") + 10;
    std::string port = sim.err.substr(at, sim.err.find('\n', at) - at);
    std::ofstream(conf) << "version  :1\nipaddress:127.0.0.1\nusername :admin\nport     :" + port + "\n";
    Child run({TROVCTL_BIN, "--proxy-conf", conf, "--ask-password", "list", "controllers"},
              {"-TROVCTL_PROXY_PASSWORD", "TERM=dumb"}, /*pty=*/true);
    ASSERT_TRUE(run.WaitFor("password of the proxy service: ", 10000)) << run.out;
    run.Write("typed-in\n");
    ASSERT_TRUE(run.Finish(30000)) << run.out;
    EXPECT_EQ(run.exitCode(), 0) << run.out;
    EXPECT_NE(run.out.find("controllers (2)"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("typed-in"), std::string::npos) << "echoed: " << run.out;
    std::remove(conf.c_str());
}

TEST(Terminal, ANotificationDuringInputIsPrintedAboveTheLineWhichComesAgain) {
    std::string conf = "/tmp/trovctl-redraw-" + std::to_string(getpid()) + ".conf";
    Child sim({TROVSIM_BIN, "--port", "0", "--write-conf", conf});
    ASSERT_TRUE(sim.WaitFor("wrote " + conf, 10000)) << sim.err;
    Home home;
    Child sh({TROVCTL_BIN, "--proxy-conf", conf, "shell"}, {home.Env(), "TERM=dumb"}, /*pty=*/true);
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 10000)) << sh.out;
    sh.Write("watch on\n");
    ASSERT_TRUE(sh.WaitFor("watching: ", 5000)) << sh.out;
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000, sh.out.find("watching: "))) << sh.out;
    sh.Write("list dri");
    ASSERT_TRUE(sh.WaitFor("list dri", 5000, sh.out.find("watching: "))) << sh.out;
    sh.out.clear();
    // The drive leaves; the provider's monitor sees it within its ten-second round.
    sim.Write("event 0x01000100 62 0 3SJ01205K\n");
    ASSERT_TRUE(sh.WaitFor("notification: drive depart", 25000)) << sh.out;
    size_t at = sh.out.find("notification: drive depart");
    ASSERT_TRUE(sh.WaitFor("trovctl> list dri", 5000, at)) << sh.out;
    sh.Write("ves\n");  // the line goes on where it was
    ASSERT_TRUE(sh.WaitFor("drives (", 5000, at)) << sh.out;
    sh.Write("quit\n");
    EXPECT_TRUE(sh.Finish(10000));
    std::remove(conf.c_str());
}

}  // namespace
