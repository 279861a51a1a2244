// The trovctl command table: one entry per command, and everything that knows the commands reads
// it - the dispatch of a line, the help text (help, --help) and the completion of the shell.
//
// An entry names its fixed words ("name lun", "maintenance beep|blink|stop": '|' separates the
// words one position accepts), the words that follow for the usage and help texts ("NAME
// [TARGET]"), a summary, the handler, the kinds of object its TARGET may name (which the handler
// resolves against and completion offers), and the other words completion offers after the fixed
// ones. Entries that share their first word form a group; a line that names the group but none
// of its entries is answered with the group's usage. A new command is one more entry and one
// handler in the file of its object family (cmd_*.cpp).
#pragma once

#include <string>
#include <vector>

#include "tree.h"

namespace trovctl {

class Shell;
struct Command;

// What a handler is given: its entry, the fixed words as typed, and the words after them.
struct Call {
    const Command* cmd;
    std::vector<std::string> fixed;
    std::vector<std::string> args;
};

// A handler returns an exit status (shell.h) and reports its own failures.
using Handler = int (*)(Shell& shell, const Call& call);

// Flags of an entry.
enum CommandFlags : unsigned {
    kNeedsNoProvider = 1u << 0,  // runs without a loaded provider (help, quit)
    kListens = 1u << 1,          // wants the provider's notifications (watch): a one-shot run
                                 // starts the monitor for it
    kRebuilds = 1u << 2,         // reads the whole tree again: done without a failure, listings
                                 // are whole again
    kAsks = 1u << 4,             // asks before it acts (delete lun); --yes after it answers
    kSecret = 1u << 3,           // may carry a secret: asked without echo when not given, and a
                                 // line that carries one is kept out of the history
};

struct Command {
    const char* path;                 // the fixed words: "setflag drive hotspare"
    const char* args;                 // what follows, for usage and help: "[TARGET]"
    const char* summary;              // help; '\n' starts another line
    Handler run;
    std::vector<Kind> kinds;          // what TARGET may name, in order of preference
    std::vector<const char*> words;   // further words completion offers ("on", "off")
    unsigned flags = 0;
    const char* wordNoun = nullptr;   // when set, a wrong second word is "unknown <first> <noun>"
};

// The table, in the order of the help text.
const std::vector<Command>& Commands();

// The entry a line names, with its words split into fixed words (in lower case: commands are
// taken in any case) and arguments. Null when none does; then *error says why (an unknown
// command, or the usage of the group the first word names).
const Command* FindCommand(const std::vector<std::string>& words, Call* call, std::string* error);
// The usage of the group an entry belongs to: "name subsystem|lun NAME [TARGET]".
std::string GroupUsage(const Command& cmd);
// Every command with its words and what it does, for --help and the help command.
std::string HelpText();

// The words that may complete `partial` after `before` (the complete words of the line so far),
// in any case. Through `shell` (null: none offered) the objects of the command's kinds: after a
// kind word their numbers and names (and drives' serials), elsewhere their names once a word
// has begun.
std::vector<std::string> Completions(const std::vector<std::string>& before, const std::string& partial,
                                     Shell* shell);

}  // namespace trovctl
