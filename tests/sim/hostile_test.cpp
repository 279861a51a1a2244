// Requests with random fields, wrong lengths and hostile counts go straight into the command
// handler: every one gets an answer that fits the packet buffer, and nothing breaks (run under
// the sanitizers this is the handler's robustness test).
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "proxy/wire.h"
#include "sim/commands.h"
#include "sim/encode.h"
#include "sim/model.h"

using namespace trovsim;

namespace {

TEST(CommandsHostile, RandomRequestsOfEveryOpcodeAreAnsweredWithinTheBuffer) {
    Model m;
    ASSERT_TRUE(m.LoadBuiltin("demo", nullptr));
    Encoder enc(m);
    Commands cmds(m, enc);
    std::vector<uint8_t> out(wire::kPacketBufferSize), pkt(wire::kPacketBufferSize);
    std::mt19937 rng(7);
    const uint32_t handles[] = {0x01000100, 0x01000101, 0, 0xFFFFFFFF};
    uint32_t answered = 0, refused = 0;
    for (uint32_t op = 0; op < 130; ++op) {
        uint32_t nominal = Commands::RequestLength(op);
        for (uint32_t len : {0u, 1u, 20u, nominal ? nominal - 1 : 3u, nominal, nominal + 100}) {
            for (int round = 0; round < 4; ++round) {
                if (wire::kHeaderSize + len > pkt.size()) continue;
                for (uint32_t i = 0; i < len; ++i) pkt[wire::kHeaderSize + i] = static_cast<uint8_t>(rng());
                wire::FillHeader(pkt.data(), 1, 0, wire::RSREQUEST, op, len);
                // A real handle where each command keeps it, so that the handlers run deep.
                uint32_t h = handles[round];
                for (size_t at : {size_t(36), size_t(44), size_t(48)})
                    if (at + 4 <= wire::kHeaderSize + len) wire::StoreBe32(pkt.data() + at, h);
                CommandReply r;
                r.out = &out;
                cmds.Handle(pkt.data(), static_cast<uint32_t>(wire::kHeaderSize + len), r);
                ASSERT_GE(r.length, wire::kHeaderSize);
                ASSERT_LE(r.length, out.size());
                ASSERT_LE(r.PayloadLength(), wire::kPacketBufferSize - wire::kHeaderSize);
                (r.error ? refused : answered) += 1;
            }
        }
    }
    // Short requests were refused, well-formed ones got through to the model.
    EXPECT_GT(refused, 0u);
    EXPECT_GT(answered, 0u);
    // The model still holds together: every vdisk's partitions inside its capacity.
    for (Subsystem& s : m.subsystems())
        for (Vdisk& v : s.vdisks)
            for (Partition& p : v.parts) {
                if (p.TakesSpace()) {
                    EXPECT_LE(p.start + p.blocks, v.capacity);
                }
            }
}

}  // namespace
