#include "host/policy.h"

#include "host/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "core/globals.h"
#include "platform/platform.h"
#include "platform/scsi_sysfs.h"
#include "platform/wstr.h"
#include "support/debuglog.h"

namespace {

// The index of the disk with this serial, or -1.
int FindDisk(const std::vector<mpioDiskInfo>& disks, const std::string& serial) {
    for (size_t i = 0; i < disks.size(); ++i)
        if (disks[i].SerialNumber == serial) return static_cast<int>(i);
    return -1;
}

const VDS_PATH_POLICY* InputFor(const VDS_PATH_POLICY* inputs, uint32_t count, uint64_t pathId) {
    for (uint32_t i = 0; inputs && i < count; ++i)
        if (inputs[i].pathId.ullPathId == pathId) return &inputs[i];
    return nullptr;
}

bool Connect() {
    int err = 0;
    if (ReachMultipathDaemon(&err)) return true;
    DebugTrace("Could not connect. Error code = 0x%x\n", static_cast<unsigned>(err));
    return false;
}

// The map of an instance as the daemon reports it now; false when there is none.
bool FindMap(const std::u16string& instance, MultipathMap* out, int* rc) {
    std::vector<MultipathMap> maps;
    *rc = ReadMultipathMaps(&maps);
    if (*rc != 0) return false;
    for (MultipathMap& m : maps)
        if (Utf8ToWide(m.name) == instance) {
            *out = std::move(m);
            return true;
        }
    return false;
}

const MultipathPath* PathById(const MultipathMap& m, uint64_t id) {
    for (const MultipathPath& p : m.paths)
        if (p.haveAddress && p.pathId == id) return &p;
    return nullptr;
}

// Sends (or, dry, only lists) a write.
int Apply(const MultipathWrite& w, bool dryRun, MultipathWrite* plan) {
    if (plan) *plan = w;
    if (dryRun) return 0;
    int err = 0;
    if (!w.file.empty() && !Plat()->WriteTextFile(w.file, w.content, &err)) {
        DebugTrace("writing %s failed, error %d\n", w.file.c_str(), err);
        return err ? err : EIO;
    }
    for (const std::string& c : w.commands) {
        std::string reply;
        if (!Plat()->MultipathCommand(c, &reply, &err)) {
            DebugTrace("multipathd %s failed, error %d\n", c.c_str(), err);
            return err ? err : EIO;
        }
        if (reply.compare(0, 4, "fail") == 0) {
            DebugTrace("multipathd %s answered %s\n", c.c_str(), reply.c_str());
            return EPROTO;
        }
    }
    return 0;
}

}  // namespace

int EnumDsmQueryLBPolicy_V2(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial,
                            const std::vector<MpioDsmPathV2>& policies, MpioDsmPathV2* out,
                            std::u16string* outInstance) {
    int at = FindDisk(disks, diskSerial);
    if (at < 0) {
        DebugTrace(" Can not find a Instance to match\n");
        return 1;
    }
    const std::u16string& instance = disks[at].instanceName;
    if (outInstance) *outInstance = instance;
    for (const MpioDsmPathV2& v : policies)
        if (v.instanceName == instance) {
            *out = v;
            DebugTrace("EnumDsmQueryLBPolicy_V2 succeeded, return %d paths for %S\n", v.DSMPathCount, instance.c_str());
            return 0;
        }
    // Both lists come from one enumeration order, so the same position is the same disk.
    DebugTrace("EnumDsmQueryLBPolicy_V2 failed to find paths for instance %S\n", instance.c_str());
    if (static_cast<size_t>(at) >= policies.size()) {
        DebugTrace("EnumDsmQueryLBPolicy() Out of mpioDsmPathV2Vec bound, verOrder=%d, mpioDsmPathV2Vec.size()=%d", at,
                   static_cast<int>(policies.size()));
        return 1;
    }
    *out = policies[at];
    return 0;
}

int findLBPolicy(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial,
                 const std::vector<DsmLoadPolicy>& policies, DsmLoadPolicy* out, std::u16string* outInstance) {
    int at = FindDisk(disks, diskSerial);
    if (at < 0) {
        DebugTrace(" Can not find a Instance to match\n");
        return 1;
    }
    const std::u16string& instance = disks[at].instanceName;
    if (outInstance) *outInstance = instance;
    for (const DsmLoadPolicy& p : policies)
        if (p.instanceName == instance) {
            *out = p;
            DebugTrace("findLBPolicy() found %d paths for instance %S\n", p.DSMPathCount, instance.c_str());
            return 0;
        }
    DebugTrace("findLBPolicy() failed to find paths data for instance %S\n", instance.c_str());
    if (static_cast<size_t>(at) >= policies.size()) {
        DebugTrace("findLBPolicy() Out of DsmLoadPolicyVec bound, verOrder=%d, DsmLoadPolicyVec.size()=%d", at,
                   static_cast<int>(policies.size()));
        return 1;
    }
    *out = policies[at];
    return 0;
}

