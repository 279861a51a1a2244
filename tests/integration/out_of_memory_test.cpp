// Out of memory at the interface boundary. This program's operator new, and the platform's task
// memory, can be told to fail: the n-th allocation from now (transient), or that one and every
// later one (persistent), on the calling thread only, so that the emulator's threads never see a
// failure. Interface methods run
// against the emulator with the failure placed at each allocation in turn: each answers S_OK with
// the same answer as without a failure, or E_OUTOFMEMORY; nothing leaks (the ASan build checks),
// and the provider works as before afterwards.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <vector>

#include "core/provider.h"
#include "testlib/provider_env.h"

namespace {

thread_local long t_countdown = 0;    // 0: no failure planned; n: the n-th allocation fails
thread_local bool t_persistent = false;
thread_local bool t_failing = false;  // a persistent failure has begun
thread_local long t_seen = 0;         // allocations since Arm

bool FailNow() {
    if (t_failing) return true;
    if (t_countdown == 0) return false;
    ++t_seen;
    if (--t_countdown > 0) return false;
    t_failing = t_persistent;
    return true;
}

void* Allocate(std::size_t n) { return std::malloc(n ? n : 1); }

}  // namespace

// The replacements are seen by the libraries too (the build hides symbols by default), and pair
// malloc with free, which the compiler cannot tell from a mismatch.
#define TROV_EXPORTED __attribute__((visibility("default")))
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif

TROV_EXPORTED void* operator new(std::size_t n) {
    void* p = FailNow() ? nullptr : Allocate(n);
    if (!p) throw std::bad_alloc();
    return p;
}
TROV_EXPORTED void* operator new[](std::size_t n) { return ::operator new(n); }
TROV_EXPORTED void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    return FailNow() ? nullptr : Allocate(n);
}
TROV_EXPORTED void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    return FailNow() ? nullptr : Allocate(n);
}
TROV_EXPORTED void operator delete(void* p) noexcept { std::free(p); }
TROV_EXPORTED void operator delete[](void* p) noexcept { std::free(p); }
TROV_EXPORTED void operator delete(void* p, std::size_t) noexcept { std::free(p); }
TROV_EXPORTED void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

namespace {

using testlib::ProviderEnv;

// The n-th allocation from now on this thread fails; with `persistent`, every later one too.
void Arm(long n, bool persistent) {
    t_seen = 0;
    t_failing = false;
    t_persistent = persistent;
    t_countdown = n;
}
// Ends the plan; the number of allocations the armed code made (up to the failure).
long Disarm() {
    t_countdown = 0;
    t_failing = false;
    return t_seen;
}

// The test platform, with task memory that fails as operator new does.
class FailingTaskMemory : public PlatformWrapper {
public:
    explicit FailingTaskMemory(Platform* target) : PlatformWrapper(target) {}
    void* TaskMemAlloc(size_t n) override { return FailNow() ? nullptr : PlatformWrapper::TaskMemAlloc(n); }
};

std::string Text(const WCHAR* s) { return testlib::Narrow(s); }

// The texts of task-memory strings a call handed out, joined; the strings are freed.
template <class... S>
std::string Freed(S*... strings) {
    std::string out = ((Text(strings) + "|") + ...);
    (CoTaskMemFree(strings), ...);
    return out;
}
std::string Ptr(const void* p) {
    char b[32];
    std::snprintf(b, sizeof b, "%p", p);
    return b;
}

// The objects of an enumeration by address, in order; the enumeration and its references go.
std::string Objects(IEnumVdsObject* e) {
    std::string out;
    IUnknown* unk = nullptr;
    ULONG fetched = 0;
    while (e->Next(1, &unk, &fetched) == S_OK && fetched == 1) {
        out += Ptr(unk) + " ";
        unk->Release();
    }
    e->Release();
    return out;
}

// One interface call: `call` runs armed and only calls; `take` runs after an S_OK, unarmed,
// describes what the call handed out and frees it. A call that `rebuilds` the tree may leave
// part of it when cut short: the next query must make it whole again. Such a call is long, and
// is swept at a spread of its allocations rather than at each.
struct Call {
    std::string name;
    std::function<HRESULT()> call;
    std::function<std::string()> take;
    bool rebuilds = false;
};

// Where the failure is placed: every allocation of the call and one beyond the last (no failure
// at all); for a long call, its first 24 and 24 more spread evenly over the rest.
// A refresh under the sanitizers costs a hundred times more: fewer points spread over the rest.
#ifdef TROV_UNDER_SANITIZER
constexpr long kSpreadPoints = 8;
#else
constexpr long kSpreadPoints = 24;
#endif

std::vector<long> FailurePoints(long count, bool spread) {
    std::vector<long> points;
    const long dense = spread ? 24 : count + 1;
    for (long n = 1; n <= count + 1 && n <= dense; ++n) points.push_back(n);
    for (long i = 1; dense < count + 1 && i <= kSpreadPoints; ++i)
        points.push_back(dense + (count + 1 - dense) * i / kSpreadPoints);
    return points;
}

class OutOfMemory : public ::testing::Test {
protected:
    void SetUp() override {
        Platform::Set(&platform);
        ASSERT_EQ(env.Load(), S_OK);
        reference = Tree();
        identities = Provider()->Registry().IdentityCount();
        ASSERT_GT(identities, 20u);
    }

