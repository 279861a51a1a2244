// Fuzz target for what a device answers: the standard inquiry, pages 0x80 and 0x83, and the
// partition-table values that the layout probe takes. The first byte picks the parser.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/layout.h"
#include "platform/scsi_pages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t* p = data + 1;
    const size_t n = size - 1;
    switch (data[0] % 4) {
    case 0: {
        StandardInquiry inq;
        ParseStandardInquiry(p, n, &inq);
        break;
    }
    case 1: {
        std::string serial;
        ParseUnitSerialPage(p, n, &serial);
        break;
    }
    case 2: {
        std::vector<Designator> d;
        ParseDeviceIdPage(p, n, &d);
        uint8_t naa[16];
        uint32_t id;
        FindNaa16(d, naa);
        FindRelativeTargetPort(d, &id);
        FindTargetPortGroup(d, &id);
        break;
    }
    default: {
        // Two texts, as libblkid hands them over: the table type and its id.
        std::string text(reinterpret_cast<const char*>(p), n);
        size_t cut = text.find('\0');
        std::string type = text.substr(0, cut), uuid = cut == std::string::npos ? "" : text.substr(cut + 1);
        DiskLayout layout;
        TakeLayoutValues(type.c_str(), uuid.c_str(), &layout);
        break;
    }
    }
    return 0;
}
