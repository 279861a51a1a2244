#include "shell.h"

#include <algorithm>

#include <unistd.h>

#include <cctype>
#include <iostream>

#include "host_messages.h"
#include "interrupt.h"
#include "platform/hresult.h"
#include "platform/wstr.h"

namespace trovctl {

namespace {

// An option of trovctl's command line: given after a command, it is a slip to point out.
bool IsOption(const std::string& w) {
    static const char* const kShort[] = {"-t", "-f", "-h", "-H"};
    if (w.size() > 2 && w[0] == '-' && w[1] == '-' && std::isalpha(static_cast<unsigned char>(w[2]))) return true;
    for (const char* o : kShort)
        if (w == o) return true;
    return false;
}

}  // namespace

bool CarriesSecret(const std::vector<std::string>& words) {
    Call call{nullptr, {}, {}};
    std::string err;
    const Command* cmd = FindCommand(words, &call, &err);
    if (!cmd || !(cmd->flags & kSecret)) return false;
    // target secret SECRET|- ...; initiator secret NAME SECRET|- ...
    size_t at = call.fixed[0] == "initiator" ? 1 : 0;
    if (call.args.size() <= at) return false;
    Kind k;
    GUID id{};
    const std::string& w = call.args[at];
    return w != "-" && w != "initiator" && !ParseKind(w, &k) && !GuidFromString(w, &id);
}

bool SplitLine(const std::string& line, std::vector<std::string>* words, std::string* err) {
    words->clear();
    std::string cur;
    bool inWord = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            cur += line[++i];
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (inWord) words->push_back(cur);
            cur.clear();
            inWord = false;
        } else if (!quoted && c == '#' && !inWord) {
            break;
        } else {
            cur += c;
            inWord = true;
        }
    }
    if (quoted) {
        *err = "unterminated quote";
        return false;
    }
    if (inWord) words->push_back(cur);
    return true;
}

Shell::Shell(IVdsProvider* provider, std::ostream& out, std::ostream& err, bool json)
    : provider_(provider), render_(out, err, json) {}

Shell::~Shell() {
    if (keptFd_ >= 0) close(keptFd_);
}

// --- reporting -------------------------------------------------------------------------------

int Shell::Failed(const std::string& call, HRESULT hr) {
    if (hr == E_ABORT && interrupt::Pending()) return kInterrupted;
    const char* name = HResultName(hr);
    char hex[16];
    std::snprintf(hex, sizeof hex, "0x%08X", static_cast<uint32_t>(hr));
    render_.Error(name ? name : hex, static_cast<uint32_t>(hr), call + " failed: " + HrText(hr));
    return kFailed;
}

int Shell::Usage(const std::string& message) {
    render_.Error("USAGE", kUsage, message);
    return kUsage;
}

int Shell::UsageOf(const Command& cmd) { return Usage("usage: " + GroupUsage(cmd)); }

void Shell::Done(const std::string& what, HRESULT hr) {
    if (messages_ && !messages_->Failures().empty()) return;
    render_.Done(what, hr);
}

std::string Shell::Doubt() const {
    if (messages_) {
        std::vector<std::string> now = messages_->Failures();
        if (!now.empty()) return now.front();
    }
    return doubt_;
}

// --- commands --------------------------------------------------------------------------------

int Shell::ExecuteLine(const std::string& line) {
    std::vector<std::string> words;
    std::string err;
    if (!SplitLine(line, &words, &err)) return Usage(err);
    if (words.empty()) return kOk;
    return Execute(words);
}

int Shell::Execute(const std::vector<std::string>& words) {
    Call call{nullptr, {}, {}};
    std::string error;
    const Command* cmd = FindCommand(words, &call, &error);
    if (!cmd) return Usage(error);
    // A secret may begin with dashes: only other commands' words are taken for options.
    // A word the command names itself (policy set's --dry-run) is its own.
    auto own = [cmd](const std::string& w) {
        return std::any_of(cmd->words.begin(), cmd->words.end(), [&](const char* x) { return w == x; });
    };
    for (const std::string& w : call.args)
        if (!(cmd->flags & kSecret) && IsOption(w) && !own(w) && !((cmd->flags & kAsks) && (w == "--yes" || w == "-y")))
            return Usage("\"" + w + "\" is an option of trovctl, not a word of " + call.fixed[0] +
                         ": options go before the command (trovctl " + w + " " + call.fixed[0] + " ...)");
    BeginCommand();
    int rc = cmd->run(*this, call);
    return EndCommand(rc, (cmd->flags & kRebuilds) != 0);
}

void Shell::BeginCommand() {
    if (!messages_) return;
    // What failed while no command ran (the monitor's reconnects) makes the tree doubtful too.
    std::vector<std::string> between = messages_->TakeBetween();
    if (!between.empty()) doubt_ = between.front();
    messages_->BeginCommand();
}

