// Interfaces of the Virtual Disk Service that a hardware provider implements or calls, with the
// published interface ids, methods in the published slot order and the published signatures.
//
// Every interface derives from our IUnknown; a class implementing several of them answers each id
// in its InternalQueryInterface. Interface pointers handed out carry one reference; arrays and
// strings handed out are CoTaskMemAlloc blocks that the receiver frees.
#pragma once

#include "platform/com.h"
#include "platform/vds.h"
#include "platform/wintypes.h"


struct IEnumVdsObject;
struct IVdsAsync;
struct IVdsAdviseSink;
struct IVdsProvider;
struct IVdsProviderSupport;
struct IVdsProviderPrivate;
struct IVdsHwProvider;
struct IVdsHwProviderType;
struct IVdsHwProviderType2;
struct IVdsHwProviderStoragePools;
struct IVdsSubSystem;
struct IVdsSubSystem2;
struct IVdsSubSystemNaming;
struct IVdsSubSystemIscsi;
struct IVdsSubSystemInterconnect;
struct IVdsControllerPort;
struct IVdsController;
struct IVdsControllerControllerPort;
struct IVdsDrive;
struct IVdsDrive2;
struct IVdsLun;
struct IVdsLun2;
struct IVdsLunNaming;
struct IVdsLunNumber;
struct IVdsLunControllerPorts;
struct IVdsLunMpio;
struct IVdsLunIscsi;
struct IVdsLunPlex;
struct IVdsIscsiPortal;
struct IVdsIscsiTarget;
struct IVdsIscsiPortalGroup;
struct IVdsStoragePool;
struct IVdsMaintenance;
struct IVdsHwProviderPrivate;
struct IVdsHwProviderPrivateMpio;
struct IVdsAdmin;

// {118610B7-8D94-4030-B5B8-500889788E4E}
constexpr IID IID_IEnumVdsObject =
    MakeGuid(0x118610B7, 0x8D94, 0x4030, 0xB5, 0xB8, 0x50, 0x08, 0x89, 0x78, 0x8E, 0x4E);
// A snapshot of VDS objects, walked like any COM enumerator.
struct IEnumVdsObject : IUnknown {
    virtual HRESULT Next(ULONG celt, IUnknown** ppObjectArray, ULONG* pcFetched) = 0;
    virtual HRESULT Skip(ULONG celt) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT Clone(IEnumVdsObject** ppEnum) = 0;
};

// {D5D23B6D-5A55-4492-9889-397A3C2D2DBC}
constexpr IID IID_IVdsAsync =
    MakeGuid(0xD5D23B6D, 0x5A55, 0x4492, 0x98, 0x89, 0x39, 0x7A, 0x3C, 0x2D, 0x2D, 0xBC);
// The handle of a long operation: cancel it, wait for it, or poll its progress.
struct IVdsAsync : IUnknown {
    virtual HRESULT Cancel() = 0;
    virtual HRESULT Wait(HRESULT* pHrResult, VDS_ASYNC_OUTPUT* pAsyncOut) = 0;
    virtual HRESULT QueryStatus(HRESULT* pHrResult, ULONG* pulPercentCompleted) = 0;
};

// {8326CD1D-CF59-4936-B786-5EFC08798E25}
constexpr IID IID_IVdsAdviseSink =
    MakeGuid(0x8326CD1D, 0xCF59, 0x4936, 0xB7, 0x86, 0x5E, 0xFC, 0x08, 0x79, 0x8E, 0x25);
// The host's callback for notifications (1 to 100 per call).
struct IVdsAdviseSink : IUnknown {
    virtual HRESULT OnNotify(LONG lNumberOfNotifications, VDS_NOTIFICATION* pNotificationArray) = 0;
};

// {10C5E575-7984-4E81-A56B-431F5F92AE42}
constexpr IID IID_IVdsProvider =
    MakeGuid(0x10C5E575, 0x7984, 0x4E81, 0xA5, 0x6B, 0x43, 0x1F, 0x5F, 0x92, 0xAE, 0x42);
