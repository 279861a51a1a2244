// The debug log on the fake platform: configuration, file handling, pieces and time stamps,
// truncation, the hex dump, the unmask list and the event reports.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testlib/fake_platform.h"
#include "support/debuglog.h"
#include "support/temp_dir.h"

namespace {

const char* const kStamp = "Mar 07, 2026 09:05:04: ";  // the fake platform's fixed local time

// Records each piece handed to the debugger sink, so that piece boundaries can be checked.
class PieceRecorder : public TestPlatform {
public:
    void DebuggerOutput(const char* text) override {
        {
            std::lock_guard<std::mutex> g(piecesMu);
            pieces.push_back(text);
        }
        TestPlatform::DebuggerOutput(text);
    }
    // Counted: the "[pid/tid] " prefix asks for it, so it tells whether a line was formatted.
    uint32_t ProcessId() override {
        ++pidCalls;
        return TestPlatform::ProcessId();
    }
    std::atomic<int> pidCalls{0};
    std::mutex piecesMu;
    std::vector<std::string> pieces;  // read by the test once the logging threads are done
};

class DebugLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        tp_.Install();
        DebugLogResetForTest();
        ASSERT_TRUE(dir_.ok());
        logFile_ = dir_.File("debug.log");
    }
    void TearDown() override { DebugLogResetForTest(); }

    SettingsStore& settings() { return tp_.settings(); }
    void SetDword(const char* name, uint32_t v) { settings().SetDword(TROV_DEBUG_KEY, name, v); }
    void UseFile() { settings().SetString(TROV_DEBUG_KEY, "FileName", logFile_); }
    // Debugger only: no file, every piece recorded.
    void OpenDebuggerOnly() {
        SetDword("ToFile", 0);
        SetDword("ToDebugger", 1);
        DebugOpen(nullptr);
        tp_.pieces.clear();
    }
    std::string Prefix() {
        return TrovFormatString("[%04d/%04d] ", static_cast<int>(Plat()->ProcessId()),
                                static_cast<int>(Plat()->ThreadId()));
    }
    std::string LogText() { return TempDir::Read(logFile_); }
    // Writes filler lines until the call count stands at `count`.
    void WriteUntil(uint32_t count) {
        while (DebugCallCount() < count) DebugWrite("filler\n");
    }

    PieceRecorder tp_;
    TempDir dir_;
    std::string logFile_;
};

std::string Header() {
    return std::string(80, '#') + "\n# Debug file opened on Mar 07, 2026 09:05:04.\n";
}

TEST_F(DebugLogTest, ReadsTheSettingsAndKeepsDefaultsForMissingOrWrongValues) {
    struct Want {
        std::string fileName;
        uint32_t toFile, toDebugger, timeStamp, forceFlush, maxFileLength, debugLevel;
    };
    const Want defaults{"", 1, 0, 1, 1, 0, 1};
    struct Case {
        const char* name;
        std::function<void()> set;
        Want want;
    } cases[] = {
        {"no debug key", [] {}, defaults},
        {"every value, the flags normalised",
         [&] {
             settings().SetString(TROV_DEBUG_KEY, "FileName", "/var/log/vds.debug");
             SetDword("ToFile", 0);
             SetDword("ToDebugger", 7);
             SetDword("TimeStamp", 0);
             SetDword("ForceFlush", 0x80000000u);
             SetDword("MaxFileLength", 123456);
             SetDword("DebugLevel", 5);
         },
         {"/var/log/vds.debug", 0, 1, 0, 1, 123456, 5}},
        {"values of the wrong type",
         [&] {
             settings().SetDword(TROV_DEBUG_KEY, "FileName", 1);
             settings().SetString(TROV_DEBUG_KEY, "ToFile", "0");
             settings().SetOther(TROV_DEBUG_KEY, "TimeStamp");
         },
         defaults},
        // 511 characters and the terminator fill the 1024-byte read; one more fails the read.
        {"a file name too long to read",
         [&] { settings().SetString(TROV_DEBUG_KEY, "FileName", std::string(512, 'a')); }, defaults},
        {"a file name that fills the read",
         [&] { settings().SetString(TROV_DEBUG_KEY, "FileName", std::string(511, 'b')); },
         {std::string(255, 'b'), 1, 0, 1, 1, 0, 1}},
        {"a file name narrowed by the low byte of each character",  // U+00E9, U+0141
         [&] { settings().SetString(TROV_DEBUG_KEY, "FileName", "/tmp/\xC3\xA9\xC5\x81.log"); },
         {"/tmp/\xE9\x41.log", 1, 0, 1, 1, 0, 1}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const char* name :
             {"FileName", "ToFile", "ToDebugger", "TimeStamp", "ForceFlush", "MaxFileLength", "DebugLevel"})
            settings().RemoveValue(TROV_DEBUG_KEY, name);
        c.set();
        DebugConfig got;
        std::memset(&got, 0x5A, sizeof got);
        ReadDebugConfig(&got);
        EXPECT_EQ(std::string(got.FileName), c.want.fileName);
        EXPECT_EQ(got.ToFile, c.want.toFile);
        EXPECT_EQ(got.ToDebugger, c.want.toDebugger);
        EXPECT_EQ(got.TimeStamp, c.want.timeStamp);
        EXPECT_EQ(got.ForceFlush, c.want.forceFlush);
        EXPECT_EQ(got.MaxFileLength, c.want.maxFileLength);
        EXPECT_EQ(got.DebugLevel, c.want.debugLevel);
    }
}

