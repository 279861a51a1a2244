// The asynchronous handle on its own: what Wait and QueryStatus give for each kind of operation.
#include <gtest/gtest.h>

#include <cstring>

#include "objects/async.h"
#include "objects/enumerator.h"
#include "testlib/fake_platform.h"

namespace {
// Something to hand out as a result, with a visible count.
CComObject<CEnumerator>* Result() { return CEnumerator::Create(); }

ULONG Count(IUnknown* u) {
    u->AddRef();
    return u->Release();
}
}  // namespace

TEST(Async, WaitGivesTheResultWithAReferenceEachTime) {
    TestPlatform tp;
    tp.Install();
    struct Case {
        uint32_t type;
        uint8_t running;
        bool result;
    } cases[] = {{VDS_ASYNCOUT_CREATELUN, 1, true},
                 {VDS_ASYNCOUT_CREATELUN, 0, true},
                 {VDS_ASYNCOUT_EXTENDLUN, 0, true},
                 {VDS_ASYNCOUT_CREATEPORTALGROUP, 0, true},
                 {VDS_ASYNCOUT_CREATEPORTALGROUP, 0, false},
                 {VDS_ASYNCOUT_CREATETARGET, 0, true}};
    for (const Case& c : cases) {
        CComObject<CVdsAsyncObject>* a = nullptr;
        ASSERT_EQ(CComObject<CVdsAsyncObject>::CreateInstance(&a), S_OK);
        a->AddRef();
        a->Initialize(nullptr, nullptr, c.type);
        EXPECT_EQ(a->Running(), 1);
        a->SetRunning(c.running);
        auto* r = Result();
        if (c.result) a->SetResult(r);
        ULONG before = Count(r);
        for (int round = 0; round < 2; ++round) {
            HRESULT hr = E_FAIL;
            VDS_ASYNC_OUTPUT out;
            std::memset(&out, 0xAB, sizeof out);
            ASSERT_EQ(a->Wait(&hr, &out), S_OK);
            EXPECT_EQ(hr, S_OK);
            EXPECT_EQ(static_cast<uint32_t>(out.type), c.type);
            bool handsOut = c.result && c.type != VDS_ASYNCOUT_CREATETARGET;
            EXPECT_EQ(out.cl.pLunUnk, handsOut ? static_cast<IUnknown*>(static_cast<IEnumVdsObject*>(r)) : nullptr);
            EXPECT_EQ(Count(r), before + (handsOut ? round + 1 : 0));
        }
        EXPECT_EQ(a->Cancel(), E_NOTIMPL);
        HRESULT hr = E_FAIL;
        ULONG pct = 0;
        ASSERT_EQ(a->QueryStatus(&hr, &pct), S_OK);
        EXPECT_EQ(pct, 100u);  // done, or a kind without progress
        EXPECT_EQ(hr, S_OK);
        EXPECT_EQ(a->Wait(nullptr, nullptr), E_POINTER);
        EXPECT_EQ(a->QueryStatus(&hr, nullptr), E_POINTER);
        while (Count(r) > 2) r->Release();  // the references Wait handed out
        a->Release();
        r->Release();
    }
}
