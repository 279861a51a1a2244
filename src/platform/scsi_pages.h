// The SCSI inquiry data a logical unit answers, read field by field: the standard inquiry data,
// the Unit Serial Number page (0x80) and the Device Identification page (0x83).
//
// Shared by the provider (which learns the paths of a LUN from its descriptors) and the host
// program (which, as the host service does, describes a disk from its own pages). The parsers
// take whatever a device or a recorded host returned: they never read past `n`, nor past the
// length that the page gives for itself, and a descriptor that runs past the end of its page is
// not taken. They allocate nothing besides their results.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct StandardInquiry {
    uint8_t peripheralType = 0x1F;  // 0 disk, 1 tape, 5 CD, ...; 0x1F unknown
    uint8_t qualifier = 0;
    uint8_t version = 0;
    uint8_t tpgs = 0;               // target port group support: 1 implicit, 2 explicit, 3 both
    bool commandQueueing = false;
    std::string vendor;             // bytes 8..15, trailing blanks removed
    std::string product;            // bytes 16..31
    std::string revision;           // bytes 32..35
};

// The first 36 bytes are needed; false when fewer came.
bool ParseStandardInquiry(const uint8_t* data, size_t n, StandardInquiry* out);

// The serial text of page 0x80: its printable bytes up to the first NUL, trailing blanks removed.
// False when the page is short or isn't page 0x80.
bool ParseUnitSerialPage(const uint8_t* data, size_t n, std::string* serial);

// One designation descriptor of page 0x83.
struct Designator {
    uint8_t protocol = 0;     // protocol identifier (5 iSCSI, 0 FC), meaningful when piv
    uint8_t codeSet = 0;      // 1 binary, 2 ASCII, 3 UTF-8
    bool piv = false;
    uint8_t association = 0;  // 0 logical unit, 1 target port, 2 target device
    uint8_t type = 0;         // 0 vendor, 1 T10 vendor id, 2 EUI-64, 3 NAA, 4 relative target
                              // port, 5 target port group, 6 logical unit group, 7 MD5, 8 name
    size_t offset = 0;        // where the designator's bytes begin in the page
    std::vector<uint8_t> bytes;
};

enum class DeviceIdStatus {
    Ok,
    Short,        // fewer than the 4 bytes of the page header
    WrongPage,    // byte 1 isn't 0x83
    Truncated,    // the page says it is longer than what came; descriptors cut off are dropped
    Malformed,    // a descriptor runs past the end of the page (over what should follow it)
};

// Walks the descriptors in order and keeps every whole one; at most kMaxDesignators. A
// descriptor whose length doesn't suit its type (an NAA designator that isn't 8 or 16 bytes as
// its first nibble says, a relative port or group that isn't 4 bytes) is left out and the walk
// goes on, as it still knows where the next one starts.
constexpr size_t kMaxDesignators = 64;
DeviceIdStatus ParseDeviceIdPage(const uint8_t* data, size_t n, std::vector<Designator>* out);

// Values of the common descriptors: the first 16-byte NAA designator of the logical unit, the
// relative target port (a 32-bit number in the last two bytes) and the target port group.
bool FindNaa16(const std::vector<Designator>& d, uint8_t out[16]);
bool FindRelativeTargetPort(const std::vector<Designator>& d, uint32_t* id);
bool FindTargetPortGroup(const std::vector<Designator>& d, uint32_t* id);