int EnumDsmQueryLBPolicy(const std::vector<mpioDiskInfo>& disks, const std::string& diskSerial, DsmLoadPolicy* out,
                         std::u16string* outInstance) {
    std::vector<DsmLoadPolicy> now;
    if (int rc = QueryLBPolicy(now)) return rc;
    int at = FindDisk(disks, diskSerial);
    if (at < 0) {
        DebugTrace(" Can not find a Instance to match diskSn %s\n", diskSerial.c_str());
        return 1;
    }
    const std::u16string& instance = disks[at].instanceName;
    if (outInstance) *outInstance = instance;
    for (const DsmLoadPolicy& p : now)
        if (p.instanceName == instance) {
            *out = p;
            DebugTrace("EnumDsmQueryLBPolicy: found %d paths for instance %S", p.DSMPathCount, instance.c_str());
            return 0;
        }
    DebugTrace("EnumDsmQueryLBPolicy: failed to find paths for instance %S", instance.c_str());
    if (static_cast<size_t>(at) >= now.size()) {
        DebugTrace("EnumDsmQueryLBPolicy Out of DsmLoadPolicyVec bound, verOrder=%d, DsmLoadPolicyVec.size()=%d", at,
                   static_cast<int>(now.size()));
        return 1;
    }
    *out = now[at];
    return 0;
}

std::vector<MpioDsmPathV2Entry> DerivePathsV2(const MpioDsmPathV2& query, uint32_t policy,
                                              const VDS_PATH_POLICY* inputs, uint32_t count, bool activeOptimizedBoth,
                                              bool optionBit12) {
    bool allInputPrimaryPathisZero = true;
    for (uint32_t i = 0; inputs && i < count; ++i)
        if (inputs[i].bPrimaryPath) allInputPrimaryPathisZero = false;
    const uint32_t n = std::min<uint32_t>(query.DSMPathCount, kDsmPathV2Slots);
    std::vector<MpioDsmPathV2Entry> out;
    bool firstOptimizedSeen = false, preferenceTaken = false;
    for (uint32_t i = 0; i < n; ++i) {
        MpioDsmPathV2Entry e = query.paths[i];
        DebugTrace("PrimaryPath=%d, PathWeight=%d, OptimizedPath=%d, TargetPortGroupState=%d PreferredPath=%d "
                   "allInputPrimaryPathisZero=%d\n",
                   e.PrimaryPath, e.PathWeight, e.OptimizedPath, e.TargetPortGroup_State, e.PreferredPath,
                   allInputPrimaryPathisZero ? 1 : 0);
        uint32_t state = e.TargetPortGroup_State;
        if (state == kTpgStateNotUsed) {
            DebugTrace("WmiSetLoadBalancePolicy_V2::TargetPortGroupState == STATE_NOT_USED\n");
            state = kTpgActiveOptimized;
        }
        static const uint32_t kPrimary[4] = {1, 1, 0, 0}, kOptimized[4] = {1, 0, 1, 0};
        uint32_t primary = state < 4 ? kPrimary[state] : 0, optimized = state < 4 ? kOptimized[state] : 0;
        const VDS_PATH_POLICY* in = InputFor(inputs, count, e.DsmPathId);
        if (policy == VDS_LBP_FAILOVER && !optionBit12) {
            primary = e.PrimaryPath, optimized = e.OptimizedPath;
            if (!allInputPrimaryPathisZero && in) e.PreferredPath = in->bPrimaryPath ? 1 : 0;
        } else if (policy == VDS_LBP_FAILOVER) {
            if (n >= 2 && allInputPrimaryPathisZero && primary == 1 && optimized == 1) {
                if (firstOptimizedSeen) {
                    if (activeOptimizedBoth) primary = 1, optimized = 0;
                    else primary = 0, optimized = 1;
                }
                firstOptimizedSeen = true;
            }
            if (!allInputPrimaryPathisZero) {
                if (in) {
                    primary = in->bPrimaryPath ? 1 : 0;
                    if (activeOptimizedBoth && primary == 0) primary = 1, optimized = 0;
                }
                e.PreferredPath = 0;
                const VDS_PATH_POLICY* firstPrimary = nullptr;
                for (uint32_t k = 0; k < count && !firstPrimary; ++k)
                    if (inputs[k].bPrimaryPath) firstPrimary = &inputs[k];
                if (firstPrimary && firstPrimary->pathId.ullPathId == e.DsmPathId && primary == 1 && !preferenceTaken) {
                    e.PreferredPath = 1, optimized = 1;
                    preferenceTaken = true;
                }
            }
        }
        e.PrimaryPath = primary, e.OptimizedPath = optimized;
        if (in && in->ulWeight != 0) e.PathWeight = in->ulWeight;
        DebugTrace("iNewPrimary=%d, iNewWeight=%d, iNewOptimizedPath=%d, iTargetPortGroupState=%d iNewPreferredPath=%d "
                   "allInputPrimaryPathisZero=%d\n",
                   e.PrimaryPath, e.PathWeight, e.OptimizedPath, e.TargetPortGroup_State, e.PreferredPath,
                   allInputPrimaryPathisZero ? 1 : 0);
        out.push_back(e);
    }
    return out;
}

