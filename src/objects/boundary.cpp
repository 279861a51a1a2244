#include "objects/boundary.h"

#include <cstring>

#include "support/debuglog.h"

namespace {
// "Class::Method" out of "virtual HRESULT Class::Method(args)": no allocation on this path.
void MethodName(const char* pretty, const char** start, int* length) {
    const char* open = std::strchr(pretty, '(');
    const char* end = open ? open : pretty + std::strlen(pretty);
    const char* begin = end;
    while (begin > pretty && begin[-1] != ' ') --begin;
    *start = begin;
    *length = static_cast<int>(end - begin);
}
}  // namespace

HRESULT BoundaryFailure(const char* prettyFunction, int line) noexcept {
    HRESULT hr = E_UNEXPECTED;
    try {
        throw;
    } catch (const std::bad_alloc&) {
        hr = E_OUTOFMEMORY;
    } catch (...) {
    }
    const char* name;
    int length;
    MethodName(prettyFunction, &name, &length);
    DebugTrace(hr == E_OUTOFMEMORY ? "OOP!!! %.*s out of memory, return E_OUTOFMEMORY, line %d\n"
                                   : "OOP!!! %.*s unexpected exception, return E_UNEXPECTED, line %d\n",
               length, name, line);
    return hr;
}
