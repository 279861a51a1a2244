// Which host disk is which LUN, in both directions.
//
// CLun::GetIdentificationData (defined in identification.cpp) describes a LUN as the host would
// see the disk: the array's vendor, product and revision, the serial as 32 lower-case
// hexadecimal digits of the first 16 bytes of its partition serial, and four identifiers (NAA,
// relative port, vendor block, target port group); when a host disk answers that serial in its
// page 0x80, the disk's product id, signature and (in active-active mode) its page 0x83 fill in.
// CProvider::QueryIfCreatedLun goes the other way: a host disk's 16-byte NAA identifier names the
// LUN whose serial ends in the same eight bytes.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vds.h"

// The 16-byte NAA identifier of a LUN from the first 16 bytes of its partition serial.
void NaaIdentifierFromSerial(const uint8_t* serial, uint8_t out[16]);
// The serial as the host's page 0x80 gives it: 32 lower-case hexadecimal digits.
std::string LunSerialText(const uint8_t* serial);
// The 6-byte controller identifier: the 12 hexadecimal digits of the controller's unique serial
// as bytes (the serial's first six characters when they aren't hexadecimal).
void ControllerIdentifier(const char* uniqueSerial32, uint8_t out[6]);
// The log print of a LUN information record; only at DebugLevel 5 or more.
void PrintLunInformation(const VDS_LUN_INFORMATION* info);
