#include "iscsi/initiator.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace iscsitest {

namespace {

constexpr int kWaitMs = 5000;           // for any one piece of an answer
constexpr uint32_t kMaxData = 1u << 20;  // a data segment longer than this is nonsense here

uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
void Put32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}
void Put64(uint8_t* p, uint64_t v) {
    Put32(p, uint32_t(v >> 32));
    Put32(p + 4, uint32_t(v));
}

std::vector<uint8_t> Text(const std::vector<std::string>& keys) {
    std::vector<uint8_t> out;
    for (const std::string& k : keys) {
        out.insert(out.end(), k.begin(), k.end());
        out.push_back(0);
    }
    return out;
}

std::vector<std::string> Pairs(const std::vector<uint8_t>& d) {
    std::vector<std::string> out;
    std::string cur;
    for (uint8_t c : d) {
        if (c == 0) {
            if (!cur.empty()) out.push_back(cur);
            cur.clear();
        } else {
            cur += static_cast<char>(c);
        }
    }
    if (!cur.empty()) out.push_back(cur);
    return out;
}

void PutLun(uint8_t* p, uint32_t lun) {
    // Single-level LUN: peripheral addressing below 256, flat above.
    if (lun < 256) {
        p[1] = static_cast<uint8_t>(lun);
    } else {
        p[0] = static_cast<uint8_t>(0x40 | ((lun >> 8) & 0x3F));
        p[1] = static_cast<uint8_t>(lun);
    }
}

}  // namespace

uint16_t FreePort() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    uint16_t port = 0;
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    if (fd >= 0) ::close(fd);
    return port;
}

void Initiator::Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool Initiator::SendPdu(const std::vector<uint8_t>& bhsIn, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> pdu = bhsIn;
    pdu.resize(48);
    uint32_t n = static_cast<uint32_t>(data.size());
    pdu[5] = uint8_t(n >> 16);
    pdu[6] = uint8_t(n >> 8);
    pdu[7] = uint8_t(n);
    pdu.insert(pdu.end(), data.begin(), data.end());
    pdu.resize((pdu.size() + 3) & ~size_t(3), 0);
    size_t sent = 0;
    while (sent < pdu.size()) {
        pollfd p{fd_, POLLOUT, 0};
        if (::poll(&p, 1, kWaitMs) != 1) return false;
        ssize_t w = ::send(fd_, pdu.data() + sent, pdu.size() - sent, MSG_NOSIGNAL);
        if (w <= 0) return false;
        sent += static_cast<size_t>(w);
    }
    return true;
}

bool Initiator::RecvPdu(std::vector<uint8_t>* bhs, std::vector<uint8_t>* data, std::string* error) {
    auto readAll = [&](uint8_t* p, size_t n) {
        size_t got = 0;
        while (got < n) {
            pollfd q{fd_, POLLIN, 0};
            if (::poll(&q, 1, kWaitMs) != 1) {
                *error = "no answer within " + std::to_string(kWaitMs) + " ms";
                return false;
            }
            ssize_t r = ::recv(fd_, p + got, n - got, 0);
            if (r <= 0) {
                *error = "the target closed the connection";
                return false;
            }
            got += static_cast<size_t>(r);
        }
        return true;
    };
    bhs->assign(48, 0);
    if (!readAll(bhs->data(), 48)) return false;
    size_t ahs = size_t((*bhs)[4]) * 4;
    uint32_t dsl = uint32_t((*bhs)[5]) << 16 | uint32_t((*bhs)[6]) << 8 | (*bhs)[7];
    if (dsl > kMaxData) {
        *error = "a data segment of " + std::to_string(dsl) + " bytes";
        return false;
    }
    std::vector<uint8_t> rest(ahs + ((dsl + 3) & ~3u));
    if (!rest.empty() && !readAll(rest.data(), rest.size())) return false;
    data->assign(rest.begin() + static_cast<long>(ahs), rest.begin() + static_cast<long>(ahs + dsl));
    return true;
}

