// Masking of a LUN (CLun::SetMask) and the unit-number choice; see lun/masking.h.
#include "lun/masking.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>

#include "core/globals.h"
#include "core/lock_guard.h"
#include "core/provider.h"
#include "lun/lun.h"
#include "objects/boundary.h"
#include "objects/controller.h"
#include "objects/object_util.h"
#include "objects/subsystem.h"
#include "platform/wstr.h"
#include "proxy/kelvane.h"
#include "support/debuglog.h"

namespace {

bool IsAlnum(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHex(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool PrefixIs(std::string_view s, const char* lower) {
    size_t n = std::strlen(lower);
    if (s.size() < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(static_cast<unsigned char>(s[i])) != lower[i]) return false;
    return true;
}

bool MatchesIqnOrEui(std::string_view s) {
    if (PrefixIs(s, "eui.")) {
        if (s.size() != 20) return false;
        return std::all_of(s.begin() + 4, s.end(), IsHex);
    }
    if (!PrefixIs(s, "iqn.")) return false;
    size_t i = 4;
    // yyyy-mm.
    for (int k = 0; k < 4; ++k, ++i)
        if (i >= s.size() || !IsDigit(s[i])) return false;
    if (i >= s.size() || s[i++] != '-') return false;
    for (int k = 0; k < 2; ++k, ++i)
        if (i >= s.size() || !IsDigit(s[i])) return false;
    if (i >= s.size() || s[i++] != '.') return false;
    // The naming authority: parts of letters and digits joined by '.' or '-'.
    for (;;) {
        size_t start = i;
        while (i < s.size() && IsAlnum(s[i])) ++i;
        if (i == start) return false;
        if (i == s.size()) return true;
        if (s[i] == '.' || s[i] == '-') {
            ++i;
            continue;
        }
        break;
    }
    if (s[i++] != ':') return false;
    if (i == s.size()) return false;
    for (; i < s.size(); ++i)
        if (!IsAlnum(s[i]) && s[i] != '-' && s[i] != '.' && s[i] != ':') return false;
    return true;
}

std::vector<uint32_t> UsedNumbers(const CLun& lun, const uint8_t* wwn) {
    std::vector<uint32_t> used;
    CSubSystem* sub = lun.SubSystem();
    auto collect = [&](uint32_t handle) {
        if (handle == 0) return;
        if (wwn)
            GetExistLunList4WWN(handle, &used, wwn);
        else
            GetExistLunList(handle, &used);
    };
    if (sub && sub->SupportsUlp()) {
        collect(sub->HandleA());
        collect(sub->HandleB());
    } else if (lun.Controller()) {
        collect(lun.Controller()->Handle());
    }
    return used;
}

uint32_t UnitLimit(const CLun& lun) {
    CSubSystem* sub = lun.SubSystem();
    if (!sub) return 0;
    return sub->SupportsUlp() ? sub->MaxLuns() : sub->MaxLuns() / 2;
}

void ExistLuns(uint32_t handle, std::vector<uint32_t>* list, const uint8_t* wwn) {
    std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
    if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
        if (wwn)
            DebugTrace("OOP!!! CLun::GetExistLunList4WWN() get_controller_data error.");
        else
            DebugTrace("OOP!!! utility::GetExistLunList() get_controller_data error.");
        return;
    }
    const auto* cd = reinterpret_cast<const ControllerData*>(buf.get());
    auto view = std::make_unique<PartitionView>();
    for (uint32_t a = 0; a < cd->arrayCount(); ++a)
        for (uint32_t p = 0; p < cd->partitionCountOf(a); ++p) {
            if (Kelvane::get_part_view(handle, cd->partition(a, p).PartSn, view.get()) != 0) continue;
            if (!wwn) {
                if (view->defaultLun != 0 || view->hasDefaultAccess()) list->push_back(view->defaultLun);
            }
            for (uint32_t i = 0; i < view->viewCount(); ++i)
                if (!wwn || std::memcmp(view->viewWwns[i], wwn, 8) == 0) list->push_back(view->viewLuns[i].lun);
        }
}

// A name of 16 hexadecimal digits as the 8 bytes of a WWN; any other name leaves zeros.
void WwnFromName(const std::string& name, uint8_t wwn[8]) {
    std::memset(wwn, 0, 8);
    if (name.size() != 16 || !std::all_of(name.begin(), name.end(), IsHex)) return;
    for (int i = 0; i < 8; ++i) wwn[i] = static_cast<uint8_t>(std::stoul(name.substr(i * 2, 2), nullptr, 16));
}

std::string Join(const std::vector<std::string>& names) {
    std::string out;
    for (const std::string& n : names) {
        if (!out.empty()) out += ";";
        out += n;
    }
    return out;
}

}  // namespace

bool validate_iqn(std::string_view name) {
    // The array's view holds 223 characters of a name: a longer one would be mapped cut, under a
    // name the host doesn't have, so it is refused like a malformed one.
    if (name.size() <= kMaxInitiatorNameChars && MatchesIqnOrEui(name)) return true;
    std::string shown(name.substr(0, 256));
    DebugTrace("error: validate_iqn: \"%s\" does not match iqn format\n", shown.c_str());
    return false;
}

UnmaskForm FormOfUnmaskingList(std::string_view list) {
    if (list.empty()) return UnmaskForm::kNone;
    if (list == "*") return UnmaskForm::kAll;
    return UnmaskForm::kNamed;
}

bool ParseUnmaskingList(std::string_view list, bool validate, std::vector<std::string>* names) {
    names->clear();
    if (FormOfUnmaskingList(list) != UnmaskForm::kNamed) return true;
    size_t pos = 0;
    while (pos < list.size()) {
        size_t semi = list.find(';', pos);
        size_t end = semi == std::string_view::npos ? list.size() : semi;
        std::string_view name = list.substr(pos, end - pos);
        if (std::find(names->begin(), names->end(), name) == names->end()) {
            if (validate && !validate_iqn(name)) return false;
            names->emplace_back(name);
        }
        if (semi == std::string_view::npos) break;
        pos = semi + 1;
    }
    return true;
}

int32_t FirstFreeUnitNumber(const std::vector<uint32_t>& used, uint32_t first, uint32_t limit) {
    for (uint32_t n = first; n < limit; ++n)
        if (std::find(used.begin(), used.end(), n) == used.end()) return static_cast<int32_t>(n);
    return -1;
}

void GetExistLunList(uint32_t handle, std::vector<uint32_t>* list) { ExistLuns(handle, list, nullptr); }

void GetExistLunList4WWN(uint32_t handle, std::vector<uint32_t>* list, const uint8_t* wwn) {
    ExistLuns(handle, list, wwn);
}

int32_t GetNewUnitNum(const CLun& lun) {
    return FirstFreeUnitNumber(UsedNumbers(lun, nullptr), StartingLUN.load(), UnitLimit(lun));
}

int32_t GetNewUnitNum4WWN(const CLun& lun, const uint8_t* wwn) {
    return FirstFreeUnitNumber(UsedNumbers(lun, wwn), StartingLUN.load(), UnitLimit(lun));
}

HRESULT CLun::SetMask(LPWSTR pwszUnmaskingList) try {
    if (pwszUnmaskingList && WStrLen(pwszUnmaskingList) > 256) {
        std::u16string all(pwszUnmaskingList, WStrLen(pwszUnmaskingList));
        DebugTrace("CLun::SetMask(\n");
        for (size_t at = 0; at < all.size(); at += 256) {
            std::u16string piece = all.substr(at, 256);
            DebugTrace("%S\n", piece.c_str());
        }
        DebugTrace(")\n");
    } else {
        DebugTrace("CLun::SetMask(\"%S\")\n", pwszUnmaskingList ? pwszUnmaskingList : u"");
    }
    if (!CanOperate()) {
        DebugTrace("OOP!!! CLun::SetMask() CanOperate() return VDS_E_OBJECT_STATUS_FAILED, line %d\n", __LINE__);
        return VDS_E_OBJECT_STATUS_FAILED;
    }
    if (!pwszUnmaskingList) {
        DebugTrace("OOP!!! CLun::SetMask() pwszUnmaskingList == NULL, line %d\n", __LINE__);
        return E_POINTER;
    }
    if (m_isDummy) {
        DebugTrace("CLun::SetMask(), it is a dummy volume, cann't setMask, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    if (m_specialType == TROV_PART_BACKING_STORE) {
        DebugTrace("CLun::SetMask(), it is a backing store volume, cann't setMask, line %d\n", __LINE__);
        return VDS_E_NOT_SUPPORTED;
    }
    CLockGuard lock("CLun::SetMask", hNotificationMutex);
    return SetMaskLocked(WideToUtf8(pwszUnmaskingList));
}
TROV_CATCH_OOM

HRESULT CLun::SetMaskLocked(const std::string& newList) {
    if (!m_pController || !m_pSubSystem) return VDS_E_OBJECT_DELETED;
    // Nothing is undone after a failed view command: the stored list may then say what the array
    // no longer holds, so a failure after the first view command asks for a refresh.
    bool sent = false;
    struct StaleOnFailure {
        CLun* lun;
        bool* sent;
        HRESULT hr = S_OK;
        ~StaleOnFailure() {
            if (FAILED(hr) && *sent && lun->m_pProvider) lun->m_pProvider->SetNeedRefresh(true);
        }
    } stale{this, &sent};
    return stale.hr = SetMaskSteps(newList, &sent);
}

HRESULT CLun::SetMaskSteps(const std::string& newList, bool* sent) {
    const std::string oldList = m_prop.pwszUnmaskingList ? WideToUtf8(m_prop.pwszUnmaskingList) : std::string();
    const uint32_t handle = m_pController->Handle();
    const bool ulp = m_pSubSystem->SupportsUlp();
    auto customView = [&](uint32_t unit, bool create, const char* name, bool ulpAccess) {
        *sent = true;
        return Kelvane::create_custom_view(handle, m_partitionSn, unit, create, 1, name, ulpAccess);
    };

    std::vector<std::string> vNew, vOld;
    if (!ParseUnmaskingList(newList, true, &vNew)) return E_INVALIDARG;
    const bool bNamed = FormOfUnmaskingList(newList) == UnmaskForm::kNamed;
    ParseUnmaskingList(oldList, false, &vOld);
    bool bAllOldKept = true;
    for (const std::string& o : vOld)
        if (std::find(vNew.begin(), vNew.end(), o) == vNew.end()) bAllOldKept = false;
    if (bAllOldKept)
        std::erase_if(vNew, [&](const std::string& n) { return std::find(vOld.begin(), vOld.end(), n) != vOld.end(); });
    if (bNamed && vNew.empty()) return S_OK;  // every name is mapped already

    {
        std::unique_ptr<uint8_t[]> buf = NewRecordBuffer();
        if (Kelvane::get_controller_data(handle, buf.get()) != 0) {
            DebugTrace("OOP!!! CLun::SetMask() get_controller_data return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
    }

    if (!oldList.empty()) {
        if (oldList != "*" && !bAllOldKept) {
            for (const std::string& name : vOld) {
                if (customView(m_unitNumber, false, name.c_str(), ulp) != 0) {
                    DebugTrace("OOP!!! CLun::SetMask() create_custom_view return VDS_E_INTERNAL_ERROR, line %d\n",
                               __LINE__);
                    return VDS_E_INTERNAL_ERROR;
                }
            }
        } else if (oldList == "*") {
            if (customView(m_unitNumber, false, nullptr, false) != 0) {
                DebugTrace("OOP!!! CLun::SetMask() create_custom_view return VDS_E_INTERNAL_ERROR, line %d\n",
                           __LINE__);
                return VDS_E_INTERNAL_ERROR;
            }
        }
        if (newList.empty()) {
            StoreUnmaskingList("");
            return S_OK;
        }
    }

    int32_t unit = GetNewUnitNum(*this);
    DebugTrace("CLun::SetMask() Lun will use UnitNum(%d) to setMask\n", unit);
    if (unit == -1 && !bNamed) {
        DebugTrace("OOP!!! CLun::SetMask() : the UnitNum is -1");
        return VDS_E_NOT_SUPPORTED;
    }
    if (newList.find('*') != std::string::npos) {
        if (customView(static_cast<uint32_t>(unit), true, nullptr, ulp) !=
            0) {
            DebugTrace("OOP!!! CLun::SetMask() create_custom_view return VDS_E_INTERNAL_ERROR, line %d\n", __LINE__);
            return VDS_E_INTERNAL_ERROR;
        }
        StoreUnmaskingList("*");
    } else if (!newList.empty()) {
        auto view = std::make_unique<PartitionView>();
        // A partition uses one number for all its custom views.
        if (Kelvane::get_part_view(handle, m_partitionSn, view.get()) == 0 && view->viewCount() > 0)
            unit = view->viewLuns[0].lun;
        std::vector<std::string> mapped;
        for (const std::string& name : vNew) {
            if (Kelvane::get_part_view(handle, m_partitionSn, view.get()) == 0 && view->numViews >= 128) {
                DebugTrace("OOP!!! CLun::SetMask() the partition has 128 views already, return VDS_E_NOT_SUPPORTED, "
                           "line %d\n",
                           __LINE__);
                return VDS_E_NOT_SUPPORTED;
            }
            if (unit == -1) {
                uint8_t wwn[8];
                WwnFromName(name, wwn);
                unit = GetNewUnitNum4WWN(*this, wwn);
                if (unit == -1) {
                    DebugTrace("OOP!!! CLun::SetMask() : the UnitNum is -1");
                    return VDS_E_NOT_SUPPORTED;
                }
            }
            if (customView(static_cast<uint32_t>(unit), true, name.c_str(),
                                            ulp) != 0) {
                DebugTrace("OOP!!! CLun::SetMask() create_custom_view return VDS_E_INTERNAL_ERROR, line %d\n",
                           __LINE__);
                return VDS_E_INTERNAL_ERROR;
            }
            mapped.push_back(name);
        }
        std::string result = Join(mapped);
        if (!oldList.empty() && oldList != "*" && bAllOldKept && !result.empty()) result = oldList + ";" + result;
        StoreUnmaskingList(result);
    }
    requestWmiUpdate();
    DebugTrace("CLun::SetMask() out\n");
    return S_OK;
}

void CLun::StoreUnmaskingList(const std::string& list) {
    std::u16string wide = Utf8ToWide(list);
    LPWSTR block = NewObjectBlock(wide.size() + 1);
    std::memcpy(block, wide.c_str(), (wide.size() + 1) * sizeof(WCHAR));
    FreeObjectString(m_prop.pwszUnmaskingList);
    m_prop.pwszUnmaskingList = block;
}
