#include "platform/hresult.h"

const char* HResultName(HRESULT hr) {
    switch (hr) {
#define N(x) case x: return #x;
        N(S_OK) N(S_FALSE) N(E_NOTIMPL) N(E_NOINTERFACE) N(E_POINTER) N(E_ABORT) N(E_FAIL) N(E_UNEXPECTED)
        N(E_ACCESSDENIED) N(E_HANDLE) N(E_OUTOFMEMORY) N(E_INVALIDARG) N(CLASS_E_NOAGGREGATION)
        N(CLASS_E_CLASSNOTAVAILABLE)
        N(VDS_E_NOT_SUPPORTED) N(VDS_E_INITIALIZED_FAILED) N(VDS_E_OBJECT_NOT_FOUND) N(VDS_E_INTERNAL_ERROR)
        N(VDS_S_NAME_TRUNCATED) N(VDS_E_NAME_NOT_UNIQUE)
#undef N
        default: return nullptr;
    }
}
