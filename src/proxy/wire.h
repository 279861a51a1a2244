// Byte-level helpers and the packet header shared by the client and the emulator.
//
// A packet is a 36-byte header followed by DataLen bytes of payload; every integer of the header
// is big-endian. The same header travels on the TCP connection and on the heartbeat channel.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wire {

inline uint32_t LoadBe32(const void* p) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}
inline uint16_t LoadBe16(const void* p) {
    const uint8_t* b = static_cast<const uint8_t*>(p);
    return static_cast<uint16_t>(b[0] << 8 | b[1]);
}
inline void StoreBe32(void* p, uint32_t v) {
    uint8_t* b = static_cast<uint8_t*>(p);
    b[0] = static_cast<uint8_t>(v >> 24);
    b[1] = static_cast<uint8_t>(v >> 16);
    b[2] = static_cast<uint8_t>(v >> 8);
    b[3] = static_cast<uint8_t>(v);
}
inline void StoreBe16(void* p, uint16_t v) {
    uint8_t* b = static_cast<uint8_t*>(p);
    b[0] = static_cast<uint8_t>(v >> 8);
    b[1] = static_cast<uint8_t>(v);
}
// Host-order (little-endian) access at any alignment.
inline uint32_t LoadLe32(const void* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline uint16_t LoadLe16(const void* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline uint64_t LoadLe64(const void* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
inline void StoreLe32(void* p, uint32_t v) { std::memcpy(p, &v, 4); }
inline void StoreLe16(void* p, uint16_t v) { std::memcpy(p, &v, 2); }
inline void StoreLe64(void* p, uint64_t v) { std::memcpy(p, &v, 8); }

// A 64-bit value on the wire: two big-endian words, the low word first.
inline void StoreWords64(void* p, uint64_t v) {
    StoreBe32(p, static_cast<uint32_t>(v));
    StoreBe32(static_cast<uint8_t*>(p) + 4, static_cast<uint32_t>(v >> 32));
}
inline uint64_t LoadWords64(const void* p) {
    return uint64_t(LoadBe32(p)) | uint64_t(LoadBe32(static_cast<const uint8_t*>(p) + 4)) << 32;
}

// Swaps a 16- or 32-bit field in place at any alignment.
inline void Swap32(void* p) {
    uint8_t* b = static_cast<uint8_t*>(p);
    uint8_t t0 = b[0], t1 = b[1];
    b[0] = b[3];
    b[1] = b[2];
    b[2] = t1;
    b[3] = t0;
}
inline void Swap16(void* p) {
    uint8_t* b = static_cast<uint8_t*>(p);
    uint8_t t = b[0];
    b[0] = b[1];
    b[1] = t;
}

// Big-endian fields of a packet, as laid over the bytes: they hold the wire's bytes and give and
// take host-order values, so that nothing depends on the host's byte order or on alignment
// (alignment 1; a packet struct made of them may be laid over any byte pointer).
struct Be32 {
    uint8_t bytes[4];
    uint32_t value() const { return LoadBe32(bytes); }
    operator uint32_t() const { return value(); }
    Be32& operator=(uint32_t v) {
        StoreBe32(bytes, v);
        return *this;
    }
};
struct Be16 {
    uint8_t bytes[2];
    uint16_t value() const { return LoadBe16(bytes); }
    operator uint16_t() const { return value(); }
    Be16& operator=(uint16_t v) {
        StoreBe16(bytes, v);
        return *this;
    }
};
// A 64-bit value: two big-endian words, the low word first.
struct BeWords64 {
    uint8_t bytes[8];
    uint64_t value() const { return LoadWords64(bytes); }
    operator uint64_t() const { return value(); }
    BeWords64& operator=(uint64_t v) {
        StoreWords64(bytes, v);
        return *this;
    }
};
static_assert(sizeof(Be32) == 4 && alignof(Be32) == 1);
static_assert(sizeof(Be16) == 2 && alignof(Be16) == 1);
static_assert(sizeof(BeWords64) == 8 && alignof(BeWords64) == 1);

// The packet header (36 bytes).
struct PacketHeader {
    char magic[12];  // "ORBITVALE", NUL bytes up to 12
    Be32 seqNum;
    Be32 checkValue;
    Be32 dataType;
    Be32 opCode;
    uint8_t reserved28[4];
    Be32 dataLen;  // the payload behind the header
};
static_assert(sizeof(PacketHeader) == 36 && alignof(PacketHeader) == 1);

constexpr size_t kHeaderSize = sizeof(PacketHeader);
constexpr size_t kMagicOffset = offsetof(PacketHeader, magic);
constexpr size_t kSeqNumOffset = offsetof(PacketHeader, seqNum);
constexpr size_t kCheckValueOffset = offsetof(PacketHeader, checkValue);
constexpr size_t kDataTypeOffset = offsetof(PacketHeader, dataType);
constexpr size_t kOpCodeOffset = offsetof(PacketHeader, opCode);
constexpr size_t kDataLenOffset = offsetof(PacketHeader, dataLen);

// The common opening of a command payload (all commands but a few, see proxy/requests.h).
struct CommandHead {
    PacketHeader header;
    uint8_t reserved36[4];  // zero in requests, not read in replies
    Be32 errorCode;         // 40: zero in requests; the reply's result
    Be32 handle;            // 44: the controller the command is addressed to
};
static_assert(sizeof(CommandHead) == 48);
constexpr size_t kErrorCodeOffset = offsetof(CommandHead, errorCode);
constexpr size_t kHandleOffset = offsetof(CommandHead, handle);
constexpr size_t kBodyOffset = sizeof(CommandHead);

constexpr char kMagic[] = "ORBITVALE";
// The largest packet either side handles, and the size of the one packet buffer.
constexpr size_t kPacketBufferSize = 3145728;

enum DataType : uint32_t {
    RSREQUEST = 1,
    RSREPLY = 2,
    RSSESSION = 3,
    RSHEARTBEAT = 5,
};

// The check value's table: the 64 numbers of the DES initial permutation, in the standard's order.
extern const uint8_t kCheckTable[64];

inline uint32_t CheckValue(uint32_t seq, uint32_t sessionKey) { return kCheckTable[seq & 63] + sessionKey + seq; }

inline uint32_t DataTypeOf(const uint8_t* pkt) { return LoadBe32(pkt + kDataTypeOffset); }
inline uint32_t OpCodeOf(const uint8_t* pkt) { return LoadBe32(pkt + kOpCodeOffset); }
inline uint32_t DataLenOf(const uint8_t* pkt) { return LoadBe32(pkt + kDataLenOffset); }
inline uint32_t SeqNumOf(const uint8_t* pkt) { return LoadBe32(pkt + kSeqNumOffset); }
inline uint32_t CheckValueOf(const uint8_t* pkt) { return LoadBe32(pkt + kCheckValueOffset); }
inline bool MagicOk(const uint8_t* pkt) {
    static const uint8_t m[12] = {'O', 'R', 'B', 'I', 'T', 'V', 'A', 'L', 'E', 0, 0, 0};
    return std::memcmp(pkt, m, 12) == 0;
}

// Fills a header without touching any shared counter (used by the emulator and by tests).
inline void FillHeader(uint8_t* pkt, uint32_t seq, uint32_t sessionKey, uint32_t dataType, uint32_t opCode,
                       uint32_t dataLen) {
    std::memset(pkt, 0, kHeaderSize);
    std::memcpy(pkt, kMagic, 9);
    StoreBe32(pkt + kSeqNumOffset, seq);
    StoreBe32(pkt + kCheckValueOffset, CheckValue(seq, sessionKey));
    StoreBe32(pkt + kDataTypeOffset, dataType);
    StoreBe32(pkt + kOpCodeOffset, opCode);
    StoreBe32(pkt + kDataLenOffset, dataLen);
}

}  // namespace wire

// One array behind two controllers, as the subsystem list carries it (40 bytes; the handles are
// in host order once the entry has been converted).
struct SubsystemEntry {
    char UniqueSN[32];
    uint32_t controllerA;  // 0 = absent
    uint32_t controllerB;  // 0 = absent
};
static_assert(sizeof(SubsystemEntry) == 40);
