// A disk's partition style and its id, as libblkid's partition probe reads them from the disk's
// first and last sectors: the MBR disk signature of a "dos" table, the disk GUID of a "gpt"
// table, and "raw" for a disk without a table.
//
// The probe reads the device open on a descriptor and never writes. The id text that libblkid
// gives is checked before it is taken: exactly eight hexadecimal digits for a signature, the
// 36-character form for a GUID; anything else leaves the id zero.
#pragma once

#include <cstdint>

enum class PartitionStyle : uint32_t { Mbr = 0, Gpt = 1, Raw = 2 };

struct DiskLayout {
    PartitionStyle style = PartitionStyle::Raw;
    uint32_t signature = 0;       // with Mbr
    uint8_t gptDiskId[16] = {};   // with Gpt: the GUID as it lies in memory (Data1..3 little-endian)
};

// False when the probe couldn't read the device; a disk without a partition table is Raw.
bool ProbeDiskLayout(int fd, DiskLayout* out);
// Takes libblkid's PTTYPE and PTUUID values (either may be null) into *out.
void TakeLayoutValues(const char* pttype, const char* ptuuid, DiskLayout* out);