    void TearDown() override {
        if (env.provider) env.Unload();
        Platform::Set(&env.tp);
    }

    CProvider* Provider() { return static_cast<CProvider*>(env.provider); }

    // The whole tree as the host sees it, by the objects' addresses: the same objects in the
    // same order, or a difference.
    std::string Tree() {
        std::string out;
        for (auto& ss : env.SubSystems()) {
            out += "ss " + Ptr(ss.get()) + "\n";
            IEnumVdsObject* e = nullptr;
            CComPtr<IVdsSubSystemIscsi> iscsi;
            EXPECT_EQ(ss->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&iscsi)), S_OK);
            for (auto q : {&IVdsSubSystem::QueryControllers, &IVdsSubSystem::QueryLuns, &IVdsSubSystem::QueryDrives}) {
                EXPECT_EQ((ss.get()->*q)(&e), S_OK);
                out += Objects(e) + "\n";
            }
            EXPECT_EQ(iscsi->QueryTargets(&e), S_OK);
            out += Objects(e) + "\n";
            EXPECT_EQ(iscsi->QueryPortals(&e), S_OK);
            out += Objects(e) + "\n";
        }
        CComPtr<IVdsHwProviderStoragePools> pools;
        EXPECT_EQ(env.provider->QueryInterface(IID_IVdsHwProviderStoragePools, reinterpret_cast<void**>(&pools)), S_OK);
        IEnumVdsObject* e = nullptr;
        EXPECT_EQ(pools->QueryStoragePools(0, 0, nullptr, &e), S_OK);
        return out + "pools " + Objects(e);
    }

    // Runs the call once unarmed for its answer and its number of allocations, then once at each
    // failure point in each mode.
    void Sweep(const Call& c) {
        SCOPED_TRACE(c.name);
        Arm(1L << 40, false);
        HRESULT hr = c.call();
        long count = Disarm();
        ASSERT_EQ(hr, S_OK);
        const std::string expected = c.take();
        ASSERT_GT(count, 0) << "the call allocates nothing: nothing to sweep";
        int failures = 0;
        for (bool persistent : {false, true}) {
            for (long n : FailurePoints(count, c.rebuilds)) {
                Arm(n, persistent);
                hr = c.call();
                Disarm();
                if (hr == S_OK) {
                    EXPECT_EQ(c.take(), expected) << "allocation " << n << (persistent ? " on" : "");
                    continue;
                }
                EXPECT_EQ(hr, E_OUTOFMEMORY) << "allocation " << n << (persistent ? " on" : "");
                ++failures;
                if (c.rebuilds) {
                    EXPECT_EQ(Tree(), reference) << "allocation " << n << (persistent ? " on" : "");
                }
            }
        }
        EXPECT_GT(failures, 0) << "no failure reached the host";
        // The provider goes on as if nothing had happened.
        EXPECT_EQ(Tree(), reference);
        EXPECT_EQ(Provider()->Registry().IdentityCount(), identities);
    }

    ProviderEnv env;
    FailingTaskMemory platform{&env.tp};
    std::string reference;
    size_t identities = 0;
};

