#include "commands.h"

#include <algorithm>
#include <sstream>

#include "handlers.h"
#include "shell.h"

namespace trovctl {

namespace {

std::vector<const char*> KindPlurals() {
    static const std::vector<std::string> words = [] {
        std::vector<std::string> w;
        for (Kind k : kAllKinds) w.push_back(KindPlural(k));
        return w;
    }();
    std::vector<const char*> out;
    for (const std::string& w : words) out.push_back(w.c_str());
    return out;
}

}  // namespace

const std::vector<Command>& Commands() {
    static const std::vector<Command> table = {
        {"info", "", "the provider's properties", CmdInfo, {}, {}},
        {"list", "KINDS",
         "every object of a kind, numbered: subsystems, controllers,\nports, drives, luns, plexes, pools, targets, "
         "portals,\nportalgroups",
         CmdList, {}, KindPlurals()},
        {"select", "TARGET", "remember an object for the commands below", CmdSelect, kAllKinds, {}},
        {"detail", "[TARGET]", "every property of an object (default: the selection)", CmdDetail, kAllKinds, {}},
        {"name subsystem", "NAME [TARGET]", "rename a subsystem (at most 80 characters)", CmdNameSubsystem,
         {Kind::Subsystem}, {}},
        {"name lun", "NAME [TARGET]", "rename a LUN (at most 20 characters; longer names are cut)", CmdNameLun,
         {Kind::Lun}, {}},
        {"reenumerate", "", "rescan the provider", CmdReenumerate, {}, {}, kRebuilds},
        {"reenumerate subsystem", "[TARGET]", "rescan one subsystem", CmdReenumerateSubsystem, {Kind::Subsystem}, {}},
        {"refresh", "", "rebuild the object tree from the array", CmdRefresh, {}, {}, kRebuilds},
        {"flushcache", "[TARGET]", "write a controller's cache to the drives", CmdFlushCache, {Kind::Controller}, {}},
        {"invalidatecache", "[TARGET]", "drop a controller's cache", CmdInvalidateCache, {Kind::Controller}, {}},
        {"maintenance beep|blink|stop", "[TARGET]", "silence the alarm (beep), start or stop the locate light",
         CmdMaintenance, {Kind::Drive, Kind::Controller}, {}, 0, "operation"},
        {"maintenance pulse", "COUNT [TARGET]", "flash the locate light COUNT times", CmdPulse,
         {Kind::Drive, Kind::Controller}, {}, 0, "operation"},
        {"setflag drive hotspare", "[TARGET]", "make a drive a global spare", CmdSetFlag, {Kind::Drive}, {}},
        {"clearflag drive hotspare", "[TARGET]", "make a spare an ordinary free drive again", CmdClearFlag,
         {Kind::Drive}, {}},
        {"extents", "[TARGET]", "the pieces of a drive, a LUN, a plex or a pool", CmdExtents,
         {Kind::Drive, Kind::Lun, Kind::Plex, Kind::Pool}, {}},
        {"getdrive", "BUS SLOT [TARGET]", "the drive at a bus and slot of a subsystem", CmdGetDrive, {Kind::Subsystem},
         {}},
        {"portprops", "N [TARGET]", "the properties of a controller's port N", CmdPortProps, {Kind::Controller}, {}},
        {"pool luns", "[TARGET]", "the LUNs a pool holds", CmdPoolLuns, {Kind::Pool}, {}},
        {"target secret", "SECRET|- [initiator NAME] [TARGET]",
         "set (or with - clear) a target's CHAP secret, for all\ninitiators or for one", CmdTargetSecret,
         {Kind::Target}, {"initiator"}},
        {"initiator secret", "NAME SECRET|- [TARGET]", "remember (or with - forget) an initiator's secret",
         CmdInitiatorSecret, {Kind::Target}, {}},
        {"initiators", "[TARGET]", "the initiators the target's controller knows", CmdInitiators, {Kind::Target}, {}},
        {"createportalgroup", "[TARGET]", "the portal group a target hands out (none is ever made)",
         CmdCreatePortalGroup, {Kind::Target}, {}},
        {"watch", "SECONDS|on|off",
         "print the provider's notifications as they arrive, for SECONDS;\n\"on\" prints them from now on "
         "(interactive), \"off\" keeps them again",
         CmdWatch, {}, {"on", "off"}, kListens},
        {"help", "", "this text", CmdHelp, {}, {}, kNeedsNoProvider},
        {"quit|exit", "", "leave the shell", CmdQuit, {}, {}, kNeedsNoProvider},
    };
    return table;
}

namespace {

using Positions = std::vector<std::vector<std::string>>;

std::vector<std::string> Split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::string cur;
    std::istringstream in(s);
    while (std::getline(in, cur, sep))
        if (!cur.empty()) out.push_back(cur);
    return out;
}

// The fixed words of every entry, by position.
const std::vector<Positions>& PathsOf() {
    static const std::vector<Positions> paths = [] {
        std::vector<Positions> all;
        for (const Command& c : Commands()) {
            Positions p;
            for (const std::string& w : Split(c.path, ' ')) p.push_back(Split(w, '|'));
            all.push_back(std::move(p));
        }
        return all;
    }();
    return paths;
}

bool Contains(const std::vector<std::string>& v, const std::string& w) {
    return std::find(v.begin(), v.end(), w) != v.end();
}

std::string Join(const std::vector<std::string>& v, const char* sep) {
    std::string out;
    for (size_t i = 0; i < v.size(); ++i) out += (i ? sep : "") + v[i];
    return out;
}

}  // namespace

