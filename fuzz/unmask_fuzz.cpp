// Fuzzes the unmasking-list parser and the initiator name test on arbitrary lists.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lun/masking.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view list(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> checked, unchecked;
    bool ok = ParseUnmaskingList(list, true, &checked);
    ParseUnmaskingList(list, false, &unchecked);

    // Every name taken is a valid one of the list, taken once; the unvalidated parse takes at
    // least as much, in the same order.
    for (size_t i = 0; i < checked.size(); ++i) {
        if (!validate_iqn(checked[i])) __builtin_trap();
        if (checked[i].size() > kMaxInitiatorNameChars) __builtin_trap();
        if (list.find(checked[i]) == std::string_view::npos) __builtin_trap();
        if (std::count(checked.begin(), checked.end(), checked[i]) != 1) __builtin_trap();
        if (i >= unchecked.size() || unchecked[i] != checked[i]) __builtin_trap();
    }
    if (FormOfUnmaskingList(list) != UnmaskForm::kNamed && !(ok && checked.empty())) __builtin_trap();
    if (ok && FormOfUnmaskingList(list) == UnmaskForm::kNamed && checked.empty()) __builtin_trap();
    return 0;
}
