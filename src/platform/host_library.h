// The host library of the provider module: what a host program asks about the host side of the
// loaded provider's LUNs, beyond the management interfaces (which have no call for them): the
// adapter ports the last load found, a LUN's multipath disk and paths with the controller port
// each reaches, and the writes of a LUN's load-balance policy and of path status.
//
// Each call works on the provider the module has loaded (none loaded: VDS_E_PROVIDER_FAILURE),
// under its notification mutex, on the host facts of the last load; a LUN whose paths were
// changed through these calls, or whose mask changed, reads the host again at its next path
// query. The writes have a dry-run form that sends nothing and gives the text of what would be
// written; a write that fails gives its reason in the same buffer instead. Every buffer is the
// caller's, with its capacity; nothing is written past it.
#pragma once

#include <stdint.h>

#include "platform/vds.h"

extern "C" {

struct TrovHostHbaPort {
    uint8_t nodeWwn[8];
    uint8_t portWwn[8];
    uint32_t portType, portState, portSpeed, portSupportedSpeed;  // HBA API values
    uint32_t portNumber;
};

struct TrovHostPath {
    uint64_t pathId;  // port in bits 48..63, then path id, target and LUN 16 bits each
    uint32_t portNumber, busNumber, targetId, lun;
    uint32_t primary, optimized, preferred, failed, weight;
    uint32_t tpgState;  // ALUA state (0 active/optimized ... 16 none known)
    uint32_t tpgId, targetPortId;
    VDS_PATH_STATUS status;
    VDS_OBJECT_ID controllerPortId;  // zero when no port of the array matches
};

constexpr uint32_t kTrovHostMaxPaths = 16;

struct TrovHostLunPathList {
    char disk[128];     // the host's multipath disk ("mpatha")
    uint32_t policy;    // VDS_LOADBALANCE_POLICY_ENUM
    uint32_t count;
    TrovHostPath paths[kTrovHostMaxPaths];
};

// The adapter ports (the host's own, then the initiators the proxy knows): up to `capacity`
// into `ports`, the number there is in *count (which may exceed capacity).
typedef HRESULT (*TrovHostHbaPortsFn)(TrovHostHbaPort* ports, uint32_t capacity, uint32_t* count);
HRESULT TrovHostHbaPorts(TrovHostHbaPort* ports, uint32_t capacity, uint32_t* count);

// A LUN's multipath disk and paths. S_FALSE (and an empty list) when the host has no multipath
// disk with the LUN's serial; VDS_E_OBJECT_NOT_FOUND for an id that is no LUN.
typedef HRESULT (*TrovHostLunPathsFn)(const VDS_OBJECT_ID* lun, TrovHostLunPathList* out);
HRESULT TrovHostLunPaths(const VDS_OBJECT_ID* lun, TrovHostLunPathList* out);

// Sets a LUN's load-balance policy, with the given paths' primary flags and weights. `plan`
// (optional) receives the text of the write, or the reason of a failure, cut to `planCapacity`.
typedef HRESULT (*TrovHostSetLunPolicyFn)(const VDS_OBJECT_ID* lun, uint32_t policy, const VDS_PATH_POLICY* paths,
                                          uint32_t count, BOOL dryRun, char* plan, uint32_t planCapacity);
HRESULT TrovHostSetLunPolicy(const VDS_OBJECT_ID* lun, uint32_t policy, const VDS_PATH_POLICY* paths, uint32_t count,
                             BOOL dryRun, char* plan, uint32_t planCapacity);

// Fails (VDS_MPS_FAILED) or reinstates (VDS_MPS_ONLINE) paths of a LUN.
typedef HRESULT (*TrovHostSetPathStatusFn)(const VDS_OBJECT_ID* lun, const uint64_t* pathIds, uint32_t count,
                                           VDS_PATH_STATUS status, BOOL dryRun, char* plan, uint32_t planCapacity);
HRESULT TrovHostSetPathStatus(const VDS_OBJECT_ID* lun, const uint64_t* pathIds, uint32_t count,
                              VDS_PATH_STATUS status, BOOL dryRun, char* plan, uint32_t planCapacity);
}
