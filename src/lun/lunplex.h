// CLunPlex: one plex of a LUN as the host sees it; every LUN has one, a mirror two (one per
// half). It holds a snapshot of its LUN's state when it was built, and its drives are the members
// of the LUN's vdisk that hold a slot in it (of its own half, for a mirror).
#pragma once

#include <cstdint>

#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds.h"
#include "platform/vds_interfaces.h"

class CProvider;
class CSubSystem;
class CLun;

class CLunPlex : public CComObjectRootEx, public CVdsBase, public IVdsLunPlex {
public:
    static constexpr VDS_OBJECT_TYPE kObjectType = VDS_OT_LUN_PLEX;

    CLunPlex();
    ~CLunPlex() override;
    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsLunPlex
    HRESULT GetProperties(VDS_LUN_PLEX_PROP* pPlexProp) override;
    HRESULT GetLun(IVdsLun** ppLun) override;
    HRESULT QueryExtents(VDS_DRIVE_EXTENT** ppExtentArray, LONG* plNumberOfExtents) override;
    HRESULT QueryHints(VDS_HINTS* pHints) override;
    HRESULT ApplyHints(VDS_HINTS* pHints) override;

    // `mirrorHalf`: a plex of a mirror; `firstHalf`: the first of the two.
    void Initialize(const VDS_OBJECT_ID* id, CProvider* provider, CSubSystem* subsystem, CLun* lun, bool mirrorHalf,
                    bool firstHalf);
    void Dispose();
    void TearDown() override { Dispose(); }

    const VDS_LUN_PLEX_PROP& Prop() const { return m_prop; }
    bool IsMirrorHalf() const { return m_isMirrorHalf; }
    bool IsFirstHalf() const { return m_isFirstHalf; }

private:
    // A drive of this plex: a member of the LUN's vdisk holding a slot in it, of this half.
    bool HoldsDrive(const class CDrive& d) const;

    CProvider* m_pProvider = nullptr;    // counted
    CSubSystem* m_pSubSystem = nullptr;  // counted
    CLun* m_pLun = nullptr;              // counted
    VDS_LUN_PLEX_PROP m_prop{};
    bool m_isMirrorHalf = false;
    bool m_isFirstHalf = false;
};