// Identity and properties of a provider.
struct IVdsProvider : IUnknown {
    virtual HRESULT GetProperties(VDS_PROVIDER_PROP* pProviderProp) = 0;
};

// {1732BE13-E8F9-4A03-BFBC-5F616AA66CE1}
constexpr IID IID_IVdsProviderSupport =
    MakeGuid(0x1732BE13, 0xE8F9, 0x4A03, 0xBF, 0xBC, 0x5F, 0x61, 0x6A, 0xA6, 0x6C, 0xE1);
// Which VDS interface versions a provider implements (VDS_VERSION_SUPPORT_FLAG bits).
struct IVdsProviderSupport : IUnknown {
    virtual HRESULT GetVersionSupport(ULONG* ulVersionSupport) = 0;
};

// {11F3CD41-B7E8-48FF-9472-9DFF018AA292}
constexpr IID IID_IVdsProviderPrivate =
    MakeGuid(0x11F3CD41, 0xB7E8, 0x48FF, 0x94, 0x72, 0x9D, 0xFF, 0x01, 0x8A, 0xA2, 0x92);
// What the host service calls on a provider it loads: object lookup, load and unload.
struct IVdsProviderPrivate : IUnknown {
    virtual HRESULT GetObject(VDS_OBJECT_ID ObjectId, VDS_OBJECT_TYPE type, IUnknown** ppObjectUnk) = 0;
    virtual HRESULT OnLoad(LPWSTR pwszMachineName, IUnknown* pCallbackObject) = 0;
    virtual HRESULT OnUnload(BOOL bForceUnload) = 0;
};

// {D99BDAAE-B13A-4178-9FDB-E27F16B4603E}
constexpr IID IID_IVdsHwProvider =
    MakeGuid(0xD99BDAAE, 0xB13A, 0x4178, 0x9F, 0xDB, 0xE2, 0x7F, 0x16, 0xB4, 0x60, 0x3E);