TEST_F(DebugLogTest, NothingGoesAnywhereUntilTheHundredthCallReadsTheSettings) {
    SetDword("ToDebugger", 1);
    for (int i = 1; i < 100; ++i) DebugWrite("early %d\n", i);
    EXPECT_TRUE(tp_.pieces.empty());
    EXPECT_EQ(CurrentDebugConfig().ToDebugger, 0u);
    DebugWrite("call %d\n", 100);
    ASSERT_EQ(tp_.pieces.size(), 1u);
    EXPECT_EQ(tp_.pieces[0], "call 100\n");
    EXPECT_EQ(CurrentDebugConfig().ToDebugger, 1u);
}

TEST_F(DebugLogTest, OpenWritesHeaderAndConfiguration) {
    UseFile();
    SetDword("MaxFileLength", 0);
    DebugOpen(nullptr);
    DebugClose();
    std::string want = Header();
    for (const char* line : {"Current debug configuration:\n", "    FileName=", "    ToFile=1\n", "    ToDebugger=0\n",
                             "    TimeStamp=1\n", "    ForceFlush=1\n", "    MaxFileLength=0\n", "    DebugLevel=1\n"}) {
        want += kStamp;
        want += line;
        if (std::string(line) == "    FileName=") want += logFile_ + "\n";
    }
    EXPECT_EQ(LogText(), want);
}

TEST_F(DebugLogTest, GivenFileNameReplacesTheSetting) {
    settings().SetString(TROV_DEBUG_KEY, "FileName", dir_.File("other.log"));
    DebugOpen(logFile_.c_str());
    DebugTrace("hello\n");
    DebugClose();
    EXPECT_EQ(TempDir::Size(dir_.File("other.log")), -1);
    EXPECT_NE(LogText().find(Prefix() + "hello\n"), std::string::npos);
}

TEST_F(DebugLogTest, OpenAppendsToAnExistingFile) {
    TempDir::Write(logFile_, "old line\n");
    UseFile();
    DebugOpen(nullptr);
    DebugClose();
    EXPECT_EQ(LogText().rfind("old line\n" + Header(), 0), 0u);
}

TEST_F(DebugLogTest, SecondOpenNeedsSecondClose) {
    UseFile();
    DebugOpen(nullptr);
    DebugOpen(nullptr);
    DebugClose();
    DebugWrite("still open\n");
    DebugClose();
    DebugWrite("after close\n");
    std::string text = LogText();
    EXPECT_NE(text.find("Debug File already opened.\n"), std::string::npos);
    EXPECT_NE(text.find(std::string(kStamp) + "still open\n"), std::string::npos);
    EXPECT_EQ(text.find("after close"), std::string::npos);
    // The header was written once only.
    EXPECT_EQ(text.find("# Debug file opened"), text.rfind("# Debug file opened"));
}