bool Initiator::LoginStep(uint8_t csg, uint8_t nsg, const std::vector<std::string>& keys,
                          std::vector<std::string>* answer, uint8_t* reachedNsg, bool* transit, std::string* error,
                          bool wantTransit) {
    std::vector<uint8_t> bhs(48, 0);
    bhs[0] = 0x43;  // Login Request, immediate
    bhs[1] = static_cast<uint8_t>((wantTransit ? 0x80 : 0) | csg << 2 | nsg);
    static const uint8_t isid[6] = {0x80, 0x54, 0x52, 0x4F, 0x56, 0x01};
    std::memcpy(&bhs[8], isid, 6);
    bhs[14] = uint8_t(tsih_ >> 8);
    bhs[15] = uint8_t(tsih_);
    Put32(&bhs[16], itt_);
    Put32(&bhs[24], cmdSn_);
    Put32(&bhs[28], expStatSn_);
    if (!SendPdu(bhs, Text(keys))) {
        *error = "cannot send the login";
        return false;
    }
    std::vector<uint8_t> rb, rd;
    if (!RecvPdu(&rb, &rd, error)) return false;
    if ((rb[0] & 0x3F) != 0x23) {
        *error = "an answer of opcode " + std::to_string(rb[0] & 0x3F) + " to the login";
        return false;
    }
    if (rb[36] != 0 || rb[37] != 0) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "login refused: status 0x%02x%02x", rb[36], rb[37]);
        *error = buf;
        return false;
    }
    tsih_ = static_cast<uint16_t>(rb[14] << 8 | rb[15]);
    expStatSn_ = Be32(&rb[24]) + 1;
    cmdSn_ = Be32(&rb[28]);  // ExpCmdSN
    *transit = (rb[1] & 0x80) != 0;
    *reachedNsg = rb[1] & 3;
    *answer = Pairs(rd);
    return true;
}

namespace {

std::string ValueOf(const std::vector<std::string>& pairs, const std::string& key) {
    for (const std::string& kv : pairs)
        if (kv.size() > key.size() && kv.compare(0, key.size(), key) == 0 && kv[key.size()] == '=')
            return kv.substr(key.size() + 1);
    return "";
}

// "0x..." as bytes; false for anything else (a base64 challenge is not asked for).
bool FromHex(const std::string& text, std::vector<uint8_t>* out) {
    if (text.size() < 4 || (text[0] != '0') || (text[1] != 'x' && text[1] != 'X') || text.size() % 2 != 0) return false;
    out->clear();
    for (size_t i = 2; i < text.size(); i += 2) {
        char pair[3] = {text[i], text[i + 1], 0};
        char* end = nullptr;
        unsigned long v = std::strtoul(pair, &end, 16);
        if (end != pair + 2) return false;
        out->push_back(static_cast<uint8_t>(v));
    }
    return out->size() <= 1024;
}

// The answer to a challenge: MD5 over the identifier byte, the secret and the challenge, as
// "0x" and lower-case hex; empty when MD5 fails.
std::string ChapAnswer(uint8_t id, const std::string& secret, const std::vector<uint8_t>& challenge) {
    std::vector<uint8_t> in{id};
    in.insert(in.end(), secret.begin(), secret.end());
    in.insert(in.end(), challenge.begin(), challenge.end());
    uint8_t md[EVP_MAX_MD_SIZE];
    unsigned int mdLen = 0;
    if (EVP_Digest(in.data(), in.size(), md, &mdLen, EVP_md5(), nullptr) != 1) return "";
    static const char kDigits[] = "0123456789abcdef";
    std::string out = "0x";
    for (unsigned int i = 0; i < mdLen; ++i) out += {kDigits[md[i] >> 4], kDigits[md[i] & 15]};
    return out;
}

}  // namespace

