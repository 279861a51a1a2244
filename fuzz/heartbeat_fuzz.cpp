// Fuzzes one client's turn on the heartbeat channel: arbitrary bytes as what the client sends.
//
// Input: byte 0 holds failures of the channel (bit 0: the first read fails, bit 1: the second
// read fails, bit 2: such a failure is the read time-out rather than an error, bit 3: the answer
// can't be written, bit 4: the disconnect fails); bytes 1 and 2 (little-endian) bound what the
// first read delivers; the rest is the stream the client sends. The packet buffer is a heap
// block of exactly its size, smaller than the channel's own, so that a DataLen beyond it is
// reachable: a read past it is a trap here and an ASan report besides.
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "proxy/heartbeat.h"
#include "proxy/wire.h"
#include "testlib/fake_platform.h"

namespace {

#define CHECK(cond) \
    if (!(cond)) __builtin_trap()

constexpr uint32_t kBufferSize = 4096;

struct Env {
    Env() {
        tp.SetRecordDebugger(false);
        tp.Install();
    }
    TestPlatform tp;  // event reports stay in memory instead of the system log
};

// The connected client, as the channel's thread sees it.
class FuzzChannel : public LocalChannel {
public:
    FuzzChannel(uint8_t flags, size_t firstChunk, const uint8_t* data, size_t size, const uint8_t* bufBegin,
                const uint8_t* bufEnd)
        : flags_(flags), firstChunk_(firstChunk), data_(data), size_(size), bufBegin_(bufBegin), bufEnd_(bufEnd) {}

    uint32_t Accept(LocalPeer*) override { return 0; }
    uint32_t Read(void* buf, uint32_t len, uint32_t* got) override {
        auto* p = static_cast<uint8_t*>(buf);
        CHECK(p >= bufBegin_ && len <= static_cast<size_t>(bufEnd_ - p));
        ++reads;
        CHECK(reads <= 2);  // a header read and at most one payload read
        *got = 0;
        if ((reads == 1 && (flags_ & 1)) || (reads == 2 && (flags_ & 2))) return (flags_ & 4) ? ETIMEDOUT : EIO;
        size_t take = std::min<size_t>(len, size_ - at_);
        if (reads == 1) take = std::min(take, firstChunk_);
        std::memcpy(p, data_ + at_, take);
        at_ += take;
        delivered += take;
        *got = static_cast<uint32_t>(take);
        return 0;
    }
    uint32_t Write(const void* buf, uint32_t len, uint32_t* written) override {
        ++writes;
        CHECK(len == wire::kHeaderSize);
        std::memcpy(answer, buf, len);
        *written = (flags_ & 8) ? 0 : len;
        return (flags_ & 8) ? EPIPE : 0;
    }
    uint32_t Flush() override { return 0; }
    uint32_t Disconnect() override {
        ++disconnects;
        return (flags_ & 16) ? EIO : 0;
    }
    void Shutdown() override {}

    int reads = 0, writes = 0, disconnects = 0;
    size_t delivered = 0;
    uint8_t answer[wire::kHeaderSize] = {};

private:
    uint8_t flags_;
    size_t firstChunk_;
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
    const uint8_t* bufBegin_;
    const uint8_t* bufEnd_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Env env;
    env.tp.ClearRecords();
    if (size < 3) return 0;
    const uint8_t flags = data[0];
    const size_t firstChunk = data[1] | static_cast<size_t>(data[2]) << 8;
    const uint8_t* stream = data + 3;
    const size_t streamSize = size - 3;

    std::unique_ptr<uint8_t[]> buffer(new uint8_t[kBufferSize]);
    FuzzChannel ch(flags, firstChunk, stream, streamSize, buffer.get(), buffer.get() + kBufferSize);
    HeartbeatNext next = ServeHeartbeatClient(ch, buffer.get(), kBufferSize);

    // What the rules say of this input.
    const bool firstFails = flags & 1;
    const size_t first = firstFails ? 0 : std::min<size_t>({kBufferSize, streamSize, firstChunk});
    const bool loneHeader = !firstFails && first == wire::kHeaderSize && wire::DataLenOf(stream) != 0;
    const bool secondFails = loneHeader && (flags & 2);
    const bool timedOut = (firstFails || secondFails) && (flags & 4);
    const bool readFailed = firstFails || secondFails;
    const size_t total = readFailed ? 0 : ch.delivered;
    const bool heartbeat = !readFailed && total >= wire::kHeaderSize && wire::DataTypeOf(stream) == wire::RSHEARTBEAT;

    CHECK(ch.reads == (firstFails ? 1 : loneHeader ? 2 : 1));
    CHECK(ch.writes == (heartbeat ? 1 : 0));
    if (heartbeat) {
        CHECK(std::memcmp(ch.answer + wire::kMagicOffset, wire::kMagic, 9) == 0);
        CHECK(wire::DataTypeOf(ch.answer) == wire::RSHEARTBEAT);
        CHECK(wire::OpCodeOf(ch.answer) == 0);
        CHECK(wire::DataLenOf(ch.answer) == 0);
    }
    // A silent client and a finished turn end the connection; a failed read or a short packet
    // keeps the client for the next read, after a pause (an empty one ends it too).
    const bool pause = (readFailed && !timedOut) || (!readFailed && total < wire::kHeaderSize);
    CHECK((next == HeartbeatNext::kPause) == pause);
    const bool disconnected = timedOut || (!readFailed && (total == 0 || total >= wire::kHeaderSize));
    CHECK(ch.disconnects == (disconnected ? 1 : 0));
    return 0;
}