int Shell::EndCommand(int rc, bool rebuilt) {
    if (!messages_) return rc;
    std::vector<std::string> failures = messages_->EndCommand();
    if (failures.empty()) {
        if (rebuilt && rc == kOk) doubt_.clear();
        return rc;
    }
    // The first line is the cause; what follows (a reconnect refused, ...) comes of it.
    doubt_ = failures.front();
    arrayReached_ = provider_ && SubsystemCount(provider_) > 0;
    if (arrayReached_)
        render_.Error("CONNECTION_LOST", kNoArray, "the connection to the proxy service was lost: " + doubt_);
    else
        render_.Error("NO_ARRAY", kNoArray, "no array reached: " + doubt_);
    return rc == kUsage || rc == kInterrupted ? rc : kNoArray;
}

void Shell::BeginLoad() { BeginCommand(); }

int Shell::EndLoad(HRESULT hr) {
    if (FAILED(hr)) {
        arrayReached_ = false;
        return EndCommand(Failed("OnLoad", hr), true);
    }
    return EndCommand(kOk, true);
}

int Shell::RunScript(std::istream& in, const std::string& name) {
    struct InScript {
        bool& flag;
        explicit InScript(bool& f) : flag(f) { flag = true; }
        ~InScript() { flag = false; }
    } inScript(inScript_);
    std::string line;
    int lineNo = 0;
    while (!quit_ && std::getline(in, line)) {
        ++lineNo;
        int rc = ExecuteLine(line);
        if (rc != kOk) {
            render_.Note(name + ":" + std::to_string(lineNo) + ": stopped at \"" + line + "\"");
            return rc;
        }
        if (interrupt::Pending()) return kInterrupted;
    }
    return kOk;
}

// --- notifications ---------------------------------------------------------------------------

// Lock order: the provider's monitor calls in here holding the provider's own mutex, and prints
// under notifyMu_ (which calls into the provider again, on the same thread). The shell's thread
// never calls into the provider while it holds notifyMu_.
void Shell::OnNotification(const VDS_NOTIFICATION& n) {
    std::lock_guard<std::mutex> g(notifyMu_);
    if (watching_ && editing_) {
        kept_.push_back(n);
        uint64_t one = 1;
        if (keptFd_ >= 0) (void)!write(keptFd_, &one, sizeof one);
    } else if (watching_) {
        PrintNotification(n);
    } else {
        pending_.push_back(n);
    }
}

void Shell::StartWatching() {
    for (;;) {
        std::deque<VDS_NOTIFICATION> kept;
        {
            std::lock_guard<std::mutex> g(notifyMu_);
            if (pending_.empty()) {
                watching_ = true;
                return;
            }
            kept.swap(pending_);
        }
        for (const VDS_NOTIFICATION& n : kept) PrintNotification(n);
    }
}

void Shell::StopWatching() {
    std::lock_guard<std::mutex> g(notifyMu_);
    watching_ = false;
}

void Shell::PrintNotification(const VDS_NOTIFICATION& n) {
    const char* type = "object";
    const char* event = "event";
    GUID id{};
    Kind kind = Kind::Subsystem;
    switch (n.objectType) {
    case VDS_NTT_CONTROLLER:
        type = "controller";
        kind = Kind::Controller;
        id = n.Controller.controllerId;
        event = n.Controller.ulEvent == VDS_NF_CONTROLLER_ARRIVE ? "arrive" : "depart";
        break;
    case VDS_NTT_LUN:
        type = "lun";
        kind = Kind::Lun;
        id = n.Lun.LunId;
        event = n.Lun.ulEvent == VDS_NF_LUN_ARRIVE ? "arrive" : n.Lun.ulEvent == VDS_NF_LUN_DEPART ? "depart" : "modify";
        break;
    case VDS_NTT_DRIVE:
        type = "drive";
        kind = Kind::Drive;
        id = n.Drive.driveId;
        event = "depart";
        break;
    default: break;
    }
    // The name, when the object is still known to the provider.
    std::string name = "(unknown)";
    CComPtr<IVdsProviderPrivate> priv = As<IVdsProviderPrivate>(provider_, IID_IVdsProviderPrivate);
    IUnknown* unk = nullptr;
    if (priv && id != GUID{} && SUCCEEDED(priv->GetObject(id, ObjectType(kind), &unk)) && unk) {
        unk->Release();  // GetObject's extra reference
        Object o{kind, id, {}};
        o.unk.Attach(unk);
        Json j;
        if (SUCCEEDED(Describe(o, &j)) && j.contains("pwszFriendlyName")) name = j["pwszFriendlyName"];
    }
    std::ostream& out = render_.out();
    if (json())
        out << Json{{"objectType", n.objectType}, {"type", type}, {"event", event}, {"id", GuidToString(id)},
                    {"name", name}}
                   .dump()
            << "\n";
    else
        out << "notification: " << type << " " << event << " " << GuidToString(id) << " " << name << "\n";
    out.flush();
}

bool Shell::WatchFor(int ms) {
    StartWatching();
    bool whole = interrupt::Sleep(ms);
    StopWatching();
    return whole;
}

}  // namespace trovctl