bool Initiator::ChapStage(const std::vector<std::string>& keys, std::string* error) {
    std::vector<std::string> answer;
    uint8_t nsg = 0;
    bool transit = false;
    if (!LoginStep(0, 1, keys, &answer, &nsg, &transit, error, false)) return false;
    if (ValueOf(answer, "AuthMethod") != "CHAP") {
        *error = "the target did not take CHAP";
        return false;
    }
    if (!LoginStep(0, 1, {"CHAP_A=5"}, &answer, &nsg, &transit, error, false)) return false;
    std::vector<uint8_t> challenge;
    std::string id = ValueOf(answer, "CHAP_I");
    if (ValueOf(answer, "CHAP_A") != "5" || id.empty() || !FromHex(ValueOf(answer, "CHAP_C"), &challenge)) {
        *error = "no MD5 challenge from the target";
        return false;
    }
    std::vector<std::string> keys2{"CHAP_N=" + chapUser_,
                                   "CHAP_R=" + ChapAnswer(static_cast<uint8_t>(std::strtoul(id.c_str(), nullptr, 10)),
                                                          chapSecret_, challenge)};
    // Mutual: our own identifier and challenge, which the target answers with its secret.
    const uint8_t ourId = 0x5A;
    std::vector<uint8_t> ours(16);
    for (size_t i = 0; i < ours.size(); ++i) ours[i] = static_cast<uint8_t>(std::rand());
    if (!chapTargetSecret_.empty()) {
        keys2.push_back("CHAP_I=" + std::to_string(ourId));
        std::string c = "CHAP_C=0x";
        static const char kDigits[] = "0123456789abcdef";
        for (uint8_t b : ours) c += {kDigits[b >> 4], kDigits[b & 15]};
        keys2.push_back(c);
    }
    if (!LoginStep(0, 1, keys2, &answer, &nsg, &transit, error)) return false;
    if (!chapTargetSecret_.empty()) {
        targetChapName_ = ValueOf(answer, "CHAP_N");
        std::string got = ValueOf(answer, "CHAP_R");
        for (char& ch : got) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
        if (got.empty() || got != ChapAnswer(ourId, chapTargetSecret_, ours)) {
            *error = "the target's CHAP answer is wrong (CHAP_N=" + targetChapName_ + ", CHAP_R=" +
                     ValueOf(answer, "CHAP_R") + ")";
            return false;
        }
    }
    if (!transit || nsg != 1) {
        *error = "the target did not end the security stage after the CHAP answer";
        return false;
    }
    return true;
}

bool Initiator::Login(const std::string& address, uint16_t port, const std::string& initiatorName,
                      const std::string& target, std::string* error) {
    Close();
    std::string ignored;
    if (!error) error = &ignored;
    fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    if (::inet_pton(AF_INET, address.c_str(), &a.sin_addr) != 1) {
        *error = "not an address: " + address;
        return false;
    }
    if (::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        pollfd p{fd_, POLLOUT, 0};
        int err = 0;
        socklen_t el = sizeof err;
        if (errno != EINPROGRESS || ::poll(&p, 1, kWaitMs) != 1 ||
            ::getsockopt(fd_, SOL_SOCKET, SO_ERROR, &err, &el) != 0 || err != 0) {
            *error = "cannot connect to " + address + ":" + std::to_string(port);
            Close();
            return false;
        }
    }
    int one = 1;
    ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    itt_ = 1;
    cmdSn_ = 1;
    expStatSn_ = 0;
    tsih_ = 0;

    std::vector<std::string> keys{"InitiatorName=" + initiatorName,
                                  target.empty() ? "SessionType=Discovery" : "SessionType=Normal",
                                  chapUser_.empty() ? "AuthMethod=None" : "AuthMethod=CHAP"};
    if (!target.empty()) keys.push_back("TargetName=" + target);
    std::vector<std::string> answer;
    uint8_t nsg = 0;
    bool transit = false;
    if (!chapUser_.empty()) {
        if (!ChapStage(keys, error)) {
            Close();
            return false;
        }
        transit = true;
        nsg = 1;
    }
    // Security stage until the target moves on; then the operational stage to full feature.
    for (int i = 0; i < 4 && !(transit && nsg == 1); ++i) {
        if (!LoginStep(0, 1, i == 0 ? keys : std::vector<std::string>{}, &answer, &nsg, &transit, error)) {
            Close();
            return false;
        }
    }
    std::vector<std::string> op{"HeaderDigest=None", "DataDigest=None", "MaxRecvDataSegmentLength=262144",
                                "ImmediateData=Yes", "InitialR2T=Yes"};
    if (!target.empty()) op.push_back("MaxBurstLength=262144");
    for (int i = 0; i < 4 && !(transit && nsg == 3); ++i) {
        if (!LoginStep(1, 3, i == 0 ? op : std::vector<std::string>{}, &answer, &nsg, &transit, error)) {
            Close();
            return false;
        }
        for (const std::string& kv : answer)
            if (kv.rfind("MaxRecvDataSegmentLength=", 0) == 0) maxSend_ = static_cast<uint32_t>(std::stoul(kv.substr(25)));
    }
    if (!(transit && nsg == 3)) {
        *error = "the login did not reach the full feature phase";
        Close();
        return false;
    }
    return true;
}

