// The host's SCSI devices as sysfs lists them, under a host root ("" for the running system).
//
// Each logical unit is a folder sys/class/scsi_device/H:C:T:L whose device/ holds the unit's
// attributes (type, vendor, model, rev, inquiry, vpd_pg80, vpd_pg83, access_state, ...) and the
// names of its nodes (device/block/sdX, device/scsi_generic/sgN). H:C:T:L is the SCSI host (the
// port), channel (path id), target id and LUN. Everything is read through the Platform's file
// calls, so that a recorded host and a test's failures look the same as the running system.
// Whatever the host holds, the lists are bounded and every name is checked before it is used in
// a path.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct HostScsiDevice {
    uint32_t host = 0, channel = 0, target = 0, lun = 0;
    int type = -1;            // peripheral device type (0 disk, 1 tape, 5 CD, ...); -1 unknown
    std::string address;      // "H:C:T:L"
    std::string sysPath;      // <root>/sys/class/scsi_device/H:C:T:L/device
    std::string blockName;    // "sdb", or "" when the unit has no block node
    std::string sgName;       // "sg2", or ""
    std::string vendor, model, rev;
};

// At most this many units and SCSI hosts are looked at; a host with more is cut short.
constexpr size_t kMaxHostScsiDevices = 4096;
constexpr size_t kMaxHostScsiHosts = 1024;
// Longest attribute text kept; longer text is cut.
constexpr size_t kMaxSysfsText = 4096;

// "H:C:T:L" with four decimal numbers, each fitting 32 bits; nothing else.
bool ParseScsiAddress(const std::string& text, uint32_t* h, uint32_t* c, uint32_t* t, uint32_t* l);
// A node or folder name that may stand in a path: 1 to 64 of [A-Za-z0-9_.:-], not "." or "..".
bool IsSafeSysfsName(const std::string& name);

// The units in address order (host, channel, target, LUN). False with *err when the class
// folder can't be listed (no SCSI layer: an empty host).
bool ListHostScsiDevices(const std::string& root, std::vector<HostScsiDevice>* out, int* err);
// The SCSI host numbers of sys/class/scsi_host (hostN), ascending.
bool ListHostScsiHosts(const std::string& root, std::vector<uint32_t>* out, int* err);
// A unit by "H:C:T:L", by node name ("sdb", "sg2") or by node path ("/dev/sdb", <root>/dev/sdb).
bool FindHostScsiDevice(const std::string& root, const std::string& device, HostScsiDevice* out);
// The node a pass-through goes to: the block node when there is one, else the generic node;
// "" when the unit has neither.
std::string HostDeviceNode(const std::string& root, const HostScsiDevice& d);

// An attribute file's text without trailing blanks and newlines, cut to kMaxSysfsText; false
// when it can't be read.
bool ReadSysfsText(const std::string& path, std::string* out);
// An attribute file's bytes, cut to `maxBytes`; false when it can't be read.
bool ReadSysfsBytes(const std::string& path, size_t maxBytes, std::string* out);
