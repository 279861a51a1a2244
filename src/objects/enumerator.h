// CEnumerator: the IEnumVdsObject that every query hands out.
//
// A snapshot: it holds its own reference on every element, in the order of appending, so a later
// refresh of the tree does not change it. Next, Skip and Clone take the notification mutex;
// Reset, Append and Clear don't (an enumerator is filled by one thread before it is published).
// Stepping the cursor from the end is a fatal fault of the list, as it always was: Skip from the
// end aborts the process rather than inventing an answer.
#pragma once

#include <list>

#include "platform/com.h"
#include "platform/vds_interfaces.h"

// The order of GUIDs (a byte-wise compare, as GuidLess), exported with the enumerator.
TROV_EXPORT bool operator<(const GUID& a, const GUID& b);

// Its members are exported by the module, by name, as they always were.
class TROV_EXPORT CEnumerator : public CComObjectRootEx, public IEnumVdsObject {
public:
    CEnumerator();
    ~CEnumerator() override;

    HRESULT InternalQueryInterface(REFIID riid, void** ppv);

    // IEnumVdsObject
    HRESULT Next(ULONG celt, IUnknown** ppObjectArray, ULONG* pcFetched) override;
    HRESULT Skip(ULONG celt) override;
    HRESULT Reset() override;
    HRESULT Clone(IEnumVdsObject** ppEnum) override;

    // Holds a reference on the object from now on. A failed allocation throws, nothing held.
    HRESULT Append(IUnknown* pObject);
    void Clear();
    void SetPositionToLast();

    // Makes an empty enumerator with one reference held by the caller; null when out of memory.
    static CComObject<CEnumerator>* Create();

private:
    std::list<IUnknown*> m_items;
    std::list<IUnknown*>::iterator m_cursor;
    bool m_cursorValid = false;  // false: the null iterator of a fresh object
};
