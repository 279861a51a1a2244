// Signals as an operator sends them: the emulator stops at once whatever its input is doing;
// trovctl leaves a one-shot command after unloading the provider, and in the shell Ctrl-C
// interrupts a command and returns to the prompt, and twice on an empty line leaves.
#include <gtest/gtest.h>

#include <signal.h>

#include <cstdio>
#include <string>

#include "child.h"

using testchild::Child;

namespace {

TEST(Emulator, StopsWithinASecondOnASignalWhileItsInputIsAnOpenPipe) {
    for (int sig : {SIGTERM, SIGINT}) {
        SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
        Child sim({TROVSIM_BIN, "--port", "0", "--quiet"});
        ASSERT_TRUE(sim.WaitFor("listening on", 10000)) << sim.err;
        // A control line answered: the reader of standard input is running, and then waits on
        // the pipe, which stays open.
        sim.Write("stats\n");
        ASSERT_TRUE(sim.WaitFor("connections 0", 10000)) << sim.out;
        sim.Signal(sig);
        EXPECT_TRUE(sim.Reap(1000)) << "still running a second after the signal";
        EXPECT_TRUE(sim.exited());
        EXPECT_EQ(sim.exitCode(), 0);
    }
}

// The emulator for trovctl to use, with its kelvane.conf in /tmp; logs every request.
class Emulator {
public:
    Emulator() : conf_(std::string("/tmp/trovctl-signal-") + std::to_string(getpid()) + ".conf"),
                 sim_({TROVSIM_BIN, "--port", "0", "--no-stdin", "--write-conf", conf_}) {}
    ~Emulator() { std::remove(conf_.c_str()); }
    bool Ready() { return sim_.WaitFor("wrote " + conf_, 10000); }
    const std::string& conf() const { return conf_; }
    Child& sim() { return sim_; }

private:
    std::string conf_;
    Child sim_;
};

TEST(Trovctl, CtrlCEndsAOneShotCommandAfterUnloadingTheProvider) {
    Emulator e;
    ASSERT_TRUE(e.Ready()) << e.sim().err;
    Child run({TROVCTL_BIN, "--proxy-conf", e.conf(), "watch", "60"});
    // The load is over when the provider has announced its listen port.
    ASSERT_TRUE(e.sim().WaitFor("listen port", 10000)) << e.sim().err;
    run.Signal(SIGINT);
    ASSERT_TRUE(run.Finish(10000)) << "trovctl still runs after a Ctrl-C";
    EXPECT_EQ(run.termSignal(), SIGINT) << "it ends as by the signal";
    // The provider said goodbye to the service: it was unloaded, not cut off.
    EXPECT_TRUE(e.sim().WaitFor("goodbye", 5000)) << e.sim().err;
}

TEST(Trovctl, CtrlCEndsAOneShotCommandWhoseProviderCallDoesNotReturn) {
    std::string conf = std::string("/tmp/trovctl-silent-") + std::to_string(getpid()) + ".conf";
    Child sim({TROVSIM_BIN, "--port", "0", "--no-stdin", "--never-answer", "--write-conf", conf});
    ASSERT_TRUE(sim.WaitFor("wrote " + conf, 10000)) << sim.err;
    Child run({TROVCTL_BIN, "--proxy-conf", conf, "info"});
    ASSERT_TRUE(sim.WaitFor("conn 1: connected", 10000)) << sim.err;  // the load waits for its answer
    run.Signal(SIGINT);
    // The call cannot be cut short: the program ends without the unload, a grace time later.
    EXPECT_TRUE(run.Finish(10000)) << "trovctl still runs after a Ctrl-C";
    EXPECT_EQ(run.termSignal(), SIGINT);
    std::remove(conf.c_str());
}

TEST(Trovctl, CtrlCInTheShellInterruptsTheCommandAndTwiceOnAnEmptyLineLeaves) {
    Child sh({TROVCTL_BIN, "shell"}, {"-TROVHWIPRV_SETTINGS", "HOME=/nonexistent"}, /*pty=*/true);
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 10000)) << sh.out;
    sh.Write("watch 60\n");
    ASSERT_TRUE(sh.WaitFor("watch 60", 5000)) << sh.out;  // the echo of the line
    sh.out.clear();
    auto start = testchild::Clock::now();
    sh.Write("\x03");  // the terminal's interrupt character: SIGINT to the shell
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000)) << sh.out;
    EXPECT_LT(testchild::MsSince(start), 5000) << "the watch went on";
    sh.Write("list con");  // a line being typed is dropped by Ctrl-C
    ASSERT_TRUE(sh.WaitFor("list con", 5000));
    sh.out.clear();
    sh.Write("\x03");
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000)) << sh.out;
    EXPECT_EQ(sh.out.find("leave"), std::string::npos) << "not on an empty line: " << sh.out;
    sh.out.clear();
    sh.Write("info\n");
    ASSERT_TRUE(sh.WaitFor("sRebuildPriority", 5000)) << sh.out;  // the last line of info
    ASSERT_TRUE(sh.WaitFor("trovctl> ", 5000, sh.out.find("sRebuildPriority"))) << sh.out;
    sh.out.clear();
    sh.Write("\x03");
    ASSERT_TRUE(sh.WaitFor("Ctrl-C again or Ctrl-D to leave", 5000)) << sh.out;
    EXPECT_FALSE(sh.Reap(100));  // one Ctrl-C does not leave
    sh.Write("\x03");
    EXPECT_TRUE(sh.Finish(10000)) << sh.out;
    EXPECT_TRUE(sh.exited());
    EXPECT_EQ(sh.exitCode(), 0) << "the last command, info, succeeded";
}

}  // namespace
