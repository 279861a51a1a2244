// The trovctl command language: one command per line, the same in one-shot, script and
// interactive use. The shell keeps a selected object between lines; commands that act on one
// object take it from a target at the end of the line ("drive 3", "controller 0", an id) or else
// from the selection. Everything goes through the provider's published interfaces.
//
// Each command runs between BeginCommand and EndCommand. With the provider's failure lines at
// hand (SetMessages), a command during which an exchange with the proxy service failed is
// reported in one line with the reason the provider gave - "no array reached: ..." when the
// provider is left without an array, else "the connection to the proxy service was lost: ..." -
// and ends with status 3; listings shown after such a failure say that they may be incomplete,
// until a load, refresh or reenumeration completes without one.
#pragma once

#include <deque>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

#include "commands.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"
#include "render.h"
#include "tree.h"

namespace trovctl {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;       // the provider refused (an HRESULT)
constexpr int kUsage = 2;        // a bad command line
constexpr int kNoArray = 3;      // the array was not reached, or the connection to it was lost
constexpr int kInterrupted = 130;  // Ctrl-C

class HostMessages;

// Splits a line into words: blanks separate, double quotes group, a backslash escapes the next
// character, '#' outside quotes starts a comment. False (with *err) on an unterminated quote.
bool SplitLine(const std::string& line, std::vector<std::string>* words, std::string* err);

class Shell {
public:
    // `provider`: a loaded provider (or null until SetProvider); the shell holds no reference.
    Shell(IVdsProvider* provider, std::ostream& out, std::ostream& err, bool json);

    // Runs one command (already split). Returns an exit status.
    int Execute(const std::vector<std::string>& words);
    // Splits and runs one line; blank lines and comments do nothing.
    int ExecuteLine(const std::string& line);
    // Runs a script: every line in turn, stopping at the first failure, which names its line.
    int RunScript(std::istream& in, const std::string& name);
    // Prompts until end of input, "quit" or a second Ctrl-C on an empty line; with line editing,
    // completion and history on a terminal. The status of the last command.
    int RunInteractive();
    // The provider's properties and every object of every kind: text, or one JSON object.
    int Overview();

    void SetJson(bool json) { render_.SetJson(json); }
    void SetProvider(IVdsProvider* provider) { provider_ = provider; }
    // The provider's failure lines, collected per command (null: none are looked at).
    void SetMessages(HostMessages* messages) { messages_ = messages; }
    // Brackets the provider's load like a command: BeginLoad before OnLoad, EndLoad after it
    // (and after SetProvider) with OnLoad's result. kOk, kFailed when OnLoad failed, or kNoArray.
    void BeginLoad();
    int EndLoad(HRESULT hr);
    // False once a load or command has ended with the provider reaching no array.
    bool arrayReached() const { return arrayReached_; }

    // A notification from the provider's monitor (any thread): printed at once while watching,
    // else kept for the next "watch".
    void OnNotification(const VDS_NOTIFICATION& n);
    // Waits (real time) `ms` or until Ctrl-C, printing what arrives; the notifications kept are
    // printed first. False when interrupted.
    bool WatchFor(int ms);
    bool quitRequested() const { return quit_; }
    const Object* selection() const { return selected_.unk ? &selected_ : nullptr; }

    // --- for the command handlers (cmd_*.cpp) ---
    IVdsProvider* provider() const { return provider_; }
    Render& render() { return render_; }
    bool json() const { return render_.json(); }
    // Every object of a kind; a Ctrl-C ends the walk with E_ABORT.
    HRESULT Enumerate(Kind kind, std::vector<Object>* out);
    // The object a target names: "KIND N" (the N-th of a listing), "KIND ID" or "ID". With no
    // target words: the selection, or the only object of the first kind when there is one.
    int Resolve(const std::vector<std::string>& target, const std::vector<Kind>& kinds, Object* out);
    // The same for the call's arguments from `from` on, with the kinds of the call's entry.
    int ResolveArgs(const Call& call, size_t from, Object* out);
    // Reports a failed call ("<call> failed: <result>"), or an interruption; the exit status.
    int Failed(const std::string& call, HRESULT hr);
    int Usage(const std::string& message);
    // "usage: <the usage of the entry's group>".
    int UsageOf(const Command& cmd);
    // The confirmation of an action - unless an exchange failed during it, which EndCommand
    // reports instead.
    void Done(const std::string& what);
    // Why a listing shown now may be incomplete; empty when nothing failed since the tree was
    // last read whole.
    std::string Doubt() const;
    void Select(const Object& o) { selected_ = o; }
    void Quit() { quit_ = true; }
    void StartWatching();
    void StopWatching();

private:
    void BeginCommand();
    // Reports the failures the provider gave during the command; the command's final status.
    int EndCommand(int rc, bool rebuilt);
    void PrintNotification(const VDS_NOTIFICATION& n);
    int RunTerminal();
    int RunLines();

    IVdsProvider* provider_;
    Render render_;
    HostMessages* messages_ = nullptr;
    bool quit_ = false;
    bool arrayReached_ = true;
    std::string doubt_;  // the failure since which listings may be incomplete
    Object selected_{Kind::Subsystem, {}, {}};
    std::mutex notifyMu_;
    std::deque<VDS_NOTIFICATION> pending_;
    bool watching_ = false;
};

}  // namespace trovctl
