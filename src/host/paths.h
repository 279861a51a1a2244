// The host paths of a LUN: which multipath disk of the host answers the LUN's serial, by which
// paths, in what state, and which controller port of the array each path reaches.
//
// The path lookups themselves are members of CLun (host/lun_paths.cpp): GetPathInfo (an adapter
// port number and a target number, through the adapter's target mappings),
// GetCtrlPortIdByPortWWN (a port's identification text) and the two forms of
// GetCtrlPortIdByTargetPortIdentifier (a relative target port id, or a target port's WWN). Each
// clears allowQueryRefresh while it walks, so that no walk starts a refresh, and sets it again
// on every way out. Everything here reads the facts of the last initWmi; the caller holds the
// notification mutex.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/vds.h"

class CLun;
struct HostFacts;

// Names for the log; "<unknown>" (and one log line) for a value without a name.
const char* PathStatusName(VDS_PATH_STATUS status);
const char* HwProviderTypeName(VDS_HWPROVIDER_TYPE type);

// The marker SetMask leaves in a LUN for a later refresh of its path facts.
constexpr uint32_t kWmiUpdateMarker = 20100204;

struct LunHostPath {
    uint64_t pathId = 0;
    uint32_t portNumber = 0, busNumber = 0, targetId = 0, lun = 0;
    uint32_t primary = 0, optimized = 0, preferred = 0, failed = 0, weight = 0;
    uint32_t tpgState = 0, tpgId = 0, targetPortId = 0;
    VDS_PATH_STATUS status = VDS_MPS_UNKNOWN;
    VDS_OBJECT_ID controllerPortId{};  // zero when no port of the array matches
};

// The host disk of a LUN and its paths. False when the host has no multipath disk with the
// LUN's serial (the LUN isn't presented here through multipath).
bool FindLunHostPaths(CLun* lun, const HostFacts& facts, std::u16string* instance, uint32_t* policy,
                      std::vector<LunHostPath>* paths);
// The status a path's flags give: failed, standby (neither primary nor optimized), online.
VDS_PATH_STATUS PathStatusOf(uint32_t failed, uint32_t primary, uint32_t optimized);