const Command* FindCommand(const std::vector<std::string>& input, Call* call, std::string* error) {
    if (input.empty()) {
        *error = "no command (try help)";
        return nullptr;
    }
    std::vector<std::string> words = input;
    if (words[0] == "--help" || words[0] == "-h") words[0] = "help";
    const auto& table = Commands();
    const auto& paths = PathsOf();
    const Command* best = nullptr;
    size_t bestLen = 0;
    const Command* group = nullptr;
    for (size_t i = 0; i < table.size(); ++i) {
        const Positions& p = paths[i];
        if (!Contains(p[0], words[0])) continue;
        if (!group) group = &table[i];
        if (words.size() < p.size()) continue;
        bool match = true;
        for (size_t k = 1; k < p.size() && match; ++k) match = Contains(p[k], words[k]);
        if (match && (!best || p.size() > bestLen)) {
            best = &table[i];
            bestLen = p.size();
        }
    }
    if (best) {
        *call = Call{best, std::vector<std::string>(words.begin(), words.begin() + long(bestLen)),
                     std::vector<std::string>(words.begin() + long(bestLen), words.end())};
        return best;
    }
    if (!group) {
        *error = "unknown command \"" + words[0] + "\" (try help)";
        return nullptr;
    }
    if (group->wordNoun && words.size() > 1) {
        std::vector<std::string> alternatives;
        for (size_t i = 0; i < table.size(); ++i)
            if (Contains(paths[i][0], words[0]) && paths[i].size() > 1)
                for (const std::string& w : paths[i][1]) alternatives.push_back(w);
        *error = "unknown " + words[0] + " " + group->wordNoun + " \"" + words[1] + "\" (" + Join(alternatives, ", ") +
                 ")";
    } else {
        *error = "usage: " + GroupUsage(*group);
    }
    return nullptr;
}

std::string GroupUsage(const Command& cmd) {
    const auto& table = Commands();
    const auto& paths = PathsOf();
    const Positions* first = nullptr;
    std::vector<std::string> seconds;
    std::string args;
    for (size_t i = 0; i < table.size(); ++i) {
        if (paths[i][0] != Split(Split(cmd.path, ' ')[0], '|')) continue;
        if (!first) first = &paths[i];
        if (paths[i].size() > 1)
            for (const std::string& w : paths[i][1])
                if (!Contains(seconds, w)) seconds.push_back(w);
        if (std::string(table[i].args).size() > args.size()) args = table[i].args;
    }
    std::string usage = Join((*first)[0], "|");
    if (!seconds.empty()) usage += " " + Join(seconds, "|");
    for (size_t k = 2; k < first->size(); ++k) usage += " " + Join((*first)[k], "|");
    if (!args.empty()) usage += " " + args;
    return usage;
}

std::string HelpText() {
    constexpr size_t kColumn = 34;
    std::string s = "Commands (one per line; in one-shot use the words follow the options):\n";
    for (const Command& c : Commands()) {
        std::string usage = std::string(c.path) + (*c.args ? std::string(" ") + c.args : std::string());
        std::vector<std::string> lines = Split(c.summary, '\n');
        s += "  " + usage;
        if (usage.size() < kColumn)
            s += std::string(kColumn - usage.size(), ' ');
        else
            s += "\n" + std::string(kColumn + 2, ' ');
        for (size_t i = 0; i < lines.size(); ++i)
            s += (i ? std::string(kColumn + 2, ' ') : std::string()) + lines[i] + "\n";
    }
    s += "TARGET: KIND N (the N-th of \"list KIND\"), KIND ID, or ID, where KIND is one of the kinds above\n"
         "in the singular (drive, lun, portalgroup, ...) and ID an object id\n"
         "(xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx). Without a target a command uses the selection, or the\n"
         "only object of its kind when there is just one.\n"
         "Exit status: 0 done; 1 the provider refused (its result is printed by name and number);\n"
         "2 a bad command line, or a file argument that cannot be read; 3 the array was not reached,\n"
         "or the connection to it was lost during the command (one line says why, with the reason the\n"
         "provider gave). A run ended by Ctrl-C ends as by the signal.";
    return s;
}

std::vector<std::string> Completions(const std::vector<std::string>& before, const std::string& partial,
                                     Shell* shell) {
    const auto& table = Commands();
    const auto& paths = PathsOf();
    std::vector<std::string> offer;
    auto add = [&](const std::string& w) {
        if (w.compare(0, partial.size(), partial) == 0 && !Contains(offer, w)) offer.push_back(w);
    };
    size_t k = before.size();
    for (size_t i = 0; i < table.size(); ++i) {
        const Positions& p = paths[i];
        if (k == 0) {
            for (const std::string& w : p[0]) add(w);
            continue;
        }
        bool match = true;
        for (size_t j = 0; j < std::min(k, p.size()) && match; ++j) match = Contains(p[j], before[j]);
        if (!match) continue;
        if (k < p.size()) {
            for (const std::string& w : p[k]) add(w);
            continue;
        }
        // After a kind of the command's: that kind's numbers; else its words and kinds.
        Kind named;
        if (k > p.size() && ParseKind(before.back(), &named) &&
            std::find(table[i].kinds.begin(), table[i].kinds.end(), named) != table[i].kinds.end()) {
            std::vector<Object> all;
            if (shell && shell->provider() && SUCCEEDED(shell->Enumerate(named, &all)))
                for (size_t n = 0; n < all.size(); ++n) add(std::to_string(n));
            continue;
        }
        for (const char* w : table[i].words) add(w);
        for (Kind kind : table[i].kinds) add(KindName(kind));
    }
    std::sort(offer.begin(), offer.end());
    return offer;
}

}  // namespace trovctl
