// Brings the target daemon in step with a plan (iscsi_plan.h), one tgtadm call at a time.
//
// The reconciler keeps a record of what the daemon has: what it created and what the daemon took.
// Sync() compares the plan with that record and sends only the differences: targets first made or
// taken away, LUNs (a LUN whose file or size changed is taken away and made again, since the daemon
// reads a file's size only when it makes the LUN), inquiry parameters, initiators admitted,
// CHAP accounts and their bindings, and backing files of partitions that are gone. A change the
// daemon refuses is left out of the record, so the next Sync() tries it again; the refusal is
// logged once, and its success later is logged too. Nothing here changes the model.
//
// When an initiator stops being admitted to a target, its sessions there are closed, so that a
// host that lost its view also loses the LUNs it had open.
//
// Not thread-safe: one thread owns a reconciler.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "sim/iscsi_plan.h"

namespace trovsim {

// The reconciler's hands: the daemon's admin tool and the backing files.
class IscsiDriver {
public:
    virtual ~IscsiDriver() = default;
    // Runs tgtadm with `args` (the control port is the driver's business). True on success;
    // `output` gets what it printed either way.
    virtual bool Tgtadm(const std::vector<std::string>& args, std::string* output) = 0;
    // Makes the file `name` in the iSCSI folder exactly `bytes` long (sparse), creating it if needed.
    virtual bool SizeFile(const std::string& name, uint64_t bytes, std::string* error) = 0;
    virtual bool RemoveFile(const std::string& name, std::string* error) = 0;
    // The full path of a file in the folder, as the daemon must be given it.
    virtual std::string PathOf(const std::string& name) const = 0;
};

// What the daemon has, as far as the reconciler knows.
struct IscsiApplied {
    struct Lun {
        std::string file;
        uint64_t bytes = 0;
        IscsiInquiry inquiry;  // empty until the parameters were taken
    };
    struct Target {
        uint32_t tid = 0;
        std::map<uint32_t, Lun> luns;
        bool admitAll = false;
        std::set<std::string> names, addresses;
        std::set<std::string> accounts;
        std::string outgoing;
    };
    std::map<std::string, Target> targets;        // by iSCSI name
    std::map<std::string, std::string> accounts;  // user -> secret
    std::set<std::string> files;                  // backing files that exist
};

class IscsiReconciler {
public:
    using LogFn = std::function<void(const std::string&)>;
    IscsiReconciler(IscsiDriver& driver, LogFn log) : d_(driver), log_(std::move(log)) {}

    // One pass toward `plan`. Returns the number of changes the daemon refused (0: in step).
    uint32_t Sync(const IscsiPlan& plan);
    // The daemon was started afresh: it has nothing. Files stay as they are.
    void ForgetDaemon();
    // Files found in the folder (at start): removed when no partition owns them.
    void AdoptFiles(const std::set<std::string>& names) { applied_.files.insert(names.begin(), names.end()); }
    const IscsiApplied& applied() const { return applied_; }

private:
    bool Run(const std::string& what, const std::vector<std::string>& args, std::string* output = nullptr);
    bool Note(const std::string& what, bool ok, const std::string& detail);
    void DropSessions(const std::string& target, IscsiApplied::Target& t);

    IscsiDriver& d_;
    LogFn log_;
    IscsiApplied applied_;
    std::map<std::string, uint32_t> failing_;  // change -> refusals in a row
    std::set<std::string> attempted_;          // changes tried in this pass
    uint32_t failures_ = 0;
};

// tgtadm's "--params" takes comma-separated pairs: a value must not hold a comma.
std::string TgtParamValue(const std::string& text);

}  // namespace trovsim