TEST_F(OutOfMemory, PropertiesAndQueriesAnswerWhollyOrNotAtAll) {
    auto ss = env.SubSystems().at(0);
    CComPtr<IVdsSubSystem2> ss2;
    ASSERT_EQ(ss->QueryInterface(IID_IVdsSubSystem2, reinterpret_cast<void**>(&ss2)), S_OK);
    auto luns = testlib::CollectFrom<IVdsLun>([&](IEnumVdsObject** e) { return ss->QueryLuns(e); }, IID_IVdsLun);
    auto ctrls = testlib::CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                                      IID_IVdsController);
    auto drives = testlib::CollectFrom<IVdsDrive>([&](IEnumVdsObject** e) { return ss->QueryDrives(e); }, IID_IVdsDrive);
    ASSERT_FALSE(luns.empty());
    auto plexes = testlib::CollectFrom<IVdsLunPlex>([&](IEnumVdsObject** e) { return luns[0]->QueryPlexes(e); },
                                                    IID_IVdsLunPlex);
    ASSERT_FALSE(plexes.empty());
    ASSERT_EQ(ctrls.size(), 2u);
    ASSERT_FALSE(drives.empty());
    CComPtr<IVdsHwProvider> hw;
    ASSERT_EQ(env.provider->QueryInterface(IID_IVdsHwProvider, reinterpret_cast<void**>(&hw)), S_OK);

    VDS_PROVIDER_PROP pp{};
    VDS_SUB_SYSTEM_PROP sp{};
    VDS_SUB_SYSTEM_PROP2 sp2{};
    VDS_LUN_PROP lp{};
    VDS_DRIVE_PROP dp{};
    VDS_DRIVE_EXTENT* ext = nullptr;
    LONG extents = 0;
    IEnumVdsObject* e = nullptr;
    auto objects = [&] { return Objects(e); };
    auto extentText = [&] {
        std::string out;
        for (LONG i = 0; i < extents; ++i) out += std::to_string(ext[i].ullSize) + " ";
        CoTaskMemFree(ext);
        return out;
    };
    // A member drive: its extents ask the subsystem for its LUNs.
    IVdsDrive* member = drives.front().get();
    const Call calls[] = {
        {"CProvider::GetProperties", [&] { return env.provider->GetProperties(&pp); },
         [&] { return Freed(pp.pwszName, pp.pwszVersion); }},
        {"CProvider::QuerySubSystems", [&] { return hw->QuerySubSystems(&e); }, objects},
        {"CSubSystem::GetProperties", [&] { return ss->GetProperties(&sp); },
         [&] { return Freed(sp.pwszFriendlyName, sp.pwszIdentification); }},
        {"CSubSystem::GetProperties2", [&] { return ss2->GetProperties2(&sp2); },
         [&] { return Freed(sp2.pwszFriendlyName, sp2.pwszIdentification) + std::to_string(sp2.ulNumberOfEnclosures); }},
        {"CSubSystem::QueryLuns", [&] { return ss->QueryLuns(&e); }, objects},
        {"CSubSystem::QueryDrives", [&] { return ss->QueryDrives(&e); }, objects},
        {"CLun::GetProperties", [&] { return luns[0]->GetProperties(&lp); },
         [&] { return Freed(lp.pwszFriendlyName, lp.pwszIdentification, lp.pwszUnmaskingList); }},
        {"CLun::QueryPlexes", [&] { return luns[0]->QueryPlexes(&e); }, objects},
        {"CDrive::GetProperties", [&] { return member->GetProperties(&dp); },
         [&] { return Freed(dp.pwszFriendlyName, dp.pwszIdentification); }},
        {"CDrive::QueryExtents", [&] { return member->QueryExtents(&ext, &extents); }, extentText},
        {"CLunPlex::QueryExtents",
         [&] {
             ext = nullptr;  // an empty answer hands out no array
             return plexes[0]->QueryExtents(&ext, &extents);
         },
         extentText},
        {"CController::QueryAssociatedLuns", [&] { return ctrls[0]->QueryAssociatedLuns(&e); }, objects},
    };
    for (const Call& c : calls) Sweep(c);
}

