#include <gtest/gtest.h>

#include <vector>

#include "objects/enumerator.h"

namespace {

// A counted object that records its count, so the tests can see who holds references.
class Counted final : public IUnknown {
public:
    explicit Counted(int id) : id(id) {}
    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG Release() override { return static_cast<ULONG>(--refs); }
    int id;
    long refs = 1;
};

struct Fixture {
    std::vector<Counted*> objs;
    CComObject<CEnumerator>* e = CEnumerator::Create();
    explicit Fixture(int n) {
        for (int i = 0; i < n; ++i) {
            objs.push_back(new Counted(i));
            EXPECT_EQ(e->Append(objs.back()), S_OK);
        }
        e->Reset();
    }
    ~Fixture() {
        e->Release();
        for (Counted* c : objs) {
            EXPECT_EQ(c->refs, 1) << "element " << c->id << " leaked or over-released";
            delete c;
        }
    }
    // Next(n) and the ids fetched; each fetched reference is given back.
    HRESULT Next(ULONG n, std::vector<int>* ids, ULONG* fetched, IEnumVdsObject* from = nullptr) {
        std::vector<IUnknown*> out(n + 1, nullptr);
        HRESULT hr = (from ? from : static_cast<IEnumVdsObject*>(e))->Next(n, out.data(), fetched);
        ids->clear();
        for (ULONG i = 0; i < *fetched; ++i) {
            ids->push_back(static_cast<Counted*>(out[i])->id);
            out[i]->Release();
        }
        return hr;
    }
};

TEST(Enumerator, NextAnswers) {
    struct Case {
        int size, skipFirst;
        ULONG celt;
        HRESULT hr;
        std::vector<int> ids;
    } cases[] = {
        {3, 0, 0, S_OK, {}},          // celt 0 with elements left
        {3, 3, 0, S_FALSE, {}},       // celt 0 on an exhausted enumerator
        {3, 1, 5, S_FALSE, {1, 2}},   // fewer left than asked for
        {3, 0, 3, S_OK, {0, 1, 2}},
        {0, 0, 1, S_FALSE, {}},       // empty: Reset is fine, Next is S_FALSE
    };
    for (const Case& c : cases) {
        Fixture f(c.size);
        std::vector<int> ids;
        ULONG fetched = 99;
        if (c.skipFirst) {
            ASSERT_EQ(f.Next(static_cast<ULONG>(c.skipFirst), &ids, &fetched), S_OK);
        }
        EXPECT_EQ(f.Next(c.celt, &ids, &fetched), c.hr) << c.size << "/" << c.skipFirst << "/" << c.celt;
        EXPECT_EQ(fetched, c.ids.size());
        EXPECT_EQ(ids, c.ids);
    }
}

TEST(Enumerator, NullArgumentsAndAppend) {
    Fixture f(1);
    ULONG fetched;
    IUnknown* one;
    EXPECT_EQ(f.e->Next(1, nullptr, &fetched), E_POINTER);
    EXPECT_EQ(f.e->Next(1, &one, nullptr), E_POINTER);
    EXPECT_EQ(f.e->Append(nullptr), E_POINTER);
    EXPECT_EQ(f.e->Clone(nullptr), E_POINTER);
    EXPECT_EQ(f.objs[0]->refs, 2);  // the enumerator's own reference
}

TEST(Enumerator, SkipAnswers) {
    struct Case {
        int size;
        ULONG skip;
        HRESULT hr, next;  // Skip's answer, then Next(1)'s
        std::vector<int> ids;
    } cases[] = {
        {2, 2, S_OK, S_FALSE, {}},     // exactly the two left
        {2, 3, S_FALSE, S_FALSE, {}},  // past the end
        {3, 1, S_OK, S_OK, {1}},
        {0, 0, S_OK, S_FALSE, {}},     // at the end, zero steps are fine
    };
    for (const Case& c : cases) {
        Fixture f(c.size);
        std::vector<int> ids;
        ULONG fetched;
        EXPECT_EQ(f.e->Skip(c.skip), c.hr) << c.size << "/" << c.skip;
        EXPECT_EQ(f.Next(1, &ids, &fetched), c.next) << c.size << "/" << c.skip;
        EXPECT_EQ(ids, c.ids);
    }
}

TEST(EnumeratorDeathTest, SkipFromTheEndStaysFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Fixture f(1);
            f.e->Skip(5);  // past the end: S_FALSE, cursor at the end
            f.e->Skip(1);  // stepping from the end
        },
        "not incrementable");
    EXPECT_DEATH({ CEnumerator::Create()->SetPositionToLast(); }, "not incrementable");
}

TEST(Enumerator, CloneKeepsPositionAndRunsIndependently) {
    Fixture f(3);
    std::vector<int> ids;
    ULONG fetched;
    ASSERT_EQ(f.Next(1, &ids, &fetched), S_OK);
    IEnumVdsObject* clone = nullptr;
    ASSERT_EQ(f.e->Clone(&clone), S_OK);
    EXPECT_EQ(f.Next(3, &ids, &fetched, clone), S_FALSE);
    EXPECT_EQ(ids, (std::vector<int>{1, 2}));
    EXPECT_EQ(f.Next(1, &ids, &fetched), S_OK);
    EXPECT_EQ(ids, std::vector<int>{1});
    clone->Release();
}

TEST(Enumerator, CloneOfAnExhaustedOneNeedsReset) {
    Fixture f(2);
    std::vector<int> ids;
    ULONG fetched;
    ASSERT_EQ(f.Next(2, &ids, &fetched), S_OK);
    IEnumVdsObject* clone = nullptr;
    ASSERT_EQ(f.e->Clone(&clone), S_OK);
    EXPECT_EQ(f.Next(1, &ids, &fetched, clone), S_FALSE);  // never positioned
    clone->Reset();
    EXPECT_EQ(f.Next(2, &ids, &fetched, clone), S_OK);
    EXPECT_EQ(ids, (std::vector<int>{0, 1}));
    clone->Release();
}

}  // namespace
