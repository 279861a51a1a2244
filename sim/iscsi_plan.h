// What the emulator's iSCSI side should serve, worked out from the array model alone.
//
// PlanIscsi() reads a Model and gives the wanted configuration of the target daemon: one target
// per controller that is online (one shared target when the subsystem presents every volume on
// both controllers), each partition that has a view as a LUN at its view's unit number, backed by
// a file named after its serial, with the array's inquiry data; the initiators each target admits;
// the CHAP accounts the array's secrets make. Where the daemon cannot do what the model asks (it
// admits initiators per target, not per LUN; it keeps LUN 0 for itself; it serves one number per
// LUN for all initiators) the plan takes the nearest thing it can serve and says so in a warning.
//
// Nothing here touches the system: the reconciler (iscsi_reconcile.h) applies a plan.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sim/model.h"

namespace trovsim {

// The inquiry data of one LUN, as the target daemon takes it.
struct IscsiInquiry {
    std::string vendor;    // standard inquiry bytes 8..15
    std::string product;   // bytes 16..31
    std::string revision;  // bytes 32..35
    std::string serial;    // page 0x80: the first 16 serial bytes as 32 lower-case hex digits
    std::string deviceId;  // page 0x83: the 16-byte NAA designator as 32 hex digits
    bool operator==(const IscsiInquiry&) const = default;
};

struct IscsiLunPlan {
    uint32_t lun = 0;
    std::string file;  // backing file name, inside the emulator's iSCSI folder
    uint64_t bytes = 0;
    IscsiInquiry inquiry;
    std::string volume;  // the partition's name, for the log
    bool operator==(const IscsiLunPlan&) const = default;
};

struct IscsiAccount {
    std::string user, password;
    auto operator<=>(const IscsiAccount&) const = default;
};

struct IscsiTargetPlan {
    std::string name;                        // the iSCSI name the model reports
    std::vector<std::string> portals;        // "ADDR:PORT" where initiators reach it (for discovery);
                                             // empty: wherever they asked
    std::map<uint32_t, IscsiLunPlan> luns;   // by LUN number
    bool admitAll = false;                   // every initiator may log in
    std::set<std::string> initiatorNames;    // otherwise these...
    std::set<std::string> initiatorAddresses;  // ...and these
    std::set<std::string> accounts;          // users of incoming CHAP (IscsiPlan::accounts)
    std::string outgoingAccount;             // user of mutual CHAP, or empty
};

struct IscsiPlan {
    std::vector<IscsiTargetPlan> targets;
    std::map<std::string, std::string> accounts;  // CHAP user -> secret, for every target
    std::set<std::string> files;                  // the backing files of every partition in the model
    std::vector<std::string> warnings;            // what the daemon cannot serve as the model says
};

// The target daemon's limits.
constexpr uint32_t kIscsiReservedLun = 0;    // the daemon's own controller LUN
constexpr uint32_t kIscsiMaxLun = 0x3FFF;

// Page 0x80 text of a partition: its first 16 serial bytes as lower-case hex, the text the
// provider's identification compares.
std::string IscsiSerialText(const Serial& serial);
// The NAA designator of page 0x83: byte 0 = 0x60 | s0 >> 4, bytes 1..3 the rest of s0..s2
// shifted by a nibble, byte 4 zero, bytes 5..7 = s3..s5, bytes 8..15 = s8..s15.
std::array<uint8_t, 16> IscsiDesignator(const Serial& serial);
// The backing file of a partition.
std::string IscsiLunFile(const Serial& serial);
// True for a name the backing-file rule makes (what the reconciler may remove).
bool IsIscsiLunFile(const std::string& name);

// `loopback` false: a target names no portals of its own (discovery answers with the portal the
// initiator used). True: each model iSCSI port has its own address (see MapPortsToLoopback) and a
// target is reached at its controller's ports.
IscsiPlan PlanIscsi(const Model& model, bool loopback);

// Gives every iSCSI port of the model an address of its own on the loopback network,
// 127.<subsystem + 1>.<1 for A, 2 for B>.<port + 1>, and `tcpPort`, so that the portals the
// provider reports are the ones an initiator can reach. Returns the "ADDR:PORT" texts.
std::vector<std::string> MapPortsToLoopback(Model& model, uint16_t tcpPort);

}  // namespace trovsim
