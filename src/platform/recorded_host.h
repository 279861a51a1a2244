// A recorded host: a folder that stands for "/" of a host, so that the provider can be pointed
// at a host captured elsewhere (TROVHWIPRV_HOST_ROOT, trovctl --host-root) or at a test fixture.
//
// Layout (every part optional; what is missing is what the host doesn't have):
//
//   sys/class/scsi_device/H:C:T:L/device/   a logical unit: type, vendor, model, rev, and the
//                                            binary attributes inquiry (standard inquiry data),
//                                            vpd_pg80, vpd_pg83, vpd_pgXX (other pages, two
//                                            lower-case hex digits); access_state and
//                                            preferred_path for ALUA; block/sdX/ and
//                                            scsi_generic/sgN/ name its nodes
//   sys/class/scsi_host/hostN/               the SCSI hosts (ports)
//   sys/class/fc_host/hostN/                 Fibre Channel ports: node_name, port_name,
//                                            port_type, port_state, speed, supported_speeds
//   sys/class/fc_remote_ports/rport-H:B-N/   remote ports: port_name, node_name, port_id,
//                                            scsi_target_id, roles
//   sys/class/iscsi_host/hostN/device/sessionK/iscsi_session/sessionK/
//                                            an iSCSI session of that host: targetname,
//                                            initiatorname, state, tpgt, and beside it
//                                            connectionK:0/iscsi_connection/connectionK:0/
//                                            persistent_address, persistent_port
//   dev/sdX, dev/sgN                         the nodes: a file each (for a disk, its first
//                                            sectors, so that its partition table can be probed)
//   etc/iscsi/initiatorname.iscsi            the open-iscsi initiator name
//   multipathd/<command>                     the daemon's reply to a command, the command's words
//                                            joined by '_' ("show_maps_json"); <command>.silent
//                                            makes it stay silent; with no multipathd/ folder no
//                                            daemon answers. Commands that change something
//                                            ("fail path sdb", "reconfigure", ...) are answered
//                                            "ok" and appended, one line each, to
//                                            multipathd/received.
//
// A pass-through to a recorded node answers INQUIRY from the unit's inquiry and vpd_pgXX files
// (as much as the allocation length asks and the file has; a missing page is a CHECK CONDITION
// with ILLEGAL REQUEST, invalid field in CDB) and TEST UNIT READY with GOOD; any other command is
// a CHECK CONDITION with ILLEGAL REQUEST, invalid command operation code.
#pragma once

#include <memory>
#include <string>

#include "platform/platform.h"

// Opens `path` (a node under <root>/dev) of a recorded host.
std::unique_ptr<PlatformDevice> OpenRecordedDevice(const std::string& root, const std::string& path, int* err);
// Answers a multipath daemon command from the recorded host's multipathd folder.
bool RecordedMultipathCommand(const std::string& root, const std::string& command, std::string* reply, int* err);
// The file name under multipathd/ that holds the reply to `command`.
std::string RecordedCommandFileName(const std::string& command);
