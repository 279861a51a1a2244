// How a word of a command's target names objects when it is neither a list number nor an id:
// a drive by BUS:SLOT, any object by its identification (a drive's serial, a LUN's serial), or
// by its name (friendly name, pool name or the vdisk name in it, iSCSI name, portal address).
// The closest form wins: an exact match, then one that differs only in case, then (for
// identifications, from four characters on) a beginning, so that a long LUN serial can be cut
// short. More than one object at the winning level is an ambiguity for the caller to refuse.
#pragma once

#include <string>
#include <vector>

#include "tree.h"

namespace trovctl {

// The objects among `candidates` that `word` names, all of the closest level that has any.
std::vector<const Object*> MatchByName(const std::string& word, const std::vector<const Object*>& candidates);

// An object as a candidate list and messages name it: "lun 0 (db01)", "drive 3 (0:3 3SJ01204K)".
std::string ShortLabel(const Object& o);

}  // namespace trovctl
