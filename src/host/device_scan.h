// The host scan: one ScsiDeviceRecord per SCSI device that answers a good Device Identification
// page, with its address, its standard inquiry data, pages 0x80 and 0x83, and its partition
// table's signature or disk GUID.
//
// ScanScsiDevices walks the device nodes first (each disk, CD, tape, scanner and printer unit by
// its node) and then every SCSI host's units by address ("\\.\Scsi%d:Bus%d:ID%d:LUN%d"), so a
// disk usually appears twice: once with its address and layout (by node) and once without (by
// address, whose second open finds no such file). Nothing is cached: each scan asks the host
// afresh. A device that fails a step enters with zeros there, or not at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct ScsiDeviceRecord {
    uint32_t isMbr;         // 1 when the layout gave an MBR signature (or was raw)
    uint32_t portNumber;
    uint32_t pathId;
    uint32_t targetId;
    uint32_t lun;
    uint32_t signature;     // MBR disk signature, valid with isMbr
    uint8_t gptDiskId[16];  // GPT disk GUID
    uint8_t inquiry[96];    // standard inquiry data; 48 bytes asked for
    uint8_t page83[128];    // Device Identification, as received
    uint8_t page80[128];    // Unit Serial Number, 48 bytes asked for, the rest zero
};
static_assert(sizeof(ScsiDeviceRecord) == 392, "the record's size is fixed");

// Appends a record for every device of the host that answers page 0x83.
void ScanScsiDevices(std::vector<ScsiDeviceRecord>& list);
// Queries one device (a node path or the port form) and appends its record when it answers a
// good page 0x83.
void QueryScsiDevice(const char* deviceName, std::vector<ScsiDeviceRecord>& list);
// The scan's own dump: "====== title ====== NNN", each byte in its own log call, the printable
// characters after every 16.
void DumpScanBuffer(const char* title, const uint8_t* data, int length);

// Units of one SCSI host taken at most; a port's answer holds about this many.
constexpr size_t kMaxUnitsPerPort = 64;
