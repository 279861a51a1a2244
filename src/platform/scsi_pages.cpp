#include "platform/scsi_pages.h"

#include <algorithm>
#include <cstring>

namespace {

std::string Field(const uint8_t* p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n && p[i]; ++i) s.push_back(p[i] >= 32 && p[i] < 127 ? static_cast<char>(p[i]) : '.');
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

// Whether a designator's length suits its type.
bool LengthSuits(const Designator& d) {
    size_t len = d.bytes.size();
    switch (d.type) {
        case 2: return len == 8 || len == 12 || len == 16;
        case 3: {
            if (len == 0) return false;
            uint8_t naa = d.bytes[0] >> 4;
            if (naa == 6) return len == 16;
            if (naa == 2 || naa == 3 || naa == 5) return len == 8;
            return false;
        }
        case 4:
        case 5:
        case 6: return len == 4;
        case 7: return len == 16;
        default: return len > 0;
    }
}

}  // namespace

bool ParseStandardInquiry(const uint8_t* data, size_t n, StandardInquiry* out) {
    if (!data || n < 36) return false;
    out->peripheralType = data[0] & 0x1F;
    out->qualifier = data[0] >> 5;
    out->version = data[2];
    out->tpgs = (data[5] >> 4) & 3;
    out->commandQueueing = (data[7] & 0x02) != 0;
    out->vendor = Field(data + 8, 8);
    out->product = Field(data + 16, 16);
    out->revision = Field(data + 32, 4);
    return true;
}

bool ParseUnitSerialPage(const uint8_t* data, size_t n, std::string* serial) {
    serial->clear();
    if (!data || n < 4 || data[1] != 0x80) return false;
    size_t len = std::min<size_t>(static_cast<size_t>(data[2]) << 8 | data[3], n - 4);
    *serial = Field(data + 4, len);
    // Leading blanks pad a short serial to the right of its field.
    size_t first = serial->find_first_not_of(' ');
    serial->erase(0, first == std::string::npos ? serial->size() : first);
    return true;
}

DeviceIdStatus ParseDeviceIdPage(const uint8_t* data, size_t n, std::vector<Designator>* out) {
    out->clear();
    if (!data || n < 4) return DeviceIdStatus::Short;
    if (data[1] != 0x83) return DeviceIdStatus::WrongPage;
    size_t pageEnd = 4 + (static_cast<size_t>(data[2]) << 8 | data[3]);
    DeviceIdStatus status = DeviceIdStatus::Ok;
    size_t end = pageEnd;
    if (pageEnd > n) {
        end = n;
        status = DeviceIdStatus::Truncated;
    }
    size_t at = 4;
    while (at + 4 <= end && out->size() < kMaxDesignators) {
        size_t len = data[at + 3];
        if (at + 4 + len > end) {
            // Cut off by the end of what came, or claiming more than the page holds.
            return at + 4 + len > pageEnd ? DeviceIdStatus::Malformed : DeviceIdStatus::Truncated;
        }
        Designator d;
        d.protocol = data[at] >> 4;
        d.codeSet = data[at] & 0x0F;
        d.piv = (data[at + 1] & 0x80) != 0;
        d.association = (data[at + 1] >> 4) & 3;
        d.type = data[at + 1] & 0x0F;
        d.offset = at + 4;
        d.bytes.assign(data + at + 4, data + at + 4 + len);
        if (LengthSuits(d)) out->push_back(std::move(d));
        at += 4 + len;
    }
    if (status == DeviceIdStatus::Ok && at < end && at + 4 > end) return DeviceIdStatus::Malformed;
    return status;
}

bool FindNaa16(const std::vector<Designator>& ds, uint8_t out[16]) {
    for (const Designator& d : ds) {
        if (d.type == 3 && d.association == 0 && d.bytes.size() == 16) {
            std::memcpy(out, d.bytes.data(), 16);
            return true;
        }
    }
    return false;
}

namespace {
bool FindFourByte(const std::vector<Designator>& ds, uint8_t type, uint32_t* id) {
    for (const Designator& d : ds) {
        if (d.type == type && d.bytes.size() == 4) {
            *id = static_cast<uint32_t>(d.bytes[2]) << 8 | d.bytes[3];
            return true;
        }
    }
    return false;
}
}  // namespace

bool FindRelativeTargetPort(const std::vector<Designator>& ds, uint32_t* id) { return FindFourByte(ds, 4, id); }
bool FindTargetPortGroup(const std::vector<Designator>& ds, uint32_t* id) { return FindFourByte(ds, 5, id); }
