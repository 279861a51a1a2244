// ScsiCmd: opens one SCSI device and runs one CDB on it at a time, with the retry, sense and
// residual rules of the host scan.
//
// A device is named by its node ("/dev/sdb", under the host root) or in the port form
// "\\.\Scsi<port>:Bus<path>:ID<target>:LUN<lun>", where the port is the SCSI host host<port>;
// on Linux every unit has a node of its own, so the port form opens the node of that address.
// The last device's address (port, path, target, LUN), the long-form flag, the trace count and
// the retries switch are process-wide, as they have always been: ScsiCmd is not for two threads
// at once (its one caller holds the notification mutex).
//
// Trace lines (only while the trace count is non-zero) and waitUntilReady's lines go to the
// host's console. Nothing here changes a device: the scan only reads.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/platform.h"

struct ScsiAddressValues {
    uint32_t portNumber = 0, pathId = 0, targetId = 0, lun = 0;
};

class ScsiCmd {
public:
    static constexpr uint32_t kDefaultTimeout = 60;  // seconds
    static constexpr uint32_t kRetryCount = 10;      // taken only with the retries switch on
    static constexpr uint32_t kSenseSize = 24;

    // Opens the device; an invalid object when that fails (execute() then returns false).
    explicit ScsiCmd(const char* deviceName);
    // On a device opened elsewhere; never closes it.
    explicit ScsiCmd(PlatformDevice* handle);
    ~ScsiCmd();
    ScsiCmd(const ScsiCmd&) = delete;
    ScsiCmd& operator=(const ScsiCmd&) = delete;

    bool valid() const { return handle_ != nullptr; }
    // 0 restores the default; each returns the old value.
    uint32_t setTimeout(uint32_t seconds);
    uint32_t setRetries(uint32_t count);
    // Copies as many bytes as the opcode's group takes. REQUEST SENSE with no data buffer set
    // reads into the object's own sense block.
    void setCdb(const uint8_t* cdb);
    // The caller's buffer for data coming from the device.
    void setData(void* data, uint32_t length);
    bool execute();
    // execute(), and with a non-zero trace count a dump of the CDB and the data.
    bool executeTraced();
    // Bytes moved by the last command, never more than asked for.
    uint32_t transferred() const;
    // Valid bytes of the object's sense block.
    uint32_t senseLength() const;
    // Sends MODE SENSE(6) until the device answers or the time-out passes.
    bool waitUntilReady(bool strict);

    uint8_t scsiStatus() const { return scsiStatus_; }
    uint32_t residual() const { return residual_; }
    const uint8_t* sense() const { return sense_; }
    uint32_t retries() const { return retries_; }
    uint32_t timeout() const { return timeout_; }
    const char* deviceName() const { return deviceName_; }

    // CDB length of an opcode by its group (the top three bits): 6, 10, 10, 0, 16, 12, 0, 0.
    static uint32_t CdbLength(uint8_t opcode);

    // --- Process-wide state ---
    static ScsiAddressValues LastAddress();
    static bool LastNameWasLongForm();
    // The port name the last long-form open built ("\\.\Scsi2:").
    static const char* PortOpenName();
    static void SetTraceCount(int count);
    static int TraceCount();
    // The retries switch; nothing in the provider turns it on.
    static void SetRetriesSwitch(bool on);
    static void ResetForTest();

private:
    void open(const char* name);

    std::unique_ptr<PlatformDevice> owned_;
    PlatformDevice* handle_ = nullptr;
    bool owner_ = false;
    bool dataIn_ = false;
    uint32_t timeout_ = kDefaultTimeout;
    uint8_t cdb_[16] = {};
    void* data_ = nullptr;
    uint32_t dataLength_ = 0;
    uint8_t scsiStatus_ = 0;
    uint32_t residual_ = 0;
    uint8_t sense_[kSenseSize] = {};
    uint8_t senseResidual_ = 0;
    uint32_t retries_ = 0;
    char deviceName_[260] = {};
};

// Names for trace output. The opcode and additional-sense rows are one table walked in order,
// the first row with the code winning; "<unknown>" when no row has it.
const char* ScsiOpcodeName(uint32_t opcode);
const char* ScsiAdditionalSenseName(uint8_t asc, uint8_t ascq);
const char* ScsiSenseKeyName(uint8_t key);