TEST_F(OutOfMemory, IscsiPoolsAndEnumeratorsAnswerWhollyOrNotAtAll) {
    auto ss = env.SubSystems().at(0);
    CComPtr<IVdsSubSystemIscsi> iscsi;
    ASSERT_EQ(ss->QueryInterface(IID_IVdsSubSystemIscsi, reinterpret_cast<void**>(&iscsi)), S_OK);
    auto targets = testlib::CollectFrom<IVdsIscsiTarget>([&](IEnumVdsObject** e) { return iscsi->QueryTargets(e); },
                                                         IID_IVdsIscsiTarget);
    ASSERT_FALSE(targets.empty());
    CComPtr<IVdsHwProviderStoragePools> sp;
    ASSERT_EQ(env.provider->QueryInterface(IID_IVdsHwProviderStoragePools, reinterpret_cast<void**>(&sp)), S_OK);
    auto pools = testlib::CollectFrom<IVdsStoragePool>(
        [&](IEnumVdsObject** e) { return sp->QueryStoragePools(0, 0, nullptr, e); }, IID_IVdsStoragePool);
    ASSERT_FALSE(pools.empty());
    IVdsStoragePool* pool = pools.back().get();  // a vdisk's pool

    IEnumVdsObject* e = nullptr;
    auto objects = [&] { return Objects(e); };
    VDS_ISCSI_TARGET_PROP tp{};
    VDS_STORAGE_POOL_PROP pp{};
    VDS_POOL_ATTRIBUTES pa{};
    IVdsAsync* async = nullptr;
    LPWSTR* initiators = nullptr;
    LONG count = 0;
    CComPtr<IEnumVdsObject> all;
    ASSERT_EQ(ss->QueryLuns(&all), S_OK);
    const Call calls[] = {
        {"CIscsiTarget::GetProperties", [&] { return targets[0]->GetProperties(&tp); },
         [&] { return Freed(tp.pwszIscsiName, tp.pwszFriendlyName); }},
        {"CIscsiTarget::QueryPortalGroups", [&] { return targets[0]->QueryPortalGroups(&e); }, objects},
        {"CIscsiTarget::QueryAssociatedLuns", [&] { return targets[0]->QueryAssociatedLuns(&e); }, objects},
        {"CIscsiTarget::CreatePortalGroup", [&] { return targets[0]->CreatePortalGroup(&async); },
         [&] {
             HRESULT result = E_FAIL;
             VDS_ASYNC_OUTPUT out{};
             EXPECT_EQ(async->Wait(&result, &out), S_OK);
             std::string t = Ptr(out.cpg.pPortalGroupUnk);
             if (out.cpg.pPortalGroupUnk) out.cpg.pPortalGroupUnk->Release();
             async->Release();
             return t;
         }},
        {"CIscsiTarget::GetConnectedInitiators", [&] { return targets[0]->GetConnectedInitiators(&initiators, &count); },
         [&] {
             std::string t;
             for (LONG i = 0; i < count; ++i) {
                 t += Text(initiators[i]) + " ";
                 CoTaskMemFree(initiators[i]);
             }
             CoTaskMemFree(initiators);
             return t;
         }},
        {"CProvider::QueryStoragePools", [&] { return sp->QueryStoragePools(0, 0, nullptr, &e); }, objects},
        {"CPool::GetProperties", [&] { return pool->GetProperties(&pp); },
         [&] { return Freed(pp.pwszName, pp.pwszDescription); }},
        {"CPool::GetAttributes", [&] { return pool->GetAttributes(&pa); }, [&] { return Freed(pa.pwszIntendedUsage); }},
        {"CPool::QueryAllocatedLuns", [&] { return pool->QueryAllocatedLuns(&e); }, objects},
        {"CEnumerator::Clone", [&] { return all->Clone(&e); },
         [&] {
             e->Reset();
             return Objects(e);
         }},
    };
    for (const Call& c : calls) Sweep(c);
}

TEST_F(OutOfMemory, ARefreshCutShortIsMadeGoodByTheNextQuery) {
    CComPtr<IVdsHwProvider> hw;
    ASSERT_EQ(env.provider->QueryInterface(IID_IVdsHwProvider, reinterpret_cast<void**>(&hw)), S_OK);
    auto ss = env.SubSystems().at(0);
    // What a refresh answers is the tree it leaves: the same objects as before.
    Sweep({"CProvider::Refresh", [&] { return hw->Refresh(); }, [&] { return Tree(); }, true});
    Sweep({"CSubSystem::Reenumerate", [&] { return ss->Reenumerate(); }, [&] { return Tree(); }, true});
    EXPECT_EQ(isRefreshing.load(), 0);
}

}  // namespace
