// A small iSCSI initiator for the emulator's data-path tests: it logs in, sends SCSI commands with
// their data and reads the answers byte for byte, so that the tests can look at exactly what a host
// would receive (the inquiry pages, the capacity, the blocks written).
//
// One connection, one command at a time, no digests; CHAP (MD5) when SetChap gave an account,
// mutual when it also gave the secret the target must prove, else no authentication. Every wait
// is bounded (real time: these tests talk to a real target daemon); a peer that answers nonsense
// makes a call fail, never hang.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace iscsitest {

struct ScsiResult {
    bool ok = false;        // a SCSI Response came (whatever its status)
    uint8_t status = 0xFF;  // SCSI status (0 good, 2 check condition)
    std::vector<uint8_t> data;  // the data in; with status 2, the sense segment
    std::string error;      // why !ok
};

class Initiator {
public:
    ~Initiator() { Close(); }

    // Connects to ADDR:PORT and logs in to `target` (a normal session) or, with `target` empty,
    // opens a discovery session. False with *error, which holds the login status
    // ("status 0x0201" and so on) when the target refused.
    bool Login(const std::string& address, uint16_t port, const std::string& initiatorName, const std::string& target,
               std::string* error);
    void Close();
    // The account of the next logins: CHAP_N and the secret; an empty user logs in without. With
    // `targetSecret` the initiator challenges the target too, and a wrong answer fails the login.
    void SetChap(const std::string& user, const std::string& secret, const std::string& targetSecret = "") {
        chapUser_ = user;
        chapSecret_ = secret;
        chapTargetSecret_ = targetSecret;
    }
    // The CHAP_N the target answered a mutual challenge with (its account's user).
    const std::string& targetChapName() const { return targetChapName_; }

    // SendTargets=All in a discovery session: the key=value pairs of the answer.
    std::vector<std::string> SendTargets(std::string* error);

    ScsiResult Command(uint32_t lun, const std::vector<uint8_t>& cdb, uint32_t dataIn,
                       const std::vector<uint8_t>& dataOut = {});
    ScsiResult Inquiry(uint32_t lun, int page, uint16_t length);  // page < 0: standard inquiry
    // READ CAPACITY(16): blocks and the block size; false when the command failed.
    bool Capacity(uint32_t lun, uint64_t* blocks, uint32_t* blockSize);
    bool Write(uint32_t lun, uint64_t lba, const std::vector<uint8_t>& blocks);
    bool Read(uint32_t lun, uint64_t lba, uint32_t count, std::vector<uint8_t>* out);
    // REPORT LUNS on LUN 0.
    bool ReportLuns(std::vector<uint32_t>* luns);

private:
    ScsiResult CommandOnce(uint32_t lun, const std::vector<uint8_t>& cdb, uint32_t dataIn,
                           const std::vector<uint8_t>& dataOut);
    bool SendPdu(const std::vector<uint8_t>& bhs, const std::vector<uint8_t>& data);
    bool RecvPdu(std::vector<uint8_t>* bhs, std::vector<uint8_t>* data, std::string* error);
    bool LoginStep(uint8_t csg, uint8_t nsg, const std::vector<std::string>& keys, std::vector<std::string>* answer,
                   uint8_t* reachedNsg, bool* transit, std::string* error, bool wantTransit = true);
    // The security stage with CHAP: the method, the challenge, the answer.
    bool ChapStage(const std::vector<std::string>& keys, std::string* error);

    int fd_ = -1;
    uint32_t itt_ = 1, cmdSn_ = 1, expStatSn_ = 0;
    uint16_t tsih_ = 0;
    uint32_t maxSend_ = 8192;  // the target's MaxRecvDataSegmentLength
    std::string chapUser_, chapSecret_, chapTargetSecret_, targetChapName_;
};

// The free TCP port the kernel gives on 127.0.0.1 now (0 when none).
uint16_t FreePort();

}  // namespace iscsitest
