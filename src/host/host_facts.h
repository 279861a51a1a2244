// The facts the provider gathers from its host at each load (initWmi) and keeps until the next:
// the multipath disks with their descriptors, serials, paths and policies, the DSM ids, the
// device list of older hosts and the adapter ports. Each vector is cleared and filled whole by
// its step; the readers (the policy library, the path lookups and the host library's entry
// points) hold the notification mutex while they look.
#pragma once

#include <vector>

#include "host/hba.h"
#include "host/multipath.h"

struct HostFacts {
    std::vector<DsmInfo> DsmVec;
    std::vector<DevicePerf> DevPerfVec;
    std::vector<HbaPort> HBA_vec;
    std::vector<DsmLoadPolicy> DsmLoadPolicyVec;
    std::vector<mpioDescriptor> mpioDescriptorVec;
    std::vector<mpioDiskInfo> mpioDiskInfoVec;
    std::vector<MpioDsmPathV2> mpioDsmPathV2Vec;
};
