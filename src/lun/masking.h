// Masking: which hosts may see a LUN. An unmasking list is "" (no host), "*" (all hosts: the
// default view) or initiator names joined by ";" (one custom view each). CLun::SetMask turns a
// list into view commands and keeps the LUN's stored list in step with what was mapped; the unit
// number (the LUN number hosts see) is the lowest free one from StartingLUN up.
//
// The parsing and the choice of a number are pure functions here, so that they are tested and
// fuzzed apart from the array: the parser never reads past its input and takes names of any
// length, refusing what the array could not hold.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class CLun;

// The longest initiator name a view holds (its field has 224 bytes with the final NUL).
constexpr size_t kMaxInitiatorNameChars = 223;

// An iSCSI name the array takes: "eui." and 16 hexadecimal digits, or "iqn.", a yyyy-mm date, a
// dot, a naming authority of letters and digits in parts joined by "." or "-", and an optional
// ":" with letters, digits, "-", "." and ":". The prefixes in any letter case. Logs a refusal.
bool validate_iqn(std::string_view name);

// The three forms of a list.
enum class UnmaskForm { kNone, kAll, kNamed };
UnmaskForm FormOfUnmaskingList(std::string_view list);

// Splits a named list at ";" from the left into `names`, each once and in the order first met; a
// final ";" ends the list. With `validate`, a name must pass validate_iqn (an empty one never
// does), else the result is false and `names` holds what came before it. "" and "*" give no names.
bool ParseUnmaskingList(std::string_view list, bool validate, std::vector<std::string>* names);

// The lowest number from `first` up to `limit` - 1 that `used` doesn't hold; -1 when none.
int32_t FirstFreeUnitNumber(const std::vector<uint32_t>& used, uint32_t first, uint32_t limit);

// The LUN numbers in use on a controller: every partition's default view (0 only with access)
// and every custom view; with `wwn`, only the custom views of that initiator's 8-byte name. A
// record that cannot be read adds nothing (and is logged).
void GetExistLunList(uint32_t handle, std::vector<uint32_t>* list);
void GetExistLunList4WWN(uint32_t handle, std::vector<uint32_t>* list, const uint8_t* wwn);
// The unit number for a LUN's view: the first free number over the controllers that serve it
// (both on an array in ULP mode, up to maxLuns - 1; else its own, up to maxLuns / 2 - 1); -1 when
// none is free. The WWN form counts only one initiator's numbers.
int32_t GetNewUnitNum(const CLun& lun);
int32_t GetNewUnitNum4WWN(const CLun& lun, const uint8_t* wwn);
