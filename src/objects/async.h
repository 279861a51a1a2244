// CVdsAsyncObject: the IVdsAsync handle of an operation the host may wait on.
//
// Most operations are done when the handle is returned; it then only carries the result (a LUN
// or a portal group). QueryStatus asks the array for the progress of a LUN's array while the
// operation still runs. The one long wait, the growth of an array, belongs to the extend
// operation, which installs it through SetExpandWait.
#pragma once

#include <cstdint>

#include "core/vds_base.h"
#include "platform/com.h"
#include "platform/vds_interfaces.h"
#include "proxy/records.h"

class CSubSystem;
class CController;

class CVdsAsyncObject : public CComObjectRootEx, public CVdsBase, public IVdsAsync {
public:
    CVdsAsyncObject();
    ~CVdsAsyncObject() override;

    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IVdsAsync
    HRESULT Cancel() override;
    HRESULT Wait(HRESULT* pHrResult, VDS_ASYNC_OUTPUT* pAsyncOut) override;
    HRESULT QueryStatus(HRESULT* pHrResult, ULONG* pulPercentCompleted) override;

    // CAsync::Initialize: references on both, the output type, running.
    void Initialize(CSubSystem* subsystem, CController* controller, uint32_t type);
    void SetResult(IUnknown* object);
    void SetRunning(uint8_t running) { m_running = running; }
    uint8_t Running() const { return m_running; }
    uint32_t Type() const { return m_type; }
    IUnknown* Result() const { return m_pResult.get(); }
    CController* Controller() const { return m_pController; }
    ExpandPartRequest& ExpandRequest() { return m_expandRequest; }
    void SetExpandLun(IUnknown* lun);
    IUnknown* ExpandLun() const { return m_pExpandLun.get(); }
    // Consecutive failed progress reads after which an extension's wait gives up.
    static constexpr int kMaxProgressFailures = 30;
    static constexpr uint32_t kProgressPollMs = 2000;

private:
    uint32_t m_type = 0;
    CComPtr<IUnknown> m_pResult;
    intptr_t m_event = -1;          // never created; closed if it ever were
    CSubSystem* m_pSubSystem = nullptr;     // counted
    CController* m_pController = nullptr;   // counted
    ExpandPartRequest m_expandRequest{};
    uint8_t m_running = 0;
    CComPtr<IUnknown> m_pExpandLun;

    // The array's progress of the result LUN's vdisk: the command's result; *percent only on
    // success.
    int ReadPercent(uint32_t* percent) const;
    // The rest of an extension: the restripe followed to its end, then the partition's growth.
    HRESULT WaitForExpansion();
};
