// Record encoding of the model. The record definitions the provider reads with are not in the
// tree yet; until they are, the records go out zeroed with only their sizes right, which the
// session and fault paths need and nothing else relies on.
#include "sim/encode.h"

#include <cstring>

namespace trovsim {

void Encoder::Clear() {
    ctrlCache_.clear();
    unifiedCache_.clear();
}
Bytes Encoder::ControllerData(CtrlRef c) {
    Entry& e = ctrlCache_[c.c()->handle];
    if (!e.bytes || e.version != c.sub->version) {
        e.bytes = std::make_shared<std::vector<uint8_t>>(ControllerDataSize());
        e.version = c.sub->version;
        ++encodings_;
    }
    return e.bytes;
}
Bytes Encoder::UnifiedData(CtrlRef c) {
    Entry& e = unifiedCache_[c.c()->handle];
    if (!e.bytes || e.version != c.sub->version) {
        e.bytes = std::make_shared<std::vector<uint8_t>>(UnifiedSize());
        e.version = c.sub->version;
        ++encodings_;
    }
    return e.bytes;
}
void Encoder::ArrayRecord(Subsystem&, const Vdisk&, uint8_t* out) { std::memset(out, 0, ArraySize()); }
void Encoder::PartitionRecord(Subsystem&, const Vdisk&, const Partition&, uint8_t* out) { std::memset(out, 0, PartitionSize()); }
void Encoder::ViewRecord(const Partition&, uint8_t* out) { std::memset(out, 0, ViewSize()); }
void Encoder::EventRecordAt(const EventRecord&, uint8_t* out) { std::memset(out, 0, EventSize()); }
void Encoder::KnownHostsRecord(const Subsystem&, uint8_t* out) { std::memset(out, 0, KnownHostsSize()); }
void Encoder::AdapterRecord(uint8_t* out) { std::memset(out, 0, AdapterListSize()); }
std::string Encoder::SystemNameOf(const uint8_t*) { return std::string(); }
size_t Encoder::ControllerDataSize() { return 2520884; }
size_t Encoder::UnifiedSize() { return 55732; }
size_t Encoder::ArraySize() { return 1604; }
size_t Encoder::PartitionSize() { return 568; }
size_t Encoder::ViewSize() { return 37408; }
size_t Encoder::EventSize() { return 412; }
size_t Encoder::KnownHostsSize() { return 63560; }
size_t Encoder::AdapterListSize() { return 58116; }
size_t Encoder::AdvNetSize() { return 2060; }

}  // namespace trovsim
