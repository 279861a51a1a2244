// The emulator's data path: a tgtd of its own kept equal to the array model.
//
// Start() prepares the iSCSI folder (the backing files, tgtd's control socket, its log and a pid
// file), stops whatever an earlier run that was killed left there, binds the portals (iscsi_front.h),
// and starts tgtd as a child with a control port and socket of its own, listening on a loopback
// port that only the portals use. A thread then syncs every `syncMs`, and at once when Poke() says
// the model changed: it asks for the plan of the model (iscsi_plan.h) and hands it to the
// reconciler (iscsi_reconcile.h), which sends tgtd the differences. When tgtd dies the thread logs
// it, starts a new one and rebuilds its whole state from the model. Stop() removes every target,
// stops tgtd through tgtadm (killing it only if it does not go), and leaves the folder with the
// backing files alone, unless it was a temporary one.
//
// tgtd is started with the parent-death signal set to SIGKILL, so that it does not outlive an
// emulator that is killed; the pid file and a look through /proc for a tgtd that uses this
// folder's socket cover what that misses.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "sim/iscsi_front.h"
#include "sim/iscsi_plan.h"
#include "sim/iscsi_reconcile.h"

namespace trovsim {

struct IscsiServiceOptions {
    std::string folder;           // backing files and tgtd's files; empty: a temporary folder
    std::string tgtd, tgtadm;     // the programs; empty: looked up on PATH, /usr/sbin and /sbin
    uint32_t syncMs = 250;        // between syncs when nothing pokes
    uint32_t startTimeoutMs = 5000;  // for tgtd to answer after it was started
    std::function<void(const std::string&)> log;
};

class IscsiService {
public:
    // The plan of the model as it is now, and the model's change count it was made from.
    using PlanFn = std::function<IscsiPlan(uint64_t* generation)>;
    IscsiService(IscsiServiceOptions options, PlanFn plan);
    ~IscsiService();
    IscsiService(const IscsiService&) = delete;
    IscsiService& operator=(const IscsiService&) = delete;

    // False with *error when the portals cannot be bound, tgtd is missing or does not come up,
    // or the folder is used by another running emulator.
    bool Start(const std::vector<Endpoint>& portals, std::string* error);
    void Stop();
    bool running() const { return thread_.joinable(); }

    void Poke();
    // Waits until a sync that saw the model at `generation` or later had nothing left that tgtd
    // refused. False when `ms` passed first.
    bool WaitInStep(uint64_t generation, uint32_t ms);

    const std::string& folder() const { return folder_; }
    pid_t daemonPid() const;
    Endpoint backend() const;
    IscsiFront::Stats frontStats() const { return front_.stats(); }
    uint64_t daemonStarts() const;
    // What tgtd has now: targets, their LUNs and who may log in, one line each.
    std::string Describe() const;

private:
    class Driver;
    void Log(const std::string& line) const;
    bool PrepareFolder(std::string* error);
    void ReleaseFolder();
    void CleanUpStale(const std::string& folder);
    bool SpawnDaemon(std::string* error);
    bool DaemonExited(std::string* how);
    void StopDaemon();
    void Loop();

    IscsiServiceOptions opt_;
    PlanFn plan_;
    std::string folder_;
    bool temporary_ = false;
    int lockFd_ = -1;  // flock held on the folder's lock file while serving
    uint16_t controlPort_ = 0;
    std::unique_ptr<Driver> driver_;
    std::unique_ptr<IscsiReconciler> reconciler_;
    IscsiFront front_;
    std::thread thread_;

    mutable std::mutex mu_;  // everything below
    std::condition_variable cv_;
    bool stop_ = false, poked_ = false;
    pid_t pid_ = -1;
    Endpoint backend_;
    uint64_t starts_ = 0;
    uint64_t passes_ = 0;  // syncs done since Start()
    uint64_t inStepGeneration_ = 0;
    bool inStep_ = false;
    std::set<std::string> warnings_;  // logged already
    std::string description_;
    int startState_ = 0;  // 0 waiting, 1 up, -1 failed
    std::string startError_;
};

// The program `name` as given, or found on PATH, /usr/sbin or /sbin; empty when there is none.
std::string FindProgram(const std::string& given, const std::string& name);

}  // namespace trovsim
