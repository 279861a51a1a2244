// Signals as an operator sends them: the emulator stops at once whatever its input is doing.
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

}  // namespace
