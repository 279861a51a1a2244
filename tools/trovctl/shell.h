// The trovctl command language: one command per line, the same in one-shot, script and
// interactive use. The shell keeps a selected object between lines; commands that act on one
// object take it from a target at the end of the line ("drive 3", "controller 0", an id) or else
// from the selection. Everything goes through the provider's published interfaces.
#pragma once

#include <deque>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"

namespace trovctl {

// Exit statuses: 0 success, 1 the provider refused (an HRESULT), 2 a bad command line.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

enum class Kind { Subsystem, Controller, Port, Drive, Lun, Plex, Pool, Target, Portal, PortalGroup };

struct Object {
    Kind kind;
    GUID id{};
    CComPtr<IUnknown> unk;
    nlohmann::ordered_json props{};  // as the listing read them; null until read
};

// Splits a line into words: blanks separate, double quotes group, a backslash escapes the next
// character, '#' outside quotes starts a comment. False (with *err) on an unterminated quote.
bool SplitLine(const std::string& line, std::vector<std::string>* words, std::string* err);

// "0x80042400 (VDS_E_...)" style text of a result: the name when it has one.
std::string HrText(HRESULT hr);

// Every command with its arguments and what it does, for --help and the help command.
const char* HelpText();

class Shell {
public:
    // `provider`: a loaded provider; the shell holds no reference of its own.
    Shell(IVdsProvider* provider, std::ostream& out, std::ostream& err, bool json);

    // Runs one command (already split). Returns an exit status.
    int Execute(const std::vector<std::string>& words);
    // Splits and runs one line; blank lines and comments do nothing.
    int ExecuteLine(const std::string& line);
    // Runs a script: every line in turn, stopping at the first failure, which names its line.
    int RunScript(std::istream& in, const std::string& name);
    // Prompts with line editing and history until end of input or "quit"; the status of the
    // last command.
    int RunInteractive();
    // The provider's properties and every object of every kind: text, or one JSON object.
    int Overview();

    void SetJson(bool json) { json_ = json; }
    void SetProvider(IVdsProvider* provider) { provider_ = provider; }
    // A notification from the provider's monitor (any thread): printed at once while watching,
    // else kept for the next "watch".
    void OnNotification(const VDS_NOTIFICATION& n);
    // Waits (real time) `ms`, printing what arrives; the notifications kept are printed first.
    void WatchFor(int ms);
    bool quitRequested() const { return quit_; }
    const Object* selection() const { return selected_.unk ? &selected_ : nullptr; }

private:
    // Command handlers; `args` are the words after the command's name.
    int CmdList(const std::vector<std::string>& args);
    int CmdSelect(const std::vector<std::string>& args);
    int CmdDetail(const std::vector<std::string>& args);
    int CmdInfo(const std::vector<std::string>& args);
    int CmdName(const std::vector<std::string>& args);
    int CmdReenumerate(const std::vector<std::string>& args);
    int CmdRefresh(const std::vector<std::string>& args);
    int CmdCache(const std::vector<std::string>& args, bool flush);
    int CmdMaintenance(const std::vector<std::string>& args);
    int CmdFlag(const std::vector<std::string>& args, bool set);
    int CmdExtents(const std::vector<std::string>& args);
    int CmdGetDrive(const std::vector<std::string>& args);
    int CmdPortProps(const std::vector<std::string>& args);
    int CmdPool(const std::vector<std::string>& args);
    int CmdTarget(const std::vector<std::string>& args);
    int CmdInitiator(const std::vector<std::string>& args);
    int CmdInitiators(const std::vector<std::string>& args);
    int CmdCreatePortalGroup(const std::vector<std::string>& args);
    int CmdWatch(const std::vector<std::string>& args);
    void PrintNotification(const VDS_NOTIFICATION& n);
    void StartWatching();
    void StopWatching();

    HRESULT ProviderJson(nlohmann::ordered_json* j);
    // The rows of a listing; an exit status (the failure is reported).
    int ListJson(Kind kind, nlohmann::ordered_json* rows);
    // Every object of one kind, in the provider's order (subsystems, then per subsystem its
    // controllers, their ports, its drives).
    HRESULT Enumerate(Kind kind, std::vector<Object>* out);
    // The object a target names: "KIND N" (the N-th of a listing), "KIND ID" or "ID". With no
    // target words: the selection, or the only subsystem when `kind` is Subsystem.
    int Resolve(const std::vector<std::string>& target, const std::vector<Kind>& kinds, Object* out);
    // The object's properties as published field names; S_OK or the failing call's result.
    HRESULT Describe(const Object& o, nlohmann::ordered_json* j);
    // The object's properties, read once.
    HRESULT PropsOf(Object& o);

    int Failed(const std::string& call, HRESULT hr);
    int Usage(const std::string& message);
    // Prints an object (detail), an array (list) or a short confirmation of an action.
    void PrintObject(const nlohmann::ordered_json& j);
    void PrintTable(Kind kind, const nlohmann::ordered_json& rows);
    void PrintDone(const std::string& what);

    IVdsProvider* provider_;
    std::ostream& out_;
    std::ostream& err_;
    bool json_;
    bool quit_ = false;
    Object selected_{Kind::Subsystem, {}, {}};
    std::mutex notifyMu_;
    std::deque<VDS_NOTIFICATION> pending_;
    bool watching_ = false;
};

}  // namespace trovctl