std::vector<DsmPath> DerivePaths(const DsmLoadPolicy& query, const VDS_PATH_POLICY* inputs, uint32_t count) {
    std::vector<DsmPath> out;
    const uint32_t n = std::min<uint32_t>(query.DSMPathCount, kDsmPathSlots);
    for (uint32_t i = 0; i < n; ++i) {
        DsmPath p = query.paths[i];
        if (const VDS_PATH_POLICY* in = InputFor(inputs, count, p.DsmPathId)) {
            p.PathWeight = in->ulWeight;
            p.PrimaryPath = in->bPrimaryPath ? 1 : 0;
        }
        DebugTrace("DsmPathId=0x%I64x, iNewPrimary=%d, iNewWeight=%d\n", p.DsmPathId, p.PrimaryPath, p.PathWeight);
        out.push_back(p);
    }
    return out;
}

std::string MultipathWrite::Describe() const {
    std::string s;
    if (!file.empty()) s += "write " + file + ":\n" + content;
    for (const std::string& c : commands) s += "multipathd " + c + "\n";
    return s;
}

bool BuildPolicyWrite(const MultipathMap& map, uint32_t policy, const std::vector<PathSetting>& paths,
                      MultipathWrite* out, std::string* why) {
    const char* grouping = "multibus";
    const char* selector = "round-robin 0";
    bool priorities = false;
    switch (policy) {
    case VDS_LBP_FAILOVER: grouping = "failover", priorities = true; break;
    case VDS_LBP_ROUND_ROBIN: break;
    case VDS_LBP_ROUND_ROBIN_WITH_SUBSET: grouping = "group_by_prio", priorities = true; break;
    case VDS_LBP_DYN_LEAST_QUEUE_DEPTH: selector = "queue-length 0"; break;
    case VDS_LBP_WEIGHTED_PATHS: priorities = true; break;
    case VDS_LBP_LEAST_BLOCKS: selector = "service-time 0"; break;
    default:
        *why = "multipath has no load-balance policy " + std::to_string(policy);
        return false;
    }
    std::string wwid = map.uuid.empty() ? map.name : map.uuid;
    if (!IsSafeSysfsName(wwid)) {
        *why = "the disk's WWID can't name a file";
        return false;
    }
    std::string c = "# Written by the array's hardware provider; replaced whole on each policy change.\n";
    c += "multipaths {\n\tmultipath {\n";
    c += "\t\twwid \"" + wwid + "\"\n";
    c += std::string("\t\tpath_grouping_policy ") + grouping + "\n";
    c += std::string("\t\tpath_selector \"") + selector + "\"\n";
    if (priorities) {
        // The derived flags become priorities: the preferred path first, then primary and
        // optimized ones; failback brings the map back to the best group.
        std::string args;
        for (const PathSetting& s : paths) {
            const MultipathPath* p = PathById(map, s.pathId);
            if (!p) continue;
            uint32_t prio = policy == VDS_LBP_WEIGHTED_PATHS
                                ? std::max<uint32_t>(1, std::min<uint32_t>(s.weight, 1000000))
                                : (s.preferred ? 50 : 0) + (s.primary ? 20 : 0) + (s.optimized ? 10 : 0) + 1;
            char b[96];
            std::snprintf(b, sizeof b, "%s%u:%u:%u:%u %u", args.empty() ? "" : " ", p->host, p->channel, p->target,
                          p->lun, prio);
            args += b;
        }
        c += "\t\tprio \"weightedpath\"\n";
        c += "\t\tprio_args \"hbtl " + args + "\"\n";
        c += "\t\tfailback \"immediate\"\n";
        if (policy == VDS_LBP_WEIGHTED_PATHS) c += "\t\trr_weight \"priorities\"\n";
    }
    c += "\t}\n}\n";
    out->file = Plat()->HostRoot() + "/etc/multipath/conf.d/trovhwiprv-" + wwid + ".conf";
    out->content = c;
    out->commands = {"reconfigure"};
    return true;
}

