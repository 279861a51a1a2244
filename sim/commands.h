// The command catalogue as the array answers it: one request packet in, one reply out.
//
// Handle() reads the request's fields (laid out in proxy/requests.h, which also gives each
// OpCode's name and request length), runs the model's operation and lays the reply out in the
// positions the client reads (the reply has the request's layout with the results written in).
// The header of the reply is the caller's: it fills sequence, check value and DataLen.
//
// A request whose DataLen is shorter than the fields the command reads is refused with
// kErrBadRequest (logged by the caller); a longer one is served, its tail ignored. Counts that
// come from the request are bounded by the widths of their tables.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sim/model.h"

namespace trovsim {

class Encoder;

struct CommandReply {
    std::vector<uint8_t>* out = nullptr;  // header and payload are built here
    size_t length = 0;                    // bytes of *out in use, header included
    std::shared_ptr<const std::vector<uint8_t>> bulk;  // sent behind *out, part of the payload
    uint32_t error = 0;
    std::string note;  // for the request's log line
    size_t PayloadLength() const { return length - 36 + (bulk ? bulk->size() : 0); }
};

class Commands {
public:
    Commands(Model& model, Encoder& encoder) : m_(model), enc_(encoder) {}

    // `pkt` is the whole request, header included; `len` is 36 + DataLen.
    void Handle(const uint8_t* pkt, uint32_t len, CommandReply& r);
    // The reply of a command the array refuses without doing it.
    void Refuse(uint32_t opcode, uint32_t error, CommandReply& r);

    static const char* OpName(uint32_t opcode);
    // Payload length of a request and of its reply; 0 for an opcode the array doesn't know.
    static uint32_t RequestLength(uint32_t opcode);
    static uint32_t ReplyLength(uint32_t opcode);

private:
    template <class P>
    void VolumeList(CtrlRef c, const uint8_t* pkt, uint8_t* out, bool snapshots, CommandReply& r);

    Model& m_;
    Encoder& enc_;
};

}  // namespace trovsim
