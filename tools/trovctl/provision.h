// The words of the provisioning commands (create lun, maxsize, extend, shrink, hints set): LUN
// types by their published names, sizes in bytes or binary units, hint words, and the KEY=VALUE
// words of a request, parsed into the records the published interfaces take. Pure functions of
// their arguments: nothing here calls the provider, and every number is bounded before it is
// stored (a size that does not fit 64 bits, a count that does not fit its field is refused).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/vds.h"

namespace trovctl {

// A LUN type by its published name in lower case without the prefix ("default", "faulttolerant",
// "raid5", ...), in any case, or by its number (0 to 65535: the provider judges the number).
bool ParseLunType(const std::string& word, VDS_LUN_TYPE* type);
// The type names, for messages and help: "default, faulttolerant, ...".
std::string LunTypeNames();

// A size: whole bytes ("1048576"), or a number (a decimal fraction allowed) with B, KB, MB, GB,
// TB or PB (powers of 1024; KiB, MiB, ... too; any case), "1.5TB". False with *why for anything
// else: no digits, an unknown unit, a fraction that is no whole number of bytes, more than 64 bits.
bool ParseSize(const std::string& word, uint64_t* bytes, std::string* why);

// The KEY=VALUE words a command takes besides hints.
enum RequestKeys : unsigned {
    kKeySize = 1u << 0,
    kKeyDrives = 1u << 1,
    kKeyStripe = 1u << 2,
    kKeyUnmask = 1u << 3,
    kKeyPool = 1u << 4,
    kKeyHints = 1u << 5,  // hint words (create lun, maxsize, hints set)
};

// A request's words, parsed; targets (drives, pool, the object) are still words, for the shell
// to resolve.
struct Request {
    uint64_t size = 0;
    bool sizeGiven = false;
    std::vector<std::string> drives;  // drives=D,D,...: each a target word
    bool stripeGiven = false;         // stripe=SIZE, kept in hints.ulStripeSize
    std::string unmask;               // "" none, "*" all hosts, else names joined by ';'
    bool unmaskGiven = false;
    std::string pool;                 // pool=TARGET
    VDS_HINTS2 hints{};
    std::vector<std::string> target;  // the words after the last request word
};

// The most drives a request may name: far above what any RAID level takes, so that the provider
// answers for a count too large for it, yet bounded before anything is resolved.
constexpr size_t kMaxNamedDrives = 256;

// Applies one hint word to `hints`: a flag ("mostlyreads", "writecache=off"), a number
// ("maxdrives=4", "readsize=64KB", "bustype=sas"), or one of the provider's own ("master",
// "snapshot", "backingstore", "dummy", "raid5", "raid50", "raid3"). 1 taken, 0 not a hint word,
// -1 a hint word with a bad value (*why says what).
int ApplyHintWord(const std::string& word, VDS_HINTS2* hints, std::string* why);
// The hint words, for help and completion.
std::vector<const char*> HintWords();

// Parses the words after a command's fixed words (and after TYPE): KEY=VALUE words among `keys`
// and hint words (with kKeyHints) in any order, then at most two target words. A repeated key,
// a drive named twice, a key the command does not take, a bad value: false with *why.
bool ParseRequest(const std::vector<std::string>& words, unsigned keys, Request* r, std::string* why);

// A hints record as JSON with the published field names, and the mask's words beside it
// ("ullHintMaskText": "sequentialreads, yankable, RAID5").
nlohmann::ordered_json HintsJson(const VDS_HINTS2& h);
nlohmann::ordered_json HintsJson(const VDS_HINTS& h);
// The words of a hint mask, the provider's own bits by their names.
std::string HintMaskText(uint64_t mask);

}  // namespace trovctl
