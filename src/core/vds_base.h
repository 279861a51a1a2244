// Plain base of all object classes of the tree: the object's kind.
#pragma once

#include "platform/vds.h"

class CVdsBase {
public:
    explicit CVdsBase(VDS_OBJECT_TYPE type = VDS_OT_UNKNOWN) : m_type(type) {}
    virtual ~CVdsBase() = default;
    VDS_OBJECT_TYPE ObjectType() const { return m_type; }

protected:
    VDS_OBJECT_TYPE m_type;
};
