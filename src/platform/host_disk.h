// A host disk as the host service describes it to a hardware provider: what the disk answers
// about itself (standard inquiry, pages 0x80 and 0x83) made into a VDS_LUN_INFORMATION, as the
// host passes it to IVdsHwProviderPrivate::QueryIfCreatedLun.
//
// The disk is named by its node ("/dev/sdb", "sdb", "sg2") or its SCSI address ("2:0:0:1"),
// on the host under HostRoot(). Each page is asked for once; a page that fails leaves its part
// of the record empty.
#pragma once

#include <string>
#include <vector>

#include "platform/scsi_pages.h"
#include "platform/scsi_sysfs.h"
#include "platform/vds.h"

struct HostDiskIdentity {
    HostScsiDevice unit;
    std::string devicePath;  // the node asked
    bool haveInquiry = false, haveSerial = false, haveDesignators = false;
    StandardInquiry inquiry;
    std::string serial;                 // page 0x80's text
    std::vector<Designator> designators;
    VDS_STORAGE_BUS_TYPE busType = VDSBusTypeUnknown;  // iSCSI or Fibre Channel by its SCSI host
};

// False with *why when there is no such disk or its node can't be opened.
bool ReadHostDiskIdentity(const std::string& device, HostDiskIdentity* out, std::string* why);

// Fills *info from the identity; every string and array comes from CoTaskMemAlloc. On a failed
// allocation E_OUTOFMEMORY with nothing left allocated.
HRESULT MakeHostLunInformation(const HostDiskIdentity& disk, VDS_LUN_INFORMATION* info);
// Frees what MakeHostLunInformation (or a provider's GetIdentificationData) allocated.
void FreeHostLunInformation(VDS_LUN_INFORMATION* info);
