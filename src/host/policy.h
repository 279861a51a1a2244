// The writing side of multipath: a disk's load-balance policy and the status of paths.
//
// Each write reads the present state of the disk (its paths with their ALUA states, weights and
// primary/optimized/preferred flags), derives the new flags by the rules below, and writes the
// whole policy back. On Linux the write is device-mapper multipath's: the policy becomes a
// multipaths entry for the disk's WWID in <host root>/etc/multipath/conf.d/ (grouping, path
// selector, and path priorities through the weightedpath prioritizer, so that the derived
// primary and preferred paths form the groups used first), then the daemon is told to
// reconfigure; a path's status is set by failing or reinstating it. Every write has a dry-run
// form that returns what it would write and sends nothing.
//
// Derivation (the V2 form, for the array's active-active ALUA mode):
//   a path's PrimaryPath and OptimizedPath come from its TargetPortGroup_State (0: 1,1;
//   1: 1,0; 2: 0,1; 3: 0,0; 16, "not used", counts as 0);
//   a policy other than failover keeps them; failover with the option bit clear restores the
//   queried values and takes PreferredPath from the input's bPrimaryPath; failover with the bit
//   set keeps one active/optimized path when no input names a primary path, and otherwise takes
//   the primary and preferred flags from the input; a non-zero input weight replaces the weight.
// No interface of the provider calls these: they are entry points of the host library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/multipath.h"
#include "platform/vds.h"

// Bit 12 of the Options setting: the failover derivation of the ALUA form.
constexpr uint32_t kOptionAluaFailover = 1u << 12;

// A disk's V2 policy from the provider's lists: the disk whose serial equals `diskSerial` gives
// the instance; 0, or 1 when no disk has the serial or the fall-back by position runs past the
// end of the list.
int EnumDsmQueryLBPolicy_V2(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial,
                            const std::vector<MpioDsmPathV2>& policies, MpioDsmPathV2* out,
                            std::u16string* outInstance);
// The older policy of a disk as the host reports it now (asks the daemon).
int EnumDsmQueryLBPolicy(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial, DsmLoadPolicy* out,
                         std::u16string* outInstance);
// The same from the provider's DsmLoadPolicyVec.
int findLBPolicy(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial,
                 const std::vector<DsmLoadPolicy>& policies, DsmLoadPolicy* out, std::u16string* outInstance);

// The derivation of the V2 form: the queried paths, changed.
std::vector<MpioDsmPathV2Entry> DerivePathsV2(const MpioDsmPathV2& query, uint32_t policy,
                                              const VDS_PATH_POLICY* inputs, uint32_t count, bool activeOptimizedBoth,
                                              bool optionBit12);
// The older form: an input naming a path replaces its weight and primary flag, whatever they are.
std::vector<DsmPath> DerivePaths(const DsmLoadPolicy& query, const VDS_PATH_POLICY* inputs, uint32_t count);

// What a write changes on the host: a configuration file with its text, and daemon commands.
struct MultipathWrite {
    std::string file, content;
    std::vector<std::string> commands;
    std::string Describe() const;
};

// Builds the write for a map from its paths' new flags (pathId, primary, optimized, preferred,
// weight). False with *why for a policy multipath can't express.
struct PathSetting {
    uint64_t pathId = 0;
    uint32_t primary = 0, optimized = 0, preferred = 0, weight = 0;
};
bool BuildPolicyWrite(const MultipathMap& map, uint32_t policy, const std::vector<PathSetting>& paths,
                      MultipathWrite* out, std::string* why);

// The writes. 0 on success; 1 when the daemon can't be reached or the disk isn't found; else
// the failure of the write (an errno value). With `dryRun` nothing is written or sent and *plan
// (when given) holds what would be.
int WmiSetLoadBalancePolicy_V2(std::vector<mpioDiskInfo> disks, std::string diskSerial,
                               std::vector<MpioDsmPathV2> policies, uint32_t policy, const VDS_PATH_POLICY* inputs,
                               uint32_t count, bool activeOptimizedBoth, bool dryRun = false,
                               MultipathWrite* plan = nullptr);
int WmiSetLoadBalancePolicy(std::vector<mpioDiskInfo> disks, std::string diskSerial, uint32_t policy,
                            const VDS_PATH_POLICY* inputs, uint32_t count, bool dryRun = false,
                            MultipathWrite* plan = nullptr);
// VDS_MPS_FAILED fails the paths, VDS_MPS_ONLINE reinstates them; other states can't be set.
int WmiSetPathStatus(const std::vector<uint64_t>& pathIds, VDS_PATH_STATUS status, bool dryRun = false,
                     MultipathWrite* plan = nullptr);