std::vector<std::string> Initiator::SendTargets(std::string* error) {
    std::vector<uint8_t> bhs(48, 0);
    bhs[0] = 0x04;
    bhs[1] = 0x80;
    Put32(&bhs[16], ++itt_);
    Put32(&bhs[20], 0xFFFFFFFF);
    Put32(&bhs[24], cmdSn_++);
    Put32(&bhs[28], expStatSn_);
    std::vector<uint8_t> rb, rd;
    if (!SendPdu(bhs, Text({"SendTargets=All"})) || !RecvPdu(&rb, &rd, error)) return {};
    if ((rb[0] & 0x3F) != 0x24) {
        *error = "an answer of opcode " + std::to_string(rb[0] & 0x3F) + " to SendTargets";
        return {};
    }
    expStatSn_ = Be32(&rb[24]) + 1;
    return Pairs(rd);
}

ScsiResult Initiator::Command(uint32_t lun, const std::vector<uint8_t>& cdb, uint32_t dataIn,
                              const std::vector<uint8_t>& dataOut) {
    // A unit attention (new LUNs, a changed capacity) is reported once per session and LUN; a
    // host takes note and sends the command again.
    ScsiResult r;
    for (int attempt = 0; attempt < 4; ++attempt) {
        r = CommandOnce(lun, cdb, dataIn, dataOut);
        if (!(r.ok && r.status == 2 && r.data.size() >= 5 && (r.data[4] & 0x0F) == 6)) break;
    }
    return r;
}

ScsiResult Initiator::CommandOnce(uint32_t lun, const std::vector<uint8_t>& cdb, uint32_t dataIn,
                                  const std::vector<uint8_t>& dataOut) {
    ScsiResult r;
    if (fd_ < 0) {
        r.error = "not logged in";
        return r;
    }
    uint32_t itt = ++itt_;
    std::vector<uint8_t> bhs(48, 0);
    bhs[0] = 0x01;
    bhs[1] = static_cast<uint8_t>(0x80 | (dataIn ? 0x40 : 0) | (dataOut.empty() ? 0 : 0x20) | 1);
    PutLun(&bhs[8], lun);
    Put32(&bhs[16], itt);
    Put32(&bhs[20], dataIn ? dataIn : static_cast<uint32_t>(dataOut.size()));
    Put32(&bhs[24], cmdSn_++);
    Put32(&bhs[28], expStatSn_);
    std::memcpy(&bhs[32], cdb.data(), std::min<size_t>(cdb.size(), 16));
    // Immediate data up to what the target takes in one PDU; the rest when it asks (R2T).
    size_t first = std::min<size_t>(dataOut.size(), maxSend_);
    if (!SendPdu(bhs, std::vector<uint8_t>(dataOut.begin(), dataOut.begin() + static_cast<long>(first)))) {
        r.error = "cannot send the command";
        return r;
    }
    for (int pdus = 0; pdus < 100000; ++pdus) {
        std::vector<uint8_t> rb, rd;
        if (!RecvPdu(&rb, &rd, &r.error)) return r;
        uint8_t op = rb[0] & 0x3F;
        if (op == 0x20) {  // NOP-In: answer a ping that wants one
            if (Be32(&rb[20]) != 0xFFFFFFFF) {
                std::vector<uint8_t> nop(48, 0);
                nop[0] = 0x40;
                nop[1] = 0x80;
                std::memcpy(&nop[8], &rb[8], 8);
                Put32(&nop[16], 0xFFFFFFFF);
                std::memcpy(&nop[20], &rb[20], 4);
                Put32(&nop[24], cmdSn_);
                Put32(&nop[28], expStatSn_);
                SendPdu(nop, {});
            }
            continue;
        }
        if (Be32(&rb[16]) != itt) {
            r.error = "an answer for another task";
            return r;
        }
        if (op == 0x25) {  // Data-In
            uint32_t offset = Be32(&rb[40]);
            if (offset > kMaxData || rd.size() > kMaxData) {
                r.error = "Data-In out of range";
                return r;
            }
            if (r.data.size() < offset + rd.size()) r.data.resize(offset + rd.size());
            std::memcpy(r.data.data() + offset, rd.data(), rd.size());
            if (rb[1] & 0x01) {
                expStatSn_ = Be32(&rb[24]) + 1;
                r.status = rb[3];
                r.ok = true;
                return r;
            }
        } else if (op == 0x31) {  // R2T
            uint32_t offset = Be32(&rb[40]), want = Be32(&rb[44]);
            if (uint64_t(offset) + want > dataOut.size()) {
                r.error = "R2T beyond the data";
                return r;
            }
            for (uint32_t done = 0, sn = 0; done < want; ++sn) {
                uint32_t n = std::min(want - done, maxSend_);
                std::vector<uint8_t> out(48, 0);
                out[0] = 0x05;
                out[1] = done + n == want ? 0x80 : 0;
                std::memcpy(&out[8], &bhs[8], 8);
                Put32(&out[16], itt);
                std::memcpy(&out[20], &rb[20], 4);  // target transfer tag
                Put32(&out[28], expStatSn_);
                Put32(&out[36], sn);
                Put32(&out[40], offset + done);
                if (!SendPdu(out, std::vector<uint8_t>(dataOut.begin() + offset + done,
                                                       dataOut.begin() + offset + done + n))) {
                    r.error = "cannot send data";
                    return r;
                }
                done += n;
            }
        } else if (op == 0x21) {  // SCSI Response
            expStatSn_ = Be32(&rb[24]) + 1;
            r.status = rb[3];
            r.ok = rb[2] == 0;
            // Sense data: its length in two bytes, then the sense (key at byte 2).
            if (r.status == 2) r.data = rd;
            if (!r.ok) r.error = "the target failed the command (response " + std::to_string(rb[2]) + ")";
            return r;
        } else {
            r.error = "an answer of opcode " + std::to_string(op);
            return r;
        }
    }
    r.error = "too many PDUs";
    return r;
}