int WmiSetLoadBalancePolicy_V2(std::vector<mpioDiskInfo> disks, std::string diskSerial,
                               std::vector<MpioDsmPathV2> policies, uint32_t policy, const VDS_PATH_POLICY* inputs,
                               uint32_t count, bool activeOptimizedBoth, bool dryRun, MultipathWrite* plan) {
    if (!Connect()) return 1;
    MpioDsmPathV2 query;
    std::u16string instance;
    if (EnumDsmQueryLBPolicy_V2(disks, diskSerial, policies, &query, &instance) != 0) return 1;
    MultipathMap map;
    int rc = 0;
    if (!FindMap(instance, &map, &rc)) {
        DebugTrace("ExecMethod DsmSetLoadBalancePolicyALUA run to %d hRes=0x%x\n", 3, static_cast<unsigned>(rc));
        return rc;
    }
    std::vector<PathSetting> settings;
    for (const MpioDsmPathV2Entry& e :
         DerivePathsV2(query, policy, inputs, count, activeOptimizedBoth, (Options.load() & kOptionAluaFailover) != 0))
        settings.push_back({e.DsmPathId, e.PrimaryPath, e.OptimizedPath, e.PreferredPath, e.PathWeight});
    MultipathWrite w;
    std::string why;
    if (!BuildPolicyWrite(map, policy, settings, &w, &why)) {
        DebugTrace("DsmSetLoadBalancePolicyALUA: %s\n", why.c_str());
        return EINVAL;
    }
    rc = Apply(w, dryRun, plan);
    DebugTrace("ExecMethod DsmSetLoadBalancePolicyALUA run to %d hRes=0x%x\n", 7, static_cast<unsigned>(rc));
    DebugTrace("Set Load Balance Policy Returned: %d\n", rc);
    return rc;
}

int WmiSetLoadBalancePolicy(std::vector<mpioDiskInfo> disks, std::string diskSerial, uint32_t policy,
                            const VDS_PATH_POLICY* inputs, uint32_t count, bool dryRun, MultipathWrite* plan) {
    if (!Connect()) return 1;
    DsmLoadPolicy query;
    std::u16string instance;
    if (EnumDsmQueryLBPolicy(disks, diskSerial, &query, &instance) != 0) return 1;
    MultipathMap map;
    int rc = 0;
    if (!FindMap(instance, &map, &rc)) return rc;
    std::vector<PathSetting> settings;
    for (const DsmPath& p : DerivePaths(query, inputs, count))
        settings.push_back({p.DsmPathId, p.PrimaryPath, p.PrimaryPath, 0, p.PathWeight});
    MultipathWrite w;
    std::string why;
    if (!BuildPolicyWrite(map, policy, settings, &w, &why)) {
        DebugTrace("DsmSetLoadBalancePolicy: %s\n", why.c_str());
        return EINVAL;
    }
    rc = Apply(w, dryRun, plan);
    DebugTrace("DsmSetLoadBalancePolicy() %d hRes=0x%x\n", rc, static_cast<unsigned>(rc));
    DebugTrace("Set Load Balance Policy Returned: %d\n", rc);
    return rc;
}

int WmiSetPathStatus(const std::vector<uint64_t>& pathIds, VDS_PATH_STATUS status, bool dryRun, MultipathWrite* plan) {
    if (!Connect()) return 1;
    const char* verb = status == VDS_MPS_FAILED ? "fail" : status == VDS_MPS_ONLINE ? "reinstate" : nullptr;
    if (!verb) {
        DebugTrace("Set Path Status: multipath can't set a path %s\n", PathStatusName(status));
        return EINVAL;
    }
    std::vector<MultipathMap> maps;
    if (int rc = ReadMultipathMaps(&maps)) return rc;
    MultipathWrite w;
    for (uint64_t id : pathIds) {
        const MultipathPath* found = nullptr;
        for (const MultipathMap& m : maps)
            if (!found) found = PathById(m, id);
        if (!found) {
            DebugTrace("Set Path Status: no path 0x%I64x\n", id);
            return 1;
        }
        w.commands.push_back(std::string(verb) + " path " + found->dev);
    }
    int rc = Apply(w, dryRun, plan);
    DebugTrace("Set Path Status Returned: %d\n", rc);
    return rc;
}
