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
    // The 32-byte serial of the array behind the object (a LUN's); null for other kinds.
    virtual const uint8_t* ArraySerial() const { return nullptr; }
    // The controllerId of the controller that owns the object (1 = A, 0 = B); -1 when none.
    virtual int OwnerId() const { return -1; }
    // Lets go of every reference the object holds (its children and parents), so that the end
    // of the provider leaves no cycle of references behind.
    virtual void TearDown() {}
    // A LUN's id, its share on one member drive and its size; false for other kinds.
    virtual bool DriveShare(VDS_OBJECT_ID* /*id*/, uint64_t* /*usedSize*/, uint64_t* /*lunSize*/) { return false; }

protected:
    VDS_OBJECT_TYPE m_type;
};