TEST_F(DebugLogTest, FailedOpenReportsOnStderrAndStillCounts) {
    struct Case {
        const char* name;
        const char* file;
        int injected;  // errno the platform fails the open with; 0: a real failure
        const char* message;
    } cases[] = {
        {"missing folder", "missing/dir/debug.log", 0, "Error 'No such file or directory' (2) opening debug output file.\n"},
        {"refused", "debug.log", EACCES, "Error 'Permission denied' (13) opening debug output file.\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DebugLogResetForTest();
        tp_.ClearRecords();
        logFile_ = dir_.File(c.file);
        UseFile();
        SetDword("ToDebugger", 1);
        tp_.FailFiles(c.injected ? "debug.log" : "", c.injected);
        testing::internal::CaptureStderr();
        DebugOpen(nullptr);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err, c.message);
        tp_.FailFiles("", 0);
        DebugTrace("goes to the debugger only\n");
        EXPECT_EQ(tp_.DebuggerText(), Prefix() + "goes to the debugger only\n");
        DebugClose();
        EXPECT_EQ(TempDir::Size(logFile_), -1);
    }
}

TEST_F(DebugLogTest, WriteErrorsLoseTheirLinesAndNothingElse) {
    UseFile();
    SetDword("ToDebugger", 1);
    SetDword("TimeStamp", 0);
    DebugOpen(nullptr);
    DebugWrite("before\n");
    tp_.FailFiles("debug.log", EIO);
    DebugWrite("lost\n");
    tp_.FailFiles("", 0);
    DebugWrite("after\n");
    DebugClose();
    std::string text = LogText();
    EXPECT_NE(text.find("before\nafter\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("lost"), std::string::npos);
    EXPECT_NE(tp_.DebuggerText().find("before\nlost\nafter\n"), std::string::npos);  // the debugger had it all
}

TEST_F(DebugLogTest, NothingIsFormattedWhileNoSinkTakesTextButTheCountGoesOn) {
    DebugOpen(nullptr);  // the defaults: ToFile without a file name, no debugger
    const uint32_t calls = DebugCallCount();
    tp_.pidCalls = 0;
    for (int i = 0; i < 98; ++i) DebugTrace("unseen %d\n", i);
    DebugDump("    ", "abcd", 4);
    EXPECT_EQ(tp_.pidCalls.load(), 0);
    EXPECT_EQ(DebugCallCount(), calls + 99);
    // A sink switched on in the settings starts with the next re-read, the hundredth call.
    SetDword("ToDebugger", 1);
    DebugTrace("seen %d\n", 100);
    EXPECT_EQ(tp_.pidCalls.load(), 1);
    EXPECT_EQ(tp_.pieces, std::vector<std::string>{Prefix() + "seen 100\n"});
    DebugClose();
}

TEST_F(DebugLogTest, NoFileWhenToFileIsOff) {
    UseFile();
    SetDword("ToFile", 0);
    DebugOpen(nullptr);
    DebugTrace("x\n");
    DebugClose();
    EXPECT_EQ(TempDir::Size(logFile_), -1);
}

TEST_F(DebugLogTest, TwoLinesGiveTwoPiecesAndTwoStamps) {
    UseFile();
    SetDword("ToDebugger", 1);
    DebugOpen(nullptr);
    size_t before = LogText().size();
    tp_.pieces.clear();
    DebugTrace("first %d\nsecond %s\n", 1, "two");
    DebugClose();
    ASSERT_EQ(tp_.pieces.size(), 2u);
    EXPECT_EQ(tp_.pieces[0], Prefix() + "first 1\n");
    EXPECT_EQ(tp_.pieces[1], "second two\n");
    EXPECT_EQ(LogText().substr(before), kStamp + Prefix() + "first 1\n" + kStamp + "second two\n");
}

TEST_F(DebugLogTest, OpenLineContinuesWithoutStamp) {
    UseFile();
    DebugOpen(nullptr);
    size_t before = LogText().size();
    DebugWrite("values:");
    DebugWrite(" %02X", 0xAB);
    DebugTrace(" end\n");
    DebugWrite("next\n");
    DebugWrite("");  // an empty message still opens a line: its stamp, no text
    DebugClose();
    EXPECT_EQ(LogText().substr(before),
              kStamp + std::string("values: AB") + Prefix() + " end\n" + kStamp + "next\n" + kStamp);
}

TEST_F(DebugLogTest, NoStampsWhenTimeStampIsOff) {
    UseFile();
    SetDword("TimeStamp", 0);
    DebugOpen(nullptr);
    DebugWrite("a\nb\n");
    DebugClose();
    std::string text = LogText();
    EXPECT_EQ(text.find(kStamp), std::string::npos);
    EXPECT_NE(text.find("\na\nb\n"), std::string::npos);
}

TEST_F(DebugLogTest, LongMessagesAreCut) {
    OpenDebuggerOnly();
    std::string big(4000, 'm');
    DebugTrace("%s", big.c_str());
    ASSERT_EQ(tp_.pieces.size(), 1u);
    EXPECT_EQ(tp_.pieces[0].size(), 1000u);
    EXPECT_EQ(tp_.pieces[0], Prefix() + std::string(1000 - Prefix().size(), 'm'));

    tp_.pieces.clear();
    DebugWrite("%s", big.c_str());
    ASSERT_EQ(tp_.pieces.size(), 1u);
    EXPECT_EQ(tp_.pieces[0], std::string(2047, 'm'));
}

TEST_F(DebugLogTest, DebuggerStillWorksAfterClose) {
    UseFile();
    SetDword("ToDebugger", 1);
    DebugOpen(nullptr);
    DebugClose();
    tp_.ClearRecords();
    DebugTrace("late\n");
    EXPECT_EQ(tp_.DebuggerText(), Prefix() + "late\n");
}

TEST_F(DebugLogTest, MaxFileLengthZeroNeverCuts) {
    TempDir::Write(logFile_, std::string(100000, 'o') + "\n");
    UseFile();
    DebugOpen(nullptr);
    WriteUntil(250);
    DebugClose();
    std::string text = LogText();
    EXPECT_EQ(text.find("Truncated"), std::string::npos);
    EXPECT_EQ(text.rfind(std::string(100000, 'o'), 0), 0u);
}

TEST_F(DebugLogTest, FileOfExactlyMaxIsKeptOneMoreIsCut) {
    UseFile();
    DebugOpen(nullptr);
    WriteUntil(99);
    long long size = TempDir::Size(logFile_);
    SetDword("MaxFileLength", static_cast<uint32_t>(size));
    DebugWrite("hundredth\n");  // re-reads the settings, then checks: exactly N bytes stay
    EXPECT_EQ(TempDir::Size(logFile_), size + static_cast<long long>(std::strlen(kStamp) + 10));
    EXPECT_EQ(CurrentDebugConfig().MaxFileLength, static_cast<uint32_t>(size));

    WriteUntil(199);
    size = TempDir::Size(logFile_);
    SetDword("MaxFileLength", static_cast<uint32_t>(size - 1));
    DebugWrite("two hundredth\n");
    DebugClose();
    EXPECT_EQ(LogText(), kStamp + TrovFormatString("Truncated debug file, length was %I64d\n", size) + kStamp +
                             "two hundredth\n");
}

TEST_F(DebugLogTest, OpenCutsAnOverlongFileFirst) {
    TempDir::Write(logFile_, std::string(500, 'x'));
    UseFile();
    SetDword("MaxFileLength", 100);
    SetDword("TimeStamp", 0);
    DebugOpen(nullptr);
    DebugClose();
    EXPECT_EQ(LogText().rfind("Truncated debug file, length was 500\n" + Header(), 0), 0u);
}

TEST_F(DebugLogTest, CheckWithoutStreamFails) {
    EXPECT_EQ(CheckDebugFileLength(nullptr), 1);
}

TEST_F(DebugLogTest, RemovingFileNameWhileOpenKeepsTheStream) {
    UseFile();
    DebugOpen(nullptr);
    settings().RemoveValue(TROV_DEBUG_KEY, "FileName");
    WriteUntil(100);
    EXPECT_STREQ(CurrentDebugConfig().FileName, "");
    DebugTrace("after the re-read\n");
    DebugClose();
    EXPECT_NE(LogText().find(Prefix() + "after the re-read\n"), std::string::npos);
}

TEST_F(DebugLogTest, SettingsChangeTakesEffectOnTheHundredthCall) {
    UseFile();
    DebugOpen(nullptr);
    SetDword("ToFile", 0);
    WriteUntil(99);
    DebugWrite("dropped\n");  // the 100th call re-reads first
    SetDword("ToFile", 1);
    DebugWrite("also dropped\n");
    DebugClose();
    std::string text = LogText();
    EXPECT_EQ(text.find("dropped"), std::string::npos);
    EXPECT_NE(text.find("filler"), std::string::npos);
}

TEST_F(DebugLogTest, DumpWithHeadingAndFullLastRow) {
    OpenDebuggerOnly();
    unsigned char buf[32];
    for (int i = 0; i < 32; ++i) buf[i] = static_cast<unsigned char>(0x30 + i);
    buf[0] = ' ';
    buf[1] = 0x7F;
    buf[2] = 0x00;
    buf[3] = '!';
    DebugDump("Header", buf, 20);
    std::string p = Prefix();
    ASSERT_EQ(tp_.pieces.size(), 3u);
    EXPECT_EQ(tp_.pieces[0], p + "====== Header ====== 20\n");
    EXPECT_EQ(tp_.pieces[1], p + "20 7F 00 21 34 35 36 37 38 39 3A 3B 3C 3D 3E 3F ...!456789:;<=>?\n");
    // The last row keeps the width of 16 and shows the bytes behind the length.
    EXPECT_EQ(tp_.pieces[2], p + "40 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F @ABCDEFGHIJKLMNO\n");
}

TEST_F(DebugLogTest, DumpShortRowAndBlankTitle) {
    OpenDebuggerOnly();
    const unsigned char data[5] = {'a', 'b', 0xFF, 'c', '\n'};
    DebugDump("    ", data, 5);
    ASSERT_EQ(tp_.pieces.size(), 1u);
    EXPECT_EQ(tp_.pieces[0], Prefix() + "    61 62 FF 63 0A " + std::string(33, ' ') + "ab.c.\n");

    tp_.pieces.clear();
    unsigned char two[32] = {};
    DebugDump("    ", two, 32);
    ASSERT_EQ(tp_.pieces.size(), 2u);
    for (const std::string& row : tp_.pieces) EXPECT_EQ(row.substr(Prefix().size(), 4), "    ");

    tp_.pieces.clear();
    DebugDump("Empty", data, 0);
    ASSERT_EQ(tp_.pieces.size(), 1u);
    EXPECT_EQ(tp_.pieces[0], Prefix() + "====== Empty ====== 0\n");
}

TEST_F(DebugLogTest, UnmaskListOneLinePerName) {
    OpenDebuggerOnly();
    PrintUnmaskList(u"iqn.a;iqn.b;iqn.c");
    std::string p = Prefix();
    std::vector<std::string> want = {p + "  unmask iqn.a;\n", p + "  unmask iqn.b;\n", p + "  unmask iqn.c\n"};
    EXPECT_EQ(tp_.pieces, want);

    tp_.pieces.clear();
    PrintUnmaskList(u"only;");
    EXPECT_EQ(tp_.pieces, std::vector<std::string>{p + "  unmask only;\n"});

    tp_.pieces.clear();
    PrintUnmaskList(u"");
    PrintUnmaskList(nullptr);
    EXPECT_TRUE(tp_.pieces.empty());

    // A name longer than 256 characters is shown in pieces of at most 256.
    std::u16string longName(300, u'n');
    PrintUnmaskList(longName.c_str());
    ASSERT_EQ(tp_.pieces.size(), 2u);
    EXPECT_EQ(tp_.pieces[0], p + "  unmask " + std::string(256, 'n') + "\n");
    EXPECT_EQ(tp_.pieces[1], p + "  unmask " + std::string(44, 'n') + "\n");
}

TEST_F(DebugLogTest, EventReportsAndTheirLogLines) {
    OpenDebuggerOnly();
    LogErrorEvent("CreateNamedPipe failed with error 0x%x", 5u);
    LogWarningEvent("%s", "The VDS Provider has finished a vdisk expansion operation.");
    LogInfoEvent("restored %S", u"link");
    auto events = tp_.Events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].type, EVENTLOG_ERROR_TYPE);
    EXPECT_EQ(events[1].type, EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(events[2].type, EVENTLOG_INFORMATION_TYPE);
    for (const auto& e : events) EXPECT_EQ(e.id, 1u);
    EXPECT_EQ(events[0].text, "CreateNamedPipe failed with error 0x5");
    EXPECT_EQ(events[2].text, "restored link");
    std::string p = Prefix();
    ASSERT_EQ(tp_.pieces.size(), 3u);
    EXPECT_EQ(tp_.pieces[0], p + "Logging Error Event \"CreateNamedPipe failed with error 0x5\".\n");
    EXPECT_EQ(tp_.pieces[1],
              p + "Logging Warning Event \"The VDS Provider has finished a vdisk expansion operation.\".\n");
    EXPECT_EQ(tp_.pieces[2], p + "Logging Info Event \"restored link\".\n");
}

TEST_F(DebugLogTest, EventTextIsCutTo255AndDroppedWithoutSource) {
    OpenDebuggerOnly();
    std::string big(400, 'e');
    LogWarningEvent("%s", big.c_str());
    ASSERT_EQ(tp_.Events().size(), 1u);
    EXPECT_EQ(tp_.Events()[0].text, std::string(255, 'e'));

    tp_.ClearRecords();
    tp_.pieces.clear();
    tp_.SetEventSourceAvailable(false);
    LogErrorEvent("lost %d", 1);
    EXPECT_TRUE(tp_.Events().empty());
    EXPECT_EQ(tp_.pieces, std::vector<std::string>{Prefix() + "Logging Error Event \"lost 1\".\n"});
}

TEST_F(DebugLogTest, SpecialLunSwitchIsReadEachCall) {
    OpenDebuggerOnly();
    EXPECT_TRUE(IsSupportSpecialLun());
    SetDword("DisabeSepcialLun", 1);
    EXPECT_FALSE(IsSupportSpecialLun());
    SetDword("DisabeSepcialLun", 0);
    EXPECT_TRUE(IsSupportSpecialLun());
    settings().SetString(TROV_DEBUG_KEY, "DisabeSepcialLun", "1");  // wrong type: missing
    EXPECT_TRUE(IsSupportSpecialLun());
    std::string p = Prefix();
    std::vector<std::string> want = {p + "IsSupportSpecialLun(): DisabeSepcialLun = 0\n",
                                     p + "IsSupportSpecialLun(): DisabeSepcialLun = 1\n",
                                     p + "IsSupportSpecialLun(): DisabeSepcialLun = 0\n",
                                     p + "IsSupportSpecialLun(): DisabeSepcialLun = 0\n"};
    EXPECT_EQ(tp_.pieces, want);
}

TEST_F(DebugLogTest, ThreadsLogAtOnceWithoutLosingPieces) {
    UseFile();
    SetDword("ToDebugger", 1);
    tp_.SetRecordDebugger(false);
    DebugOpen(nullptr);
    constexpr int kThreads = 4, kLines = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < kLines; ++i) DebugTrace("thread %d line %d\n", t, i);
        });
    for (auto& th : threads) th.join();
    DebugClose();
    std::string text = LogText();
    for (int t = 0; t < kThreads; ++t)
        for (int i = 0; i < kLines; ++i) {
            std::string piece = TrovFormatString("thread %d line %d\n", t, i);
            ASSERT_NE(text.find(piece), std::string::npos) << piece;
        }
    EXPECT_GE(DebugCallCount(), static_cast<uint32_t>(kThreads * kLines));
}

TEST_F(DebugLogTest, PrintDebugConfigGoesThroughTheLog) {
    settings().SetString(TROV_DEBUG_KEY, "FileName", "");
    SetDword("MaxFileLength", 4096);
    OpenDebuggerOnly();
    PrintDebugConfig();
    std::vector<std::string> want = {"Current debug configuration:\n", "    FileName=\n", "    ToFile=0\n",
                                     "    ToDebugger=1\n", "    TimeStamp=1\n", "    ForceFlush=1\n",
                                     "    MaxFileLength=4096\n", "    DebugLevel=1\n"};
    EXPECT_EQ(tp_.pieces, want);
}

}  // namespace
