// The command handlers, by object family; the table in commands.cpp names each. A handler takes
// its target with Shell::ResolveArgs (the kinds come from its entry), reports its own failures
// through the shell and returns an exit status.
#pragma once

#include "commands.h"
#include "platform/host_library.h"
#include "render.h"

namespace trovctl {

// cmd_general.cpp: the provider, the tree and the shell itself.
// The rows of a listing of `objects` (numbered, of one kind), with the cells a listing adds.
std::vector<Row> RowsOf(Shell& sh, Kind kind, std::vector<Object>& objects);
// Every object of a kind as rows; an exit status (the failure is reported).
int ListRows(Shell& sh, Kind kind, std::vector<Row>* rows);
int CmdHelp(Shell& sh, const Call& c);
int CmdVersion(Shell& sh, const Call& c);
int CmdQuit(Shell& sh, const Call& c);
int CmdInfo(Shell& sh, const Call& c);
int CmdList(Shell& sh, const Call& c);
int CmdSelect(Shell& sh, const Call& c);
int CmdDetail(Shell& sh, const Call& c);
int CmdReenumerate(Shell& sh, const Call& c);
int CmdRefresh(Shell& sh, const Call& c);
int CmdWatch(Shell& sh, const Call& c);

// cmd_subsystem.cpp
int CmdNameSubsystem(Shell& sh, const Call& c);
int CmdReenumerateSubsystem(Shell& sh, const Call& c);
int CmdGetDrive(Shell& sh, const Call& c);

// cmd_controller.cpp: controllers and their ports.
int CmdFlushCache(Shell& sh, const Call& c);
int CmdInvalidateCache(Shell& sh, const Call& c);
int CmdPortProps(Shell& sh, const Call& c);

// cmd_drive.cpp: drives, the lights and alarms of drives and controllers, drive extents.
int CmdMaintenance(Shell& sh, const Call& c);
int CmdPulse(Shell& sh, const Call& c);
int CmdSetFlag(Shell& sh, const Call& c);
int CmdClearFlag(Shell& sh, const Call& c);
int CmdExtents(Shell& sh, const Call& c);

// cmd_lun.cpp: LUNs and plexes.
int CmdNameLun(Shell& sh, const Call& c);
int CmdExtend(Shell& sh, const Call& c);
int CmdShrink(Shell& sh, const Call& c);
int CmdDeleteLun(Shell& sh, const Call& c);
int CmdUnmask(Shell& sh, const Call& c);
int CmdAssociatePorts(Shell& sh, const Call& c);
int CmdAssociateTargets(Shell& sh, const Call& c);
int CmdActiveControllers(Shell& sh, const Call& c);
int CmdActivePorts(Shell& sh, const Call& c);
int CmdAssociatedTargets(Shell& sh, const Call& c);
int CmdHints(Shell& sh, const Call& c);
int CmdHintsSet(Shell& sh, const Call& c);
int CmdConvert(Shell& sh, const Call& c);

// cmd_provision.cpp: making storage and the sizes it can have.
// The ids of the drives `words` name (each a target word); an exit status.
int ResolveDrives(Shell& sh, const std::vector<std::string>& words, std::vector<GUID>* ids);
// Waits for a long operation; reports a failure of the wait or of the operation as `call`'s.
int WaitFor(Shell& sh, IVdsAsync* async, const std::string& call, VDS_ASYNC_OUTPUT* out);
int CmdCreateLun(Shell& sh, const Call& c);
int CmdMaxSize(Shell& sh, const Call& c);
int CmdMaxSizeExtend(Shell& sh, const Call& c);

// cmd_pool.cpp
int CmdPoolLuns(Shell& sh, const Call& c);

// cmd_iscsi.cpp: targets, portals, portal groups, secrets.
int CmdTargetSecret(Shell& sh, const Call& c);
int CmdInitiatorSecret(Shell& sh, const Call& c);
int CmdInitiators(Shell& sh, const Call& c);
int CmdCreatePortalGroup(Shell& sh, const Call& c);

// cmd_host.cpp: the host side of LUNs. The host library is found in the provider's module; a
// host with the provider's code linked in names the entry points itself.
struct HostLibrary {
    TrovHostHbaPortsFn hbaPorts = nullptr;
    TrovHostLunPathsFn lunPaths = nullptr;
    TrovHostSetLunPolicyFn setLunPolicy = nullptr;
    TrovHostSetPathStatusFn setPathStatus = nullptr;
};
void UseHostLibrary(const HostLibrary& lib);
int CmdIdentify(Shell& sh, const Call& c);
int CmdHostDisk(Shell& sh, const Call& c);
int CmdHbas(Shell& sh, const Call& c);
int CmdPaths(Shell& sh, const Call& c);
int CmdPathStatus(Shell& sh, const Call& c);
int CmdPolicy(Shell& sh, const Call& c);
int CmdPolicySet(Shell& sh, const Call& c);

// cmd_registration.cpp: provider modules and the host registry.
int CmdRegister(Shell& sh, const Call& c);
int CmdUnregister(Shell& sh, const Call& c);
int CmdProviders(Shell& sh, const Call& c);

}  // namespace trovctl
