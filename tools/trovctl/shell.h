// The trovctl command language: one command per line, the same in one-shot, script and
// interactive use. The shell keeps a selected object between lines; commands that act on one
// object take it from a target at the end of the line ("drive 3", "lun db01", "drive 0:3", an id)
// or else from the selection. List numbers stay with their objects for the whole run. Everything goes through the provider's published interfaces.
//
// Each command runs between BeginCommand and EndCommand. With the provider's failure lines at
// hand (SetMessages), a command during which an exchange with the proxy service failed is
// reported in one line with the reason the provider gave - "no array reached: ..." when the
// provider is left without an array, else "the connection to the proxy service was lost: ..." -
// and ends with status 3; listings shown after such a failure say that they may be incomplete,
// until a load, refresh or reenumeration completes without one.
#pragma once

#include <chrono>
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

// trovctl's own version, which --version and the version command print.
constexpr const char* kTrovctlVersion = "1.1.0";

// Exit statuses.
constexpr int kOk = 0;
constexpr int kFailed = 1;       // the provider refused (an HRESULT)
constexpr int kUsage = 2;        // a bad command line
constexpr int kNoArray = 3;      // the array was not reached, or the connection to it was lost
constexpr int kInterrupted = 130;  // Ctrl-C

class HostMessages;

// True when `words` (a command line) carry a secret that must not reach the history.
bool CarriesSecret(const std::vector<std::string>& words);

// Splits a line into words: blanks separate, double quotes group, a backslash escapes the next
// character, '#' outside quotes starts a comment. False (with *err) on an unterminated quote.
bool SplitLine(const std::string& line, std::vector<std::string>* words, std::string* err);

class Shell {
public:
    // `provider`: a loaded provider (or null until SetProvider); the shell holds no reference.
    Shell(IVdsProvider* provider, std::ostream& out, std::ostream& err, bool json);
    ~Shell();

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
    // The object a target names: "[KIND] WHAT", WHAT a list number (numbering()), an id, a name,
    // an identification or serial, or a drive's BUS:SLOT (targets.h); a name that fits several
    // objects is refused with the candidates. With no target words: the selection, or the only
    // object of the first kind when there is one.
    int Resolve(const std::vector<std::string>& target, const std::vector<Kind>& kinds, Object* out);
    // The same for the call's arguments from `from` on, with the kinds of the call's entry.
    int ResolveArgs(const Call& call, size_t from, Object* out);
    // Reports a failed call ("<call> failed: <result>"), or an interruption; the exit status.
    int Failed(const std::string& call, HRESULT hr);
    int Usage(const std::string& message);
    // "usage: <the usage of the entry's group>".
    int UsageOf(const Command& cmd);
    // The confirmation of an action, with what a success other than S_OK means - unless an
    // exchange failed during it, which EndCommand reports instead.
    void Done(const std::string& what, HRESULT hr = S_OK);
    // Why a listing shown now may be incomplete; empty when nothing failed since the tree was
    // last read whole.
    std::string Doubt() const;
    void Select(const Object& o) { selected_ = o; }
    void Quit() { quit_ = true; }
    void StartWatching();
    void StopWatching();
    // Whether secrets left out of a line may be asked for on standard input, a terminal (off
    // until set: a shell that a program drives has no one to ask).
    void SetMayAsk(bool mayAsk) { mayAsk_ = mayAsk; }
    // Reads a secret from the terminal without echo (an empty one when the reading was cut short
    // by Ctrl-C or the end of input). False when there is no terminal to ask on.
    bool AskSecret(const std::string& prompt, std::string* secret);
    // Whether a question (delete lun) is answered yes without asking (--yes).
    void SetAssumeYes(bool yes) { assumeYes_ = yes; }
    // How often the shell rebuilds the tree while a LUN's delete waits for it (real time).
    void SetDeleteRebuildPeriod(std::chrono::milliseconds period) { deleteRebuildPeriod_ = period; }
    std::chrono::milliseconds deleteRebuildPeriod() const { return deleteRebuildPeriod_; }
    // Asks `question` on the terminal and reads the answer; true for y or yes. Asks nothing, and
    // answers true, with --yes, in a script, or where standard input is no terminal: a script
    // or a program that runs trovctl has said what it wants. False when the reading was cut short.
    bool Confirm(const std::string& question);
    // Whether long waits draw a progress bar on standard error (a terminal, no --json).
    void SetProgress(bool progress) { progress_ = progress; }
    bool showsProgress() const { return progress_ && !inScript_ && !json(); }
    // The numbers of the objects listed in this run.
    const Numbering& numbering() const { return numbering_; }

private:
    void BeginCommand();
    // Reports the failures the provider gave during the command; the command's final status.
    int EndCommand(int rc, bool rebuilt);
    void PrintNotification(const VDS_NOTIFICATION& n);
    // Prints the notifications kept for the terminal's line editor (its thread only).
    void PrintKept();
    int RunTerminal();
    int RunLines();

    IVdsProvider* provider_;
    Render render_;
    HostMessages* messages_ = nullptr;
    bool quit_ = false;
    bool mayAsk_ = false;
    bool assumeYes_ = false;
    std::chrono::milliseconds deleteRebuildPeriod_{1000};
    bool progress_ = false;
    bool inScript_ = false;  // running the lines of a script: nothing is asked, no bar is drawn
    bool arrayReached_ = true;
    std::string doubt_;  // the failure since which listings may be incomplete
    Object selected_{Kind::Subsystem, {}, {}};
    std::mutex notifyMu_;
    std::deque<VDS_NOTIFICATION> pending_;
    bool watching_ = false;
    // While the terminal's line editor owns the screen, a notification is not printed from the
    // monitor's thread but kept, and the editor's thread is woken (keptFd_) to print it above
    // the prompt and draw the prompt and the line again.
    bool editing_ = false;
    std::deque<VDS_NOTIFICATION> kept_;
    int keptFd_ = -1;
    Numbering numbering_;
};

}  // namespace trovctl