// The root of a hardware provider: its subsystems, a rescan and a refresh.
struct IVdsHwProvider : IUnknown {
    virtual HRESULT QuerySubSystems(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT Reenumerate() = 0;
    virtual HRESULT Refresh() = 0;
};

// {3E0F5166-542D-4FC6-947A-012174240B7E}
constexpr IID IID_IVdsHwProviderType =
    MakeGuid(0x3E0F5166, 0x542D, 0x4FC6, 0x94, 0x7A, 0x01, 0x21, 0x74, 0x24, 0x0B, 0x7E);
// The interconnect a hardware provider serves.
struct IVdsHwProviderType : IUnknown {
    virtual HRESULT GetProviderType(VDS_HWPROVIDER_TYPE* pType) = 0;
};

// {8190236F-C4D0-4E81-8011-D69512FCC984}
constexpr IID IID_IVdsHwProviderType2 =
    MakeGuid(0x8190236F, 0xC4D0, 0x4E81, 0x80, 0x11, 0xD6, 0x95, 0x12, 0xFC, 0xC9, 0x84);
// The interconnect a hardware provider serves, including hybrid providers.
struct IVdsHwProviderType2 : IUnknown {
    virtual HRESULT GetProviderType2(VDS_HWPROVIDER_TYPE* pType) = 0;
};

// {D5B5937A-F188-4C79-B86C-11C920AD11B8}
constexpr IID IID_IVdsHwProviderStoragePools =
    MakeGuid(0xD5B5937A, 0xF188, 0x4C79, 0xB8, 0x6C, 0x11, 0xC9, 0x20, 0xAD, 0x11, 0xB8);
// Storage pools of a hardware provider and LUN creation inside a pool.
struct IVdsHwProviderStoragePools : IUnknown {
    virtual HRESULT QueryStoragePools(ULONG ulFlags, ULONGLONG ullRemainingFreeSpace,
                            VDS_POOL_ATTRIBUTES* pPoolAttributes, IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT CreateLunInStoragePool(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes,
                            VDS_OBJECT_ID StoragePoolId, LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2,
                            IVdsAsync** ppAsync) = 0;
    virtual HRESULT QueryMaxLunCreateSizeInStoragePool(VDS_LUN_TYPE type, VDS_OBJECT_ID StoragePoolId,
                            VDS_HINTS2* pHints2, ULONGLONG* pullMaxLunSize) = 0;
};

// {6FCEE2D3-6D90-4F91-80E2-A5C7CAACA9D8}
constexpr IID IID_IVdsSubSystem =
    MakeGuid(0x6FCEE2D3, 0x6D90, 0x4F91, 0x80, 0xE2, 0xA5, 0xC7, 0xCA, 0xAC, 0xA9, 0xD8);
// A storage subsystem (an array): its controllers, drives and LUNs, and LUN creation.
struct IVdsSubSystem : IUnknown {
    virtual HRESULT GetProperties(VDS_SUB_SYSTEM_PROP* pSubSystemProp) = 0;
    virtual HRESULT GetProvider(IVdsProvider** ppProvider) = 0;
    virtual HRESULT QueryControllers(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT QueryLuns(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT QueryDrives(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT GetDrive(SHORT sBusNumber, SHORT sSlotNumber, IVdsDrive** ppDrive) = 0;
    virtual HRESULT Reenumerate() = 0;
    virtual HRESULT SetControllerStatus(VDS_OBJECT_ID* pOnlineControllerIdArray,
                            LONG lNumberOfOnlineControllers, VDS_OBJECT_ID* pOfflineControllerIdArray,
                            LONG lNumberOfOfflineControllers) = 0;
    virtual HRESULT CreateLun(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray,
                            LONG lNumberOfDrives, LPWSTR pwszUnmaskingList, VDS_HINTS* pHints,
                            IVdsAsync** ppAsync) = 0;
    virtual HRESULT ReplaceDrive(VDS_OBJECT_ID DriveToBeReplaced, VDS_OBJECT_ID ReplacementDrive) = 0;
    virtual HRESULT SetStatus(VDS_SUB_SYSTEM_STATUS status) = 0;
    virtual HRESULT QueryMaxLunCreateSize(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray,
                            LONG lNumberOfDrives, VDS_HINTS* pHints, ULONGLONG* pullMaxLunSize) = 0;
};

// {BE666735-7800-4A77-9D9C-40F85B87E292}
constexpr IID IID_IVdsSubSystem2 =
    MakeGuid(0xBE666735, 0x7800, 0x4A77, 0x9D, 0x9C, 0x40, 0xF8, 0x5B, 0x87, 0xE2, 0x92);
// Subsystem additions: enclosures, VDS_HINTS2 creation and sizing.
struct IVdsSubSystem2 : IUnknown {
    virtual HRESULT GetProperties2(VDS_SUB_SYSTEM_PROP2* pSubSystemProp2) = 0;
    virtual HRESULT GetDrive2(SHORT sBusNumber, SHORT sSlotNumber, ULONG ulEnclosureNumber,
                            IVdsDrive** ppDrive) = 0;
    virtual HRESULT CreateLun2(VDS_LUN_TYPE type, ULONGLONG ullSizeInBytes, VDS_OBJECT_ID* pDriveIdArray,
                            LONG lNumberOfDrives, LPWSTR pwszUnmaskingList, VDS_HINTS2* pHints2,
                            IVdsAsync** ppAsync) = 0;
    virtual HRESULT QueryMaxLunCreateSize2(VDS_LUN_TYPE type, VDS_OBJECT_ID* pDriveIdArray,
                            LONG lNumberOfDrives, VDS_HINTS2* pHints2, ULONGLONG* pullMaxLunSize) = 0;
};

// {0D70FAA3-9CD4-4900-AA20-6981B6AAFC75}
constexpr IID IID_IVdsSubSystemNaming =
    MakeGuid(0x0D70FAA3, 0x9CD4, 0x4900, 0xAA, 0x20, 0x69, 0x81, 0xB6, 0xAA, 0xFC, 0x75);
// Renaming a subsystem.
struct IVdsSubSystemNaming : IUnknown {
    virtual HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) = 0;
};

// {0027346F-40D0-4B45-8CEC-5906DC0380C8}
constexpr IID IID_IVdsSubSystemIscsi =
    MakeGuid(0x0027346F, 0x40D0, 0x4B45, 0x8C, 0xEC, 0x59, 0x06, 0xDC, 0x03, 0x80, 0xC8);
// The iSCSI side of a subsystem: targets, portals, target creation.
struct IVdsSubSystemIscsi : IUnknown {
    virtual HRESULT QueryTargets(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT QueryPortals(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT CreateTarget(LPWSTR pwszIscsiName, LPWSTR pwszFriendlyName, IVdsAsync** ppAsync) = 0;
    virtual HRESULT SetIpsecGroupPresharedKey(VDS_ISCSI_IPSEC_KEY* pIpsecKey) = 0;
};

// {9E6FA560-C141-477B-83BA-0B6C38F7FEBF}
constexpr IID IID_IVdsSubSystemInterconnect =
    MakeGuid(0x9E6FA560, 0xC141, 0x477B, 0x83, 0xBA, 0x0B, 0x6C, 0x38, 0xF7, 0xFE, 0xBF);
// The interconnects a subsystem supports (VDS_INTERCONNECT_FLAG bits).
struct IVdsSubSystemInterconnect : IUnknown {
    virtual HRESULT GetSupportedInterconnects(ULONG* pulSupportedInterconnectsFlag) = 0;
};

// {18691D0D-4E7F-43E8-92E4-CF44BEEED11C}
constexpr IID IID_IVdsControllerPort =
    MakeGuid(0x18691D0D, 0x4E7F, 0x43E8, 0x92, 0xE4, 0xCF, 0x44, 0xBE, 0xEE, 0xD1, 0x1C);
// One port of a controller.
struct IVdsControllerPort : IUnknown {
    virtual HRESULT GetProperties(VDS_PORT_PROP* pPortProp) = 0;
    virtual HRESULT GetController(IVdsController** ppController) = 0;
    virtual HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT SetStatus(VDS_PORT_STATUS status) = 0;
};

// {CB53D96E-DFFB-474A-A078-790D1E2BC082}
constexpr IID IID_IVdsController =
    MakeGuid(0xCB53D96E, 0xDFFB, 0x474A, 0xA0, 0x78, 0x79, 0x0D, 0x1E, 0x2B, 0xC0, 0x82);
// One controller of a subsystem.
struct IVdsController : IUnknown {
    virtual HRESULT GetProperties(VDS_CONTROLLER_PROP* pControllerProp) = 0;
    virtual HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) = 0;
    virtual HRESULT GetPortProperties(SHORT sPortNumber, VDS_PORT_PROP* pPortProp) = 0;
    virtual HRESULT FlushCache() = 0;
    virtual HRESULT InvalidateCache() = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT SetStatus(VDS_CONTROLLER_STATUS status) = 0;
};

// {CA5D735F-6BAE-42C0-B30E-F2666045CE71}
constexpr IID IID_IVdsControllerControllerPort =
    MakeGuid(0xCA5D735F, 0x6BAE, 0x42C0, 0xB3, 0x0E, 0xF2, 0x66, 0x60, 0x45, 0xCE, 0x71);
// The ports of a controller as objects.
struct IVdsControllerControllerPort : IUnknown {
    virtual HRESULT QueryControllerPorts(IEnumVdsObject** ppEnum) = 0;
};

// {FF24EFA4-AADE-4B6B-898B-EAA6A20887C7}
constexpr IID IID_IVdsDrive =
    MakeGuid(0xFF24EFA4, 0xAADE, 0x4B6B, 0x89, 0x8B, 0xEA, 0xA6, 0xA2, 0x08, 0x87, 0xC7);
// A physical drive in a subsystem.
struct IVdsDrive : IUnknown {
    virtual HRESULT GetProperties(VDS_DRIVE_PROP* pDriveProp) = 0;
    virtual HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) = 0;
    virtual HRESULT QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) = 0;
    virtual HRESULT SetFlags(ULONG ulFlags) = 0;
    virtual HRESULT ClearFlags(ULONG ulFlags) = 0;
    virtual HRESULT SetStatus(VDS_DRIVE_STATUS status) = 0;
};

// {60B5A730-ADDF-4436-8CA7-5769E2D1FFA4}
constexpr IID IID_IVdsDrive2 =
    MakeGuid(0x60B5A730, 0xADDF, 0x4436, 0x8C, 0xA7, 0x57, 0x69, 0xE2, 0xD1, 0xFF, 0xA4);
// Drive properties with enclosure, bus type and spindle speed.
struct IVdsDrive2 : IUnknown {
    virtual HRESULT GetProperties2(VDS_DRIVE_PROP2* pDriveProp2) = 0;
};

// {3540A9C7-E60F-4111-A840-8BBA6C2C83D8}
constexpr IID IID_IVdsLun =
    MakeGuid(0x3540A9C7, 0xE60F, 0x4111, 0xA8, 0x40, 0x8B, 0xBA, 0x6C, 0x2C, 0x83, 0xD8);
// A LUN: properties, identification, growth, plexes, masking, controllers and hints.
struct IVdsLun : IUnknown {
    virtual HRESULT GetProperties(VDS_LUN_PROP* pLunProp) = 0;
    virtual HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) = 0;
    virtual HRESULT GetIdentificationData(VDS_LUN_INFORMATION* pLunInfo) = 0;
    virtual HRESULT QueryActiveControllers(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT Extend(ULONGLONG ullNumberOfBytesToAdd, VDS_OBJECT_ID* pDriveIdArray,
                            LONG lNumberOfDrives, IVdsAsync** ppAsync) = 0;
    virtual HRESULT Shrink(ULONGLONG ullNumberOfBytesToRemove, IVdsAsync** ppAsync) = 0;
    virtual HRESULT QueryPlexes(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT AddPlex(VDS_OBJECT_ID lunId, IVdsAsync** ppAsync) = 0;
    virtual HRESULT RemovePlex(VDS_OBJECT_ID plexId, IVdsAsync** ppAsync) = 0;
    virtual HRESULT Recover(IVdsAsync** ppAsync) = 0;
    virtual HRESULT SetMask(LPWSTR pwszUnmaskingList) = 0;
    virtual HRESULT Delete() = 0;
    virtual HRESULT AssociateControllers(VDS_OBJECT_ID* pActiveControllerIdArray,
                            LONG lNumberOfActiveControllers, VDS_OBJECT_ID* pInactiveControllerIdArray,
                            LONG lNumberOfInactiveControllers) = 0;
    virtual HRESULT QueryHints(VDS_HINTS* pHints) = 0;
    virtual HRESULT ApplyHints(VDS_HINTS* pHints) = 0;
    virtual HRESULT SetStatus(VDS_LUN_STATUS status) = 0;
    virtual HRESULT QueryMaxLunExtendSize(VDS_OBJECT_ID* pDriveIdArray, LONG lNumberOfDrives,
                            ULONGLONG* pullMaxBytesToBeAdded) = 0;
};

// {E5B3A735-9EFB-499A-8071-4394D9EE6FCB}
constexpr IID IID_IVdsLun2 =
    MakeGuid(0xE5B3A735, 0x9EFB, 0x499A, 0x80, 0x71, 0x43, 0x94, 0xD9, 0xEE, 0x6F, 0xCB);
// LUN hints in the VDS_HINTS2 form.
struct IVdsLun2 : IUnknown {
    virtual HRESULT QueryHints2(VDS_HINTS2* pHints2) = 0;
    virtual HRESULT ApplyHints2(VDS_HINTS2* pHints2) = 0;
};

// {907504CB-6B4E-4D88-A34D-17BA661FBB06}
constexpr IID IID_IVdsLunNaming =
    MakeGuid(0x907504CB, 0x6B4E, 0x4D88, 0xA3, 0x4D, 0x17, 0xBA, 0x66, 0x1F, 0xBB, 0x06);
// Renaming a LUN.
struct IVdsLunNaming : IUnknown {
    virtual HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) = 0;
};

// {D3F95E46-54B3-41F9-B678-0F1871443A08}
constexpr IID IID_IVdsLunNumber =
    MakeGuid(0xD3F95E46, 0x54B3, 0x41F9, 0xB6, 0x78, 0x0F, 0x18, 0x71, 0x44, 0x3A, 0x08);
// The LUN number under which the host sees a LUN.
struct IVdsLunNumber : IUnknown {
    virtual HRESULT GetLunNumber(ULONG* pulLunNumber) = 0;
};

// {451FE266-DA6D-406A-BB60-82E534F85AEB}
constexpr IID IID_IVdsLunControllerPorts =
    MakeGuid(0x451FE266, 0xDA6D, 0x406A, 0xBB, 0x60, 0x82, 0xE5, 0x34, 0xF8, 0x5A, 0xEB);
// Which controller ports serve a LUN.
struct IVdsLunControllerPorts : IUnknown {
    virtual HRESULT AssociateControllerPorts(VDS_OBJECT_ID* pActiveControllerPortIdArray,
                            LONG lNumberOfActiveControllerPorts,
                            VDS_OBJECT_ID* pInactiveControllerPortIdArray,
                            LONG lNumberOfInactiveControllerPorts) = 0;
    virtual HRESULT QueryActiveControllerPorts(IEnumVdsObject** ppEnum) = 0;
};

// {7C5FBAE3-333A-48A1-A982-33C15788CDE3}
constexpr IID IID_IVdsLunMpio =
    MakeGuid(0x7C5FBAE3, 0x333A, 0x48A1, 0xA9, 0x82, 0x33, 0xC1, 0x57, 0x88, 0xCD, 0xE3);
// Multipath state and load-balance policy of a LUN.
struct IVdsLunMpio : IUnknown {
    virtual HRESULT GetPathInfo(VDS_PATH_INFO** ppPaths, LONG* plNumberOfPaths) = 0;
    virtual HRESULT GetLoadBalancePolicy(VDS_LOADBALANCE_POLICY_ENUM* pPolicy, VDS_PATH_POLICY** ppPaths,
                            LONG* plNumberOfPaths) = 0;
    virtual HRESULT SetLoadBalancePolicy(VDS_LOADBALANCE_POLICY_ENUM policy, VDS_PATH_POLICY* pPaths,
                            LONG lNumberOfPaths) = 0;
    virtual HRESULT GetSupportedLbPolicies(ULONG* pulLbFlags) = 0;
};

// {0D7C1E64-B59B-45AE-B86A-2C2CC6A42067}
constexpr IID IID_IVdsLunIscsi =
    MakeGuid(0x0D7C1E64, 0xB59B, 0x45AE, 0xB8, 0x6A, 0x2C, 0x2C, 0xC6, 0xA4, 0x20, 0x67);
// Which iSCSI targets expose a LUN.
struct IVdsLunIscsi : IUnknown {
    virtual HRESULT AssociateTargets(VDS_OBJECT_ID* pTargetIdArray, LONG lNumberOfTargets) = 0;
    virtual HRESULT QueryAssociatedTargets(IEnumVdsObject** ppEnum) = 0;
};

// {0EE1A790-5D2E-4ABB-8C99-C481E8BE2138}
constexpr IID IID_IVdsLunPlex =
    MakeGuid(0x0EE1A790, 0x5D2E, 0x4ABB, 0x8C, 0x99, 0xC4, 0x81, 0xE8, 0xBE, 0x21, 0x38);
// One plex (copy) of a LUN.
struct IVdsLunPlex : IUnknown {
    virtual HRESULT GetProperties(VDS_LUN_PLEX_PROP* pPlexProp) = 0;
    virtual HRESULT GetLun(IVdsLun** ppLun) = 0;
    virtual HRESULT QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) = 0;
    virtual HRESULT QueryHints(VDS_HINTS* pHints) = 0;
    virtual HRESULT ApplyHints(VDS_HINTS* pHints) = 0;
};

// {7FA1499D-EC85-4A8A-A47B-FF69201FCD34}
constexpr IID IID_IVdsIscsiPortal =
    MakeGuid(0x7FA1499D, 0xEC85, 0x4A8A, 0xA4, 0x7B, 0xFF, 0x69, 0x20, 0x1F, 0xCD, 0x34);
// An iSCSI portal (address and port) of a subsystem.
struct IVdsIscsiPortal : IUnknown {
    virtual HRESULT GetProperties(VDS_ISCSI_PORTAL_PROP* pPortalProp) = 0;
    virtual HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) = 0;
    virtual HRESULT QueryAssociatedPortalGroups(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT SetStatus(VDS_ISCSI_PORTAL_STATUS status) = 0;
    virtual HRESULT SetIpsecTunnelAddress(VDS_IPADDRESS* pTunnelAddress,
                            VDS_IPADDRESS* pDestinationAddress) = 0;
    virtual HRESULT GetIpsecSecurity(VDS_IPADDRESS* pInitiatorPortalAddress,
                            ULONGLONG* pullSecurityFlags) = 0;
    virtual HRESULT SetIpsecSecurity(VDS_IPADDRESS* pInitiatorPortalAddress, ULONGLONG ullSecurityFlags,
                            VDS_ISCSI_IPSEC_KEY* pIpsecKey) = 0;
};

// {AA8F5055-83E5-4BCC-AA73-19851A36A849}
constexpr IID IID_IVdsIscsiTarget =
    MakeGuid(0xAA8F5055, 0x83E5, 0x4BCC, 0xAA, 0x73, 0x19, 0x85, 0x1A, 0x36, 0xA8, 0x49);
// An iSCSI target: portal groups, LUNs, naming and CHAP secrets.
struct IVdsIscsiTarget : IUnknown {
    virtual HRESULT GetProperties(VDS_ISCSI_TARGET_PROP* pTargetProp) = 0;
    virtual HRESULT GetSubSystem(IVdsSubSystem** ppSubSystem) = 0;
    virtual HRESULT QueryPortalGroups(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT QueryAssociatedLuns(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT CreatePortalGroup(IVdsAsync** ppAsync) = 0;
    virtual HRESULT Delete(IVdsAsync** ppAsync) = 0;
    virtual HRESULT SetFriendlyName(LPWSTR pwszFriendlyName) = 0;
    virtual HRESULT SetSharedSecret(VDS_ISCSI_SHARED_SECRET* pTargetSharedSecret,
                            LPWSTR pwszInitiatorName) = 0;
    virtual HRESULT RememberInitiatorSharedSecret(LPWSTR pwszInitiatorName,
                            VDS_ISCSI_SHARED_SECRET* pInitiatorSharedSecret) = 0;
    virtual HRESULT GetConnectedInitiators(LPWSTR** pppwszInitiatorList, LONG* plNumberOfInitiators) = 0;
};

// {FEF5F89D-A3DD-4B36-BF28-E7DDE045C593}
constexpr IID IID_IVdsIscsiPortalGroup =
    MakeGuid(0xFEF5F89D, 0xA3DD, 0x4B36, 0xBF, 0x28, 0xE7, 0xDD, 0xE0, 0x45, 0xC5, 0x93);
// A portal group of a target.
struct IVdsIscsiPortalGroup : IUnknown {
    virtual HRESULT GetProperties(VDS_ISCSI_PORTALGROUP_PROP* pPortalGroupProp) = 0;
    virtual HRESULT GetTarget(IVdsIscsiTarget** ppTarget) = 0;
    virtual HRESULT QueryAssociatedPortals(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT AddPortal(VDS_OBJECT_ID portalId, IVdsAsync** ppAsync) = 0;
    virtual HRESULT RemovePortal(VDS_OBJECT_ID portalId, IVdsAsync** ppAsync) = 0;
    virtual HRESULT Delete(IVdsAsync** ppAsync) = 0;
};

// {932CA8CF-0EB3-4BA8-9620-22665D7F8450}
constexpr IID IID_IVdsStoragePool =
    MakeGuid(0x932CA8CF, 0x0EB3, 0x4BA8, 0x96, 0x20, 0x22, 0x66, 0x5D, 0x7F, 0x84, 0x50);
// A storage pool: its space, attributes, drive extents and LUNs.
struct IVdsStoragePool : IUnknown {
    virtual HRESULT GetProvider(IVdsProvider** ppProvider) = 0;
    virtual HRESULT GetProperties(VDS_STORAGE_POOL_PROP* pStoragePoolProp) = 0;
    virtual HRESULT GetAttributes(VDS_POOL_ATTRIBUTES* pStoragePoolAttributes) = 0;
    virtual HRESULT QueryDriveExtents(VDS_STORAGE_POOL_DRIVE_EXTENT** ppExtentArray,
                            LONG* plNumberOfExtents) = 0;
    virtual HRESULT QueryAllocatedLuns(IEnumVdsObject** ppEnum) = 0;
    virtual HRESULT QueryAllocatedStoragePools(IEnumVdsObject** ppEnum) = 0;
};

// {DAEBEEF3-8523-47ED-A2B9-05CECCE2A1AE}
constexpr IID IID_IVdsMaintenance =
    MakeGuid(0xDAEBEEF3, 0x8523, 0x47ED, 0xA2, 0xB9, 0x05, 0xCE, 0xCC, 0xE2, 0xA1, 0xAE);
// Maintenance actions on a subsystem, drive or LUN (locate light and the like).
struct IVdsMaintenance : IUnknown {
    virtual HRESULT StartMaintenance(VDS_MAINTENANCE_OPERATION operation) = 0;
    virtual HRESULT StopMaintenance(VDS_MAINTENANCE_OPERATION operation) = 0;
    virtual HRESULT PulseMaintenance(VDS_MAINTENANCE_OPERATION operation, ULONG ulCount) = 0;
};

// {98F17BF3-9F33-4F12-8714-8B4075092C2E}
constexpr IID IID_IVdsHwProviderPrivate =
    MakeGuid(0x98F17BF3, 0x9F33, 0x4F12, 0x87, 0x14, 0x8B, 0x40, 0x75, 0x09, 0x2C, 0x2E);
// Asks a hardware provider whether a host disk is one of its LUNs.
struct IVdsHwProviderPrivate : IUnknown {
    virtual HRESULT QueryIfCreatedLun(LPWSTR pwszDevicePath, VDS_LUN_INFORMATION* pVdsLunInformation,
                            VDS_OBJECT_ID* pLunId) = 0;
};

// {310A7715-AC2B-4C6F-9827-3D742F351676}
constexpr IID IID_IVdsHwProviderPrivateMpio =
    MakeGuid(0x310A7715, 0xAC2B, 0x4C6F, 0x98, 0x27, 0x3D, 0x74, 0x2F, 0x35, 0x16, 0x76);
// Sets the status of every path through one HBA port.
struct IVdsHwProviderPrivateMpio : IUnknown {
    virtual HRESULT SetAllPathStatusesFromHbaPort(VDS_HBAPORT_PROP hbaPortProp, VDS_PATH_STATUS status) = 0;
};

// {D188E97D-85AA-4D33-ABC6-26299A10FFC1}
constexpr IID IID_IVdsAdmin =
    MakeGuid(0xD188E97D, 0x85AA, 0x4D33, 0xAB, 0xC6, 0x26, 0x29, 0x9A, 0x10, 0xFF, 0xC1);
// Registration of providers with the host service.
struct IVdsAdmin : IUnknown {
    virtual HRESULT RegisterProvider(VDS_OBJECT_ID providerId, CLSID providerClsid, LPWSTR pwszName,
                            VDS_PROVIDER_TYPE type, LPWSTR pwszMachineName, LPWSTR pwszVersion,
                            GUID guidVersionId) = 0;
    virtual HRESULT UnregisterProvider(VDS_OBJECT_ID providerId) = 0;
};
