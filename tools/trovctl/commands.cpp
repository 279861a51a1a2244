#include "commands.h"

#include <algorithm>
#include <functional>
#include <sstream>

#include "handlers.h"
#include "provision.h"
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

// What completion offers after "create lun" and "maxsize": the keys and the hint words.
std::vector<const char*> CreateWords() {
    std::vector<const char*> w = {"size=", "drives=", "stripe=", "unmask=", "pool="};
    for (const char* h : HintWords()) w.push_back(h);
    return w;
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
        {"maintenance pulse", "COUNT [TARGET]", "flash the locate light COUNT times (1 to 100, two seconds\neach)", CmdPulse,
         {Kind::Drive, Kind::Controller}, {}, 0, "operation"},
        {"setflag drive hotspare", "[TARGET]", "make a drive a global spare", CmdSetFlag, {Kind::Drive}, {}},
        {"clearflag drive hotspare", "[TARGET]", "make a spare an ordinary free drive again", CmdClearFlag,
         {Kind::Drive}, {}},
        {"extents", "[TARGET]", "the pieces of a drive, a LUN, a plex or a pool", CmdExtents,
         {Kind::Drive, Kind::Lun, Kind::Plex, Kind::Pool}, {}},
        {"getdrive", "BUS SLOT [TARGET]", "the drive at a bus and slot of a subsystem", CmdGetDrive, {Kind::Subsystem},
         {}},
        {"portprops", "N [TARGET]", "the properties of a controller's port N", CmdPortProps, {Kind::Controller}, {}},
        {"create lun", "TYPE [size=SIZE] [drives=D,D,...] [stripe=SIZE] [unmask=LIST] [pool=TARGET] [HINT ...] [TARGET]",
         "make a LUN of TYPE on a subsystem (or in a pool), wait for\nit, show it and select it",
         CmdCreateLun, {Kind::Subsystem}, CreateWords()},
        {"maxsize", "TYPE [drives=D,D,...] [pool=TARGET] [HINT ...] [TARGET]",
         "the largest LUN of TYPE that can be made", CmdMaxSize, {Kind::Subsystem}, CreateWords()},
        {"maxsize extend", "[drives=D,D,...] [TARGET]", "how much a LUN can grow (with those drives)", CmdMaxSizeExtend,
         {Kind::Lun}, {"drives="}},
        {"extend", "[size=SIZE] [drives=D,D,...] [TARGET]",
         "grow a LUN by SIZE and/or onto more drives; waits, with a\nprogress bar on a terminal, and shows the LUN",
         CmdExtend, {Kind::Lun}, {"size=", "drives="}},
        {"shrink", "size=SIZE [TARGET]", "ask for a LUN to be smaller by SIZE", CmdShrink, {Kind::Lun}, {"size="}},
        {"delete lun", "[--yes] [TARGET]",
         "delete a LUN and its data (asked first on a terminal, unless\n--yes; never in a script)", CmdDeleteLun,
         {Kind::Lun}, {}, kAsks},
        {"unmask", "LIST [TARGET]", "the hosts that see a LUN: * (all), - (none), or initiator\nnames joined by ;",
         CmdUnmask, {Kind::Lun}, {"*", "-"}},
        {"associate controllerports", "PORT[,PORT...] [inactive=PORT,...] [lun WHAT]",
         "the controller ports that serve a LUN (its vdisk moves to\ntheir controller); PORT as \"list ports\" "
         "names it",
         CmdAssociatePorts, {Kind::Lun, Kind::Port}, {"inactive="}, 0, "kind"},
        {"associate targets", "TARGET[,TARGET...] [lun WHAT]", "the iSCSI targets that expose a LUN",
         CmdAssociateTargets, {Kind::Lun, Kind::Target}, {}, 0, "kind"},
        {"activecontrollers", "[TARGET]", "the controllers that serve a LUN", CmdActiveControllers, {Kind::Lun}, {}},
        {"activeports", "[TARGET]", "the controller ports that serve a LUN", CmdActivePorts, {Kind::Lun}, {}},
        {"associatedtargets", "[TARGET]", "the iSCSI targets that expose a LUN", CmdAssociatedTargets, {Kind::Lun}, {}},
        {"hints", "[TARGET]", "a LUN's or a plex's hints, the provider's own bits in words", CmdHints,
         {Kind::Lun, Kind::Plex}, {}},
        {"hints set", "FIELD=VALUE ... [TARGET]", "apply hints to a LUN (the HINT words below)", CmdHintsSet,
         {Kind::Lun}, HintWords()},
        {"convert master|standard", "[TARGET]",
         "make a LUN a master volume, or a master volume without\nsnapshots a standard LUN again", CmdConvert,
         {Kind::Lun}, {}, 0, "direction"},
        {"pool luns", "[TARGET]", "the LUNs a pool holds", CmdPoolLuns, {Kind::Pool}, {}},
        {"target secret", "[SECRET|-] [initiator NAME] [TARGET]",
         "set (or with - clear) a target's CHAP secret, for all\ninitiators or for one; asked without echo when not "
         "given",
         CmdTargetSecret, {Kind::Target}, {"initiator"}, kSecret},
        {"initiator secret", "NAME [SECRET|-] [TARGET]",
         "remember (or with - forget) an initiator's secret;\nasked without echo when not given", CmdInitiatorSecret,
         {Kind::Target}, {}, kSecret},
        {"initiators", "[TARGET]", "the initiators the target's controller knows", CmdInitiators, {Kind::Target}, {}},
        {"createportalgroup", "[TARGET]", "the portal group a target hands out (none is ever made)",
         CmdCreatePortalGroup, {Kind::Target}, {}},
        {"identify", "[TARGET]", "a LUN's identification as the host sees its disk", CmdIdentify, {Kind::Lun}, {}},
        {"hostdisk", "DEVICE", "which LUN a host disk is (/dev/sdX, sdX or H:C:T:L)", CmdHostDisk, {}, {}},
        {"hbas", "", "the host's adapter ports and the initiators the array knows", CmdHbas, {}, {}},
        {"paths", "[TARGET]", "a LUN's host paths, their states and the controller port each\nreaches", CmdPaths,
         {Kind::Lun}, {}},
        {"paths fail|online", "PATH [--dry-run] [TARGET]", "fail or reinstate a host path of a LUN (PATH: its number\nin paths)",
         CmdPathStatus, {Kind::Lun}, {"--dry-run"}},
        {"policy", "[TARGET]", "a LUN's load-balance policy on the host", CmdPolicy, {Kind::Lun}, {}},
        {"policy set", "POLICY [primary=PATH] [weight=PATH:W] [--dry-run] [TARGET]",
         "set it: failover, round-robin, round-robin-subset, least-queue,\nweighted or least-blocks",
         CmdPolicySet, {Kind::Lun}, {"primary=", "weight=", "--dry-run"}},
        {"watch", "SECONDS|on|off",
         "print the provider's notifications as they arrive, for SECONDS;\n\"on\" prints them from now on "
         "(interactive), \"off\" keeps them again",
         CmdWatch, {}, {"on", "off"}, kListens},
        {"register", "[MODULE]", "register a provider module with the host registry (default:\nthe installed module)",
         CmdRegister, {}, {}, kNeedsNoProvider},
        {"unregister", "[MODULE]", "withdraw a provider module's registration", CmdUnregister, {}, {}, kNeedsNoProvider},
        {"providers", "", "the registered providers, their modules and whether they load", CmdProviders, {}, {},
         kNeedsNoProvider},
        {"help", "", "this text", CmdHelp, {}, {}, kNeedsNoProvider},
        {"version", "", "trovctl's version", CmdVersion, {}, {}, kNeedsNoProvider},
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

bool ContainsWord(const std::vector<std::string>& v, const std::string& w) { return Contains(v, Lower(w)); }

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
    if (words[0] == "--version" || words[0] == "-V") words[0] = "version";
    const auto& table = Commands();
    const auto& paths = PathsOf();
    const Command* best = nullptr;
    size_t bestLen = 0;
    const Command* group = nullptr;
    for (size_t i = 0; i < table.size(); ++i) {
        const Positions& p = paths[i];
        if (!ContainsWord(p[0], words[0])) continue;
        if (!group) group = &table[i];
        if (words.size() < p.size()) continue;
        bool match = true;
        for (size_t k = 1; k < p.size() && match; ++k) match = ContainsWord(p[k], words[k]);
        if (match && (!best || p.size() > bestLen)) {
            best = &table[i];
            bestLen = p.size();
        }
    }
    if (best) {
        std::vector<std::string> fixed;
        for (size_t k = 0; k < bestLen; ++k) fixed.push_back(Lower(words[k]));
        *call = Call{best, fixed, std::vector<std::string>(words.begin() + long(bestLen), words.end())};
        return best;
    }
    if (!group) {
        *error = "unknown command \"" + words[0] + "\" (try help)";
        return nullptr;
    }
    if (group->wordNoun && words.size() > 1) {
        std::vector<std::string> alternatives;
        for (size_t i = 0; i < table.size(); ++i)
            if (ContainsWord(paths[i][0], words[0]) && paths[i].size() > 1)
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
    s += "TARGET: [KIND] WHAT, where KIND is one of the kinds above in the singular (drive, lun,\n"
         "portalgroup, ...) and WHAT is the object's number in \"list KIND\" (numbers stay with their\n"
         "objects for the whole run), its id (xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx), its name (lun db01,\n"
         "pool VD-SAS-R5), its identification or serial (drive 3SJ01201K; the beginning of a long LUN\n"
         "serial will do), or for a drive BUS:SLOT (drive 0:3). Names are matched exactly, then in any\n"
         "case; a name that fits several objects is refused with the candidates. Without a target a\n"
         "command uses the selection, or the only object of its kind when there is just one.\n"
         "TYPE: a LUN type by its name (default, faulttolerant, nonfaulttolerant, simple, span, stripe,\n"
         "mirror, parity, raid3, raid5, raid6, raid10, raid30, raid50, ...) or its number. SIZE: bytes, or\n"
         "a number with KB, MB, GB or TB (powers of 1024: 1.5TB, 512MB); size=0 or none: the largest that\n"
         "fits; the provider rounds a size up to a whole MiB and takes nothing below 1 MiB. D: a drive as a\n"
         "TARGET names one (3, 3SJ01204K, 0:3, an id). LIST: * (all hosts), - (none), or initiator names\n"
         "joined by ; (iqn.1991-05.com.example:host1;eui.0123456789abcdef).\n"
         "HINT: mostlyreads, sequentialreads, sequentialwrites, writethrough, writecache, readcache,\n"
         "mirroredcache, readbackverify, remap, checksum, yankable, fastcrashrecovery, mediascan,\n"
         "consistencycheck, hotspare (a dedicated spare with a new vdisk), each alone (on) or =on|off;\n"
         "maxdrives=N, expectedsize=SIZE, readsize=, readalign=, writesize=, writealign=SIZE,\n"
         "rebuildpriority=N, bustype=sas|sata|fibre|...; and the provider's own: master (a master volume),\n"
         "snapshot, backingstore, dummy (a vdisk without a LUN), and raid5, raid50 or raid3 (the RAID level\n"
         "of a parity or fault-tolerant LUN; they bring mostlyreads along, with which the provider reads\n"
         "them).\n"
         "Commands and kinds may be written in any case.\n"
         "Exit status: 0 done; 1 the provider refused (its result is printed by name and number);\n"
         "2 a bad command line, or a file argument that cannot be read; 3 the array was not reached,\n"
         "or the connection to it was lost during the command (one line says why, with the reason the\n"
         "provider gave). A run ended by Ctrl-C ends as by the signal.";
    return s;
}

namespace {

// The numbers and names completion offers for objects of a kind.
void ObjectWords(Shell* shell, Kind kind, bool numbers, const std::function<void(const std::string&)>& add) {
    std::vector<Object> all;
    if (!shell || !shell->provider() || FAILED(shell->Enumerate(kind, &all))) return;
    for (const Object& o : all) {
        if (numbers) add(std::to_string(o.number));
        std::vector<std::string> names;
        const Json& r = o.props;
        for (const char* key : {"pwszFriendlyName", "pwszName", "pwszIscsiName"})
            if (r.contains(key) && r[key].is_string()) names.push_back(r[key].get<std::string>());
        if (kind == Kind::Drive && r.contains("pwszIdentification")) names.push_back(r["pwszIdentification"]);
        for (const std::string& n : names)
            if (!n.empty() && n.find_first_of(" \t\"'\\") == std::string::npos) add(n);  // one word each
    }
}

}  // namespace

std::vector<std::string> Completions(const std::vector<std::string>& before, const std::string& partial,
                                     Shell* shell) {
    const auto& table = Commands();
    const auto& paths = PathsOf();
    std::vector<std::string> offer;
    std::string lowPartial = Lower(partial);
    // Command words in any case; names as they are written, found in any case too.
    auto add = [&](const std::string& w) {
        if (Lower(w).compare(0, lowPartial.size(), lowPartial) == 0 && !Contains(offer, w)) offer.push_back(w);
    };
    size_t k = before.size();
    std::vector<Kind> namesOf;  // kinds whose names may come here
    for (size_t i = 0; i < table.size(); ++i) {
        const Positions& p = paths[i];
        if (k == 0) {
            for (const std::string& w : p[0]) add(w);
            continue;
        }
        bool match = true;
        for (size_t j = 0; j < std::min(k, p.size()) && match; ++j) match = ContainsWord(p[j], before[j]);
        if (!match) continue;
        if (k < p.size()) {
            for (const std::string& w : p[k]) add(w);
            continue;
        }
        // After a kind of the command's: that kind's numbers and names; else its words, kinds,
        // and (once a word has begun) the names of its objects.
        Kind named;
        if (k > p.size() && ParseKind(before.back(), &named) &&
            std::find(table[i].kinds.begin(), table[i].kinds.end(), named) != table[i].kinds.end()) {
            ObjectWords(shell, named, true, add);
            continue;
        }
        for (const char* w : table[i].words) add(w);
        for (Kind kind : table[i].kinds) {
            add(KindName(kind));
            if (!partial.empty() && std::find(namesOf.begin(), namesOf.end(), kind) == namesOf.end())
                namesOf.push_back(kind);
        }
    }
    for (Kind kind : namesOf) ObjectWords(shell, kind, false, add);
    std::sort(offer.begin(), offer.end());
    return offer;
}

}  // namespace trovctl
