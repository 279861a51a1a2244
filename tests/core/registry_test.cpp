#include <gtest/gtest.h>

#include <functional>

#include "core/registry.h"
#include "testlib/fake_platform.h"

namespace {

class Obj final : public IUnknown {
public:
    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return static_cast<ULONG>(++refs); }
    ULONG Release() override {
        if (onRelease) onRelease();
        return static_cast<ULONG>(--refs);
    }
    long refs = 1;
    std::function<void()> onRelease;
};

GUID G(uint32_t n) { return GUID{n, 0, 0, {0, 0, 0, 0, 0, 0, 0, 0}}; }

TEST(Registry, AddObjectKeepsTheFirstEntry) {
    ObjectRegistry r;
    Obj a, b;
    EXPECT_TRUE(r.AddObject(G(1), {VDS_OT_DRIVE, &a}));
    EXPECT_FALSE(r.AddObject(G(1), {VDS_OT_LUN, &b}));
    ASSERT_NE(r.Find(G(1)), nullptr);
    EXPECT_EQ(r.Find(G(1))->pObject, &a);
    EXPECT_EQ(r.Find(G(1), VDS_OT_DRIVE)->pObject, &a);
    EXPECT_EQ(r.Find(G(1), VDS_OT_LUN), nullptr);  // known id, wrong kind
    EXPECT_EQ(r.Find(G(2)), nullptr);
    EXPECT_EQ(a.refs, 1);  // the object map adds no reference
}

TEST(Registry, RemoveObjectIsInertDuringARefreshButADyingObjectAlwaysLeaves) {
    ObjectRegistry r;
    Obj a, b;
    r.AddObject(G(1), {VDS_OT_LUN, &a});
    r.RemoveObject(G(1), /*refreshing=*/true);
    EXPECT_NE(r.Find(G(1)), nullptr);
    r.RemoveObject(G(1), false);
    EXPECT_EQ(r.Find(G(1)), nullptr);
    r.RemoveObject(G(1), false);  // absent: no error
    r.AddObject(G(2), {VDS_OT_LUN, &a});
    r.DropObject(G(2), &b);  // the id names another object: it stays
    ASSERT_NE(r.Find(G(2)), nullptr);
    r.DropObject(G(2), &a);
    EXPECT_EQ(r.Find(G(2)), nullptr);
}

TEST(Registry, AnOwningMapHoldsOneReferencePerEntry) {
    Obj a, b;
    {
        OwningMap m;
        EXPECT_TRUE(m.Enter(G(1), VDS_OT_DRIVE, &a));
        EXPECT_FALSE(m.Enter(G(1), VDS_OT_DRIVE, &b));  // the id keeps its entry, b no reference
        EXPECT_TRUE(m.Enter(G(2), VDS_OT_LUN, &b));
        EXPECT_EQ(a.refs, 2);
        EXPECT_EQ(b.refs, 2);
        ASSERT_NE(m.find(G(2)), m.end());
        EXPECT_EQ(m.find(G(2))->second.type, VDS_OT_LUN);
        m.Remove(G(1));
        EXPECT_EQ(a.refs, 1);
        m.Remove(G(1));  // absent: no error
        EXPECT_EQ(m.size(), 1u);
    }
    EXPECT_EQ(b.refs, 1);  // the map's end lets go
}

TEST(Registry, AReleaseDuringClearFindsTheMapAlreadyEmpty) {
    Obj a, b;
    OwningMap m;
    m.Enter(G(1), VDS_OT_DRIVE, &a);
    m.Enter(G(2), VDS_OT_DRIVE, &b);
    size_t seen = 99;
    a.onRelease = b.onRelease = [&] { seen = m.size(); };
    m.Clear();
    EXPECT_EQ(seen, 0u);
    EXPECT_EQ(a.refs, 1);
    EXPECT_EQ(b.refs, 1);
    a.onRelease = b.onRelease = nullptr;
}

TEST(Registry, IdentityFirstInIdOrderAndScopedByKind) {
    Obj a, b, c;
    {
        ObjectRegistry r;
        // Two drives with the same long name: the first in id order is found, whatever the
        // order in which they were remembered.
        EXPECT_TRUE(r.RememberObject(G(9), u"Disk X", VDS_OT_DRIVE, &a, nullptr));
        EXPECT_TRUE(r.RememberObject(G(3), u"Disk X", VDS_OT_DRIVE, &b, nullptr));
        EXPECT_FALSE(r.RememberObject(G(3), u"other", VDS_OT_DRIVE, &c, nullptr));  // id kept
        // A portal with the same address text as a port is a different object.
        EXPECT_TRUE(r.RememberObject(G(1), u"10.0.0.1", VDS_OT_PORT, &c, nullptr));
        GUID id{};
        const ObjectRegistry::Identity* e = r.FindIdentity(VDS_OT_DRIVE, u"Disk X", &id);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(id, G(3));
        EXPECT_EQ(e->object, &b);
        EXPECT_EQ(r.FindIdentity(VDS_OT_PORTAL, u"10.0.0.1", &id), nullptr);
        EXPECT_NE(r.FindIdentity(VDS_OT_PORT, u"10.0.0.1", &id), nullptr);
        EXPECT_EQ(r.FindIdentity(VDS_OT_DRIVE, u"disk x", &id), nullptr);  // case counts
        // The identity map keeps its objects alive.
        EXPECT_EQ(a.refs, 2);
        EXPECT_EQ(b.refs, 2);
        EXPECT_EQ(c.refs, 2);
    }
    EXPECT_EQ(a.refs, 1);
    EXPECT_EQ(b.refs, 1);
    EXPECT_EQ(c.refs, 1);
}

}  // namespace
