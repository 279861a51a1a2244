// The Linux platform's own pieces that the fake platform doesn't stand in for: events across
// threads, the exchange lock's try, users, and the append file's length and cut.
// Real waits here are a few milliseconds at most.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "platform/platform.h"
#include "support/temp_dir.h"

namespace {

Platform* Linux() { return Platform::Default(); }

TEST(LinuxPlatform, AnEventSetByAnotherThreadEndsTheWaitAndStaysSetUntilReset) {
    std::unique_ptr<PlatformEvent> ev = Linux()->CreateEvent();
    EXPECT_FALSE(ev->IsSet());
    EXPECT_FALSE(ev->Wait(5));  // nobody sets it: the wait runs out
    std::unique_ptr<PlatformThread> t = Linux()->StartThread([&ev] { ev->Set(); });
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(ev->Wait(60000));
    t->Join();
    EXPECT_TRUE(ev->Wait(0));  // manual reset: still set
    ev->Reset();
    EXPECT_FALSE(ev->IsSet());
}

TEST(LinuxPlatform, TryWaitMutexTakesOnlyAFreeOrOwnMutex) {
    MutexHandle h = Linux()->CreateNamedMutex("linux_platform_test_lock");
    ASSERT_NE(h, nullptr);
    EXPECT_TRUE(Linux()->TryWaitMutex(nullptr));  // no mutex: runs unlocked
    ASSERT_EQ(Linux()->WaitMutex(h), 0u);
    EXPECT_TRUE(Linux()->TryWaitMutex(h));  // recursive for its owner
    Linux()->ReleaseMutex(h);
    bool other = true;
    std::thread([&] { other = Linux()->TryWaitMutex(h); }).join();
    EXPECT_FALSE(other);  // held by this thread: another can't take it
    Linux()->ReleaseMutex(h);
    std::thread([&] {
        other = Linux()->TryWaitMutex(h);
        if (other) Linux()->ReleaseMutex(h);
    }).join();
    EXPECT_TRUE(other);
    Linux()->CloseNamedMutex(h);
}

TEST(LinuxPlatform, UsersByName) {
    uint32_t uid = 77;
    ASSERT_TRUE(Linux()->LookupUserId("root", &uid));
    EXPECT_EQ(uid, 0u);
    uid = 77;
    EXPECT_FALSE(Linux()->LookupUserId("no-such-user-of-this-test", &uid));
    EXPECT_EQ(uid, 77u);
    EXPECT_EQ(Linux()->EffectiveUserId(), static_cast<uint32_t>(geteuid()));
}

TEST(LinuxPlatform, AppendFileLengthCutAndReadBack) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    const std::string path = dir.File("append.log");
    TempDir::Write(path, "old\n");
    int err = -1;
    std::unique_ptr<PlatformFile> f = Linux()->OpenAppendFile(path, &err);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_TRUE(f->Write("new\n", 4));
    EXPECT_EQ(f->Length(), 8);
    EXPECT_TRUE(f->Truncate());
    EXPECT_EQ(f->Length(), 0);
    EXPECT_TRUE(f->Write("after\n", 6));
    std::string text;
    ASSERT_TRUE(Linux()->ReadTextFile(path, &text, &err));
    EXPECT_EQ(text, "after\n");

    EXPECT_EQ(Linux()->OpenAppendFile(dir.File("no/such/dir.log"), &err), nullptr);
    EXPECT_EQ(err, ENOENT);
    EXPECT_FALSE(Linux()->ReadTextFile(dir.File("absent"), &text, &err));
    EXPECT_EQ(err, ENOENT);
    EXPECT_FALSE(Linux()->ReadTextFile(dir.File(""), &text, &err));  // a folder can't be read as text
    EXPECT_EQ(err, EISDIR);
}

}  // namespace