ScsiResult Initiator::Inquiry(uint32_t lun, int page, uint16_t length) {
    std::vector<uint8_t> cdb{0x12, static_cast<uint8_t>(page < 0 ? 0 : 1), static_cast<uint8_t>(page < 0 ? 0 : page),
                             static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), 0};
    return Command(lun, cdb, length);
}

bool Initiator::Capacity(uint32_t lun, uint64_t* blocks, uint32_t* blockSize) {
    std::vector<uint8_t> cdb(16, 0);
    cdb[0] = 0x9E;
    cdb[1] = 0x10;
    cdb[13] = 32;
    ScsiResult r = Command(lun, cdb, 32);
    if (!r.ok || r.status != 0 || r.data.size() < 12) return false;
    *blocks = (uint64_t(Be32(&r.data[0])) << 32 | Be32(&r.data[4])) + 1;
    *blockSize = Be32(&r.data[8]);
    return true;
}

bool Initiator::Write(uint32_t lun, uint64_t lba, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> cdb(16, 0);
    cdb[0] = 0x8A;  // WRITE(16)
    Put64(&cdb[2], lba);
    Put32(&cdb[10], static_cast<uint32_t>(data.size() / 512));
    ScsiResult r = Command(lun, cdb, 0, data);
    return r.ok && r.status == 0;
}

bool Initiator::Read(uint32_t lun, uint64_t lba, uint32_t count, std::vector<uint8_t>* out) {
    std::vector<uint8_t> cdb(16, 0);
    cdb[0] = 0x88;  // READ(16)
    Put64(&cdb[2], lba);
    Put32(&cdb[10], count);
    ScsiResult r = Command(lun, cdb, count * 512);
    if (!r.ok || r.status != 0) return false;
    *out = r.data;
    return true;
}

bool Initiator::ReportLuns(std::vector<uint32_t>* luns) {
    std::vector<uint8_t> cdb(12, 0);
    cdb[0] = 0xA0;
    Put32(&cdb[6], 4096);
    ScsiResult r = Command(0, cdb, 4096);
    if (!r.ok || r.status != 0 || r.data.size() < 8) return false;
    uint32_t len = Be32(&r.data[0]);
    luns->clear();
    for (size_t at = 8; at + 8 <= r.data.size() && at < 8 + size_t(len); at += 8)
        luns->push_back(uint32_t(r.data[at] & 0x3F) << 8 | r.data[at + 1]);
    return true;
}

}  // namespace iscsitest
