// Plain base of all object classes of the tree: the object's kind, and the key by which a query
// orders objects of that kind in an enumeration.
#pragma once

#include <cstdint>
#include <string>

#include "platform/vds.h"

class CVdsBase {
public:
    // Enumerations order objects of one kind by (k1, k2, name), rising; each class fills the key
    // from the fields its kind is ordered by (a falling field is stored negated).
    struct SortKey {
        int64_t k1 = 0;
        int64_t k2 = 0;
        std::u16string name;
    };

    explicit CVdsBase(VDS_OBJECT_TYPE type = VDS_OT_UNKNOWN) : m_type(type) {}
    virtual ~CVdsBase() = default;
    VDS_OBJECT_TYPE ObjectType() const { return m_type; }
    virtual SortKey GetSortKey() const { return {}; }

protected:
    VDS_OBJECT_TYPE m_type;
};
