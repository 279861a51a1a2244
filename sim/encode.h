// The model as the array's records, in wire order, built with the same record definitions and
// converters that the provider reads them with.
//
// The two large records (ControllerData per controller, UnifiedControllerData per subsystem)
// are kept encoded and renewed only when their subsystem's version has moved, so that serving
// them costs about the sending of their bytes. A cached record is handed out as a shared buffer
// that a later renewal never touches.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/model.h"

namespace trovsim {

using Bytes = std::shared_ptr<const std::vector<uint8_t>>;

class Encoder {
public:
    explicit Encoder(Model& m) : m_(m) {}

    // Drops every cached record (after the model was replaced).
    void Clear();
    // Records encoded afresh so far.
    uint64_t encodings() const { return encodings_.load(); }

    // Whole records, wire order, cached.
    Bytes ControllerData(CtrlRef c);  // the ControllerData record
    Bytes UnifiedData(CtrlRef c);     // the UnifiedControllerData record

    // Single records written at `out`, wire order.
    void ArrayRecord(Subsystem& s, const Vdisk& v, uint8_t* out);
    void PartitionRecord(Subsystem& s, const Vdisk& v, const Partition& p, uint8_t* out);
    void ViewRecord(const Partition& p, uint8_t* out);
    void EventRecordAt(const EventRecord& e, uint8_t* out);
    void KnownHostsRecord(const Subsystem& s, uint8_t* out);
    void AdapterRecord(uint8_t* out);
    // The system name of an advNet record as set_adv_net carries it (wire order).
    std::string SystemNameOf(const uint8_t* advNetWire);

    // Sizes of the records, as the record definitions give them.
    static size_t ControllerDataSize();
    static size_t UnifiedSize();
    static size_t ArraySize();
    static size_t PartitionSize();
    static size_t ViewSize();
    static size_t EventSize();
    static size_t KnownHostsSize();
    static size_t AdapterListSize();
    static size_t AdvNetSize();

private:
    struct Entry {
        uint64_t version = 0;
        Bytes bytes;
    };
    Model& m_;
    std::map<uint32_t, Entry> ctrlCache_;     // by controller handle
    std::map<uint32_t, Entry> unifiedCache_;  // by controller handle
    std::atomic<uint64_t> encodings_{0};
};

}  // namespace trovsim
