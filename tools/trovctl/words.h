// The words an administrator reads for the numbers of the provider's records: states, health,
// RAID levels, bus types, flags, and sizes in binary units. Pure functions of their arguments;
// a number without a word comes back as the number itself, so that nothing is ever hidden.
#pragma once

#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "tree.h"

namespace trovctl {

// 512 B, 1.5 KiB, 200 GiB, 1.2 TiB: the largest binary unit in which the value is at least 1,
// one decimal unless the value is whole in that unit.
std::string SizeText(uint64_t bytes);

// The word of an enum field of a record of `kind` ("status", "health", "type", "busType",
// "raidType", "TransitionState"); empty when `field` is no enum of that kind.
std::string EnumText(Kind kind, const std::string& field, int64_t value);
// The provider's type: "hardware".
std::string ProviderTypeText(int64_t value);
// The words of a flags field ("hotspare, standby"); empty for no flag set, or when `field` is no
// flags field of that kind. Bits without a word are shown in hexadecimal.
std::string FlagsText(Kind kind, const std::string& field, uint64_t value);

// The record with a text form after each enum and flags field ("type": 18, "typeText": "RAID5"),
// the published fields kept as they are. Nested objects (a portal's address) get theirs too.
nlohmann::ordered_json WithTextForms(Kind kind, const nlohmann::ordered_json& record);

// The state an administrator reads in a listing: the status word, or the health word when the
// object is not healthy ("degraded", "rebuilding", "offline, failed").
std::string StateText(Kind kind, const nlohmann::ordered_json& record);
// True when the object wants attention: not healthy, or not online.
bool NeedsAttention(const nlohmann::ordered_json& record);

}  // namespace trovctl
