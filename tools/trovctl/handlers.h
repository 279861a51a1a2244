// The command handlers, by object family; the table in commands.cpp names each. A handler takes
// its target with Shell::ResolveArgs (the kinds come from its entry), reports its own failures
// through the shell and returns an exit status.
#pragma once

#include "commands.h"

namespace trovctl {

// cmd_general.cpp: the provider, the tree and the shell itself.
int CmdHelp(Shell& sh, const Call& c);
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

// cmd_pool.cpp
int CmdPoolLuns(Shell& sh, const Call& c);

// cmd_iscsi.cpp: targets, portals, portal groups, secrets.
int CmdTargetSecret(Shell& sh, const Call& c);
int CmdInitiatorSecret(Shell& sh, const Call& c);
int CmdInitiators(Shell& sh, const Call& c);
int CmdCreatePortalGroup(Shell& sh, const Call& c);

}  // namespace trovctl
