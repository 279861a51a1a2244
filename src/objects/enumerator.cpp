#include "objects/enumerator.h"

#include <cstdlib>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "objects/boundary.h"
#include "support/debuglog.h"

namespace {

[[noreturn]] void IteratorFault(const char* where) {
    DebugTrace("OOP!!! %s list iterator not incrementable\n", where);
    std::fprintf(stderr, "%s: list iterator not incrementable\n", where);
    std::abort();
}

}  // namespace

CEnumerator::CEnumerator() = default;

CEnumerator::~CEnumerator() { Clear(); }

HRESULT CEnumerator::InternalQueryInterface(REFIID riid, void** ppv) {
    if (riid == IID_IUnknown || riid == IID_IEnumVdsObject) {
        *ppv = static_cast<IEnumVdsObject*>(this);
        return S_OK;
    }
    return E_NOINTERFACE;
}

CComObject<CEnumerator>* CEnumerator::Create() {
    CComObject<CEnumerator>* p = nullptr;
    if (FAILED(CComObject<CEnumerator>::CreateInstance(&p))) return nullptr;
    p->AddRef();
    return p;
}

HRESULT CEnumerator::Next(ULONG celt, IUnknown** ppObjectArray, ULONG* pcFetched) try {
    CLockGuard lock("CEnumerator::Next", hNotificationMutex);
    if (!ppObjectArray || !pcFetched) return E_POINTER;
    *pcFetched = 0;
    if (!m_cursorValid || m_cursor == m_items.end()) return S_FALSE;
    ULONG n = 0;
    while (n < celt && m_cursor != m_items.end()) {
        (*m_cursor)->AddRef();
        ppObjectArray[n++] = *m_cursor;
        ++m_cursor;
    }
    *pcFetched = n;
    return n < celt ? S_FALSE : S_OK;
}
TROV_CATCH_OOM

HRESULT CEnumerator::Skip(ULONG celt) try {
    CLockGuard lock("CEnumerator::Skip", hNotificationMutex);
    if (celt == 0) return S_OK;
    if (!m_cursorValid || m_cursor == m_items.end()) IteratorFault("CEnumerator::Skip");
    for (ULONG left = celt; left > 0; --left) {
        ++m_cursor;
        if (left == 1) return S_OK;  // the steps ran out, also if this one reached the end
        if (m_cursor == m_items.end()) return S_FALSE;
    }
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CEnumerator::Reset() try {
    m_cursor = m_items.begin();
    m_cursorValid = true;
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CEnumerator::Clone(IEnumVdsObject** ppEnum) try {
    CLockGuard lock("CEnumerator::Clone", hNotificationMutex);
    if (!ppEnum) return E_POINTER;
    *ppEnum = nullptr;
    CComPtr<CComObject<CEnumerator>> clone;
    clone.Attach(Create());
    if (!clone) return E_OUTOFMEMORY;
    for (auto it = m_items.begin(); it != m_items.end(); ++it) {
        HRESULT hr = clone->Append(*it);
        if (FAILED(hr)) return hr;
        if (m_cursorValid && it == m_cursor) clone->SetPositionToLast();
    }
    *ppEnum = clone.Detach();
    return S_OK;
}
TROV_CATCH_OOM

HRESULT CEnumerator::Append(IUnknown* pObject) {
    if (!pObject) return E_POINTER;
    m_items.push_back(pObject);  // first, so that a failed allocation leaves no reference behind
    pObject->AddRef();
    return S_OK;
}

void CEnumerator::Clear() {
    for (IUnknown* p : m_items) p->Release();
    m_items.clear();
    m_cursor = m_items.end();
    m_cursorValid = true;
}

void CEnumerator::SetPositionToLast() {
    if (m_items.empty()) IteratorFault("CEnumerator::SetPositionToLast");
    m_cursor = std::prev(m_items.end());
    m_cursorValid = true;
}

bool operator<(const GUID& a, const GUID& b) { return GuidLess()(a, b); }
