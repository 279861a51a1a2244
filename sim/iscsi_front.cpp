#include "sim/iscsi_front.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

namespace trovsim {

namespace {

constexpr size_t kBhs = 48;
constexpr size_t kHighWater = 4u << 20;  // bytes queued toward one side before its source waits
constexpr size_t kMaxTracked = 128;      // INQUIRY commands of page 0x80 awaiting their answer

enum : uint8_t {
    kOpScsiCommand = 0x01,
    kOpLoginResponse = 0x23,
    kOpTextResponse = 0x24,
    kOpDataIn = 0x25,
    kOpScsiResponse = 0x21,
};

uint32_t Be24(const uint8_t* p) { return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2]; }
uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
void PutBe24(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 16);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v);
}
void PutBe32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    PutBe24(p + 1, v);
}
size_t Pad4(size_t n) { return (n + 3) & ~size_t(3); }

// Length of the PDU at the front of `p`, or 0 while its header is incomplete.
size_t PduLength(const uint8_t* p, size_t have) {
    if (have < kBhs) return 0;
    return kBhs + size_t(p[4]) * 4 + Pad4(Be24(p + 5));
}

// key=value pairs of a data segment, each ended by a NUL (the last may lack it).
std::vector<std::string> Pairs(const uint8_t* p, size_t n) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < n) {
        size_t j = i;
        while (j < n && p[j] != 0) ++j;
        if (j > i) out.emplace_back(reinterpret_cast<const char*>(p + i), j - i);
        i = j + 1;
    }
    return out;
}

void ReplaceData(std::vector<uint8_t>& pdu, const std::vector<uint8_t>& data) {
    size_t ahs = size_t(pdu[4]) * 4;
    pdu.resize(kBhs + ahs);
    pdu.insert(pdu.end(), data.begin(), data.end());
    pdu.resize(kBhs + ahs + Pad4(data.size()), 0);
    PutBe24(pdu.data() + 5, static_cast<uint32_t>(data.size()));
}

std::string SocketAddressText(const sockaddr_storage& ss) {
    char buf[INET6_ADDRSTRLEN] = {};
    if (ss.ss_family == AF_INET) {
        auto* a = reinterpret_cast<const sockaddr_in*>(&ss);
        ::inet_ntop(AF_INET, &a->sin_addr, buf, sizeof buf);
        return std::string(buf) + ":" + std::to_string(ntohs(a->sin_port));
    }
    auto* a = reinterpret_cast<const sockaddr_in6*>(&ss);
    ::inet_ntop(AF_INET6, &a->sin6_addr, buf, sizeof buf);
    return "[" + std::string(buf) + "]:" + std::to_string(ntohs(a->sin6_port));
}

bool MakeAddress(const Endpoint& e, sockaddr_storage* ss, socklen_t* len) {
    std::memset(ss, 0, sizeof *ss);
    if (e.host.find(':') != std::string::npos) {
        auto* a = reinterpret_cast<sockaddr_in6*>(ss);
        a->sin6_family = AF_INET6;
        a->sin6_port = htons(e.port);
        if (::inet_pton(AF_INET6, e.host.c_str(), &a->sin6_addr) != 1) return false;
        *len = sizeof *a;
        return true;
    }
    auto* a = reinterpret_cast<sockaddr_in*>(ss);
    a->sin_family = AF_INET;
    a->sin_port = htons(e.port);
    if (e.host.empty()) a->sin_addr.s_addr = htonl(INADDR_ANY);
    else if (::inet_pton(AF_INET, e.host.c_str(), &a->sin_addr) != 1) return false;
    *len = sizeof *a;
    return true;
}

int ConnectWithin(const Endpoint& e, int ms) {
    sockaddr_storage ss;
    socklen_t len;
    if (!MakeAddress(e, &ss, &len)) return -1;
    int fd = ::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0) {
        if (errno != EINPROGRESS) {
            ::close(fd);
            return -1;
        }
        pollfd p{fd, POLLOUT, 0};
        int err = 0;
        socklen_t el = sizeof err;
        if (::poll(&p, 1, ms) != 1 || ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &el) != 0 || err != 0) {
            ::close(fd);
            return -1;
        }
    }
    return fd;
}

}  // namespace

std::string Endpoint::Text() const {
    std::string h = host.empty() ? "0.0.0.0" : host;
    if (h.find(':') != std::string::npos) h = "[" + h + "]";
    return h + ":" + std::to_string(port);
}

bool ParseEndpoint(const std::string& text, Endpoint* out) {
    Endpoint e;
    std::string portText;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') return false;
        e.host = text.substr(1, close - 1);
        portText = text.substr(close + 2);
        in6_addr six;
        if (::inet_pton(AF_INET6, e.host.c_str(), &six) != 1) return false;
    } else {
        size_t colon = text.rfind(':');
        if (colon == std::string::npos) return false;
        e.host = text.substr(0, colon);
        portText = text.substr(colon + 1);
        in_addr four;
        if (!e.host.empty() && ::inet_pton(AF_INET, e.host.c_str(), &four) != 1) return false;
    }
    if (portText.empty() || portText.size() > 5 || !std::all_of(portText.begin(), portText.end(), ::isdigit)) return false;
    unsigned long port = std::stoul(portText);
    if (port == 0 || port > 65535) return false;
    e.port = static_cast<uint16_t>(port);
    *out = e;
    return true;
}

bool IsSerialPageInquiry(const uint8_t* pdu, size_t len) {
    if (len < kBhs || (pdu[0] & 0x3F) != kOpScsiCommand) return false;
    const uint8_t* cdb = pdu + 32;
    return cdb[0] == 0x12 && (cdb[1] & 1) && cdb[2] == 0x80;
}

bool PatchSerialPage(std::vector<uint8_t>& pdu) {
    if (pdu.size() < kBhs || (pdu[0] & 0x3F) != kOpDataIn) return false;
    uint8_t flags = pdu[1];
    // The whole answer, with its status, in this one PDU.
    if ((flags & 0x81) != 0x81 || (flags & 0x04) || pdu[3] != 0 || Be32(&pdu[40]) != 0) return false;
    size_t ahs = size_t(pdu[4]) * 4;
    size_t dsl = Be24(&pdu[5]);
    if (pdu.size() < kBhs + ahs + dsl || dsl < 4) return false;
    const uint8_t* d = pdu.data() + kBhs + ahs;
    size_t pageLen = size_t(d[2]) << 8 | d[3];
    if (d[1] != 0x80 || dsl != 4 + pageLen) return false;
    size_t blanks = 0;
    while (blanks < pageLen && d[4 + blanks] == ' ') ++blanks;
    if (blanks == 0) return false;
    std::vector<uint8_t> data(d, d + 4);
    data.insert(data.end(), d + 4 + blanks, d + 4 + pageLen);
    data[2] = uint8_t((pageLen - blanks) >> 8);
    data[3] = uint8_t(pageLen - blanks);
    uint32_t residual = (flags & 0x02) ? Be32(&pdu[44]) : 0;
    ReplaceData(pdu, data);
    pdu[1] = static_cast<uint8_t>(flags | 0x02);
    PutBe32(&pdu[44], residual + static_cast<uint32_t>(blanks));
    return true;
}

bool RewriteTargetAddresses(std::vector<uint8_t>& pdu, const std::string& fallback,
                            const std::function<std::vector<std::string>(const std::string&)>& portalsOf) {
    if (pdu.size() < kBhs || (pdu[0] & 0x3F) != kOpTextResponse || (pdu[1] & 0x40)) return false;
    size_t ahs = size_t(pdu[4]) * 4;
    size_t dsl = Be24(&pdu[5]);
    if (pdu.size() < kBhs + ahs + dsl) return false;
    std::vector<std::string> in = Pairs(pdu.data() + kBhs + ahs, dsl), out;
    bool changed = false;
    std::string target;
    std::vector<std::string> tags;  // portal group tags of the current target's addresses
    auto flush = [&] {
        if (target.empty() || tags.empty()) return;
        std::vector<std::string> where = portalsOf(target);
        if (where.empty()) where.push_back(fallback);
        for (const std::string& w : where) out.push_back("TargetAddress=" + w + "," + tags.front());
        tags.clear();
    };
    for (const std::string& kv : in) {
        if (kv.rfind("TargetName=", 0) == 0) {
            flush();
            target = kv.substr(11);
            out.push_back(kv);
        } else if (kv.rfind("TargetAddress=", 0) == 0 && !target.empty()) {
            size_t comma = kv.rfind(',');
            tags.push_back(comma == std::string::npos ? "1" : kv.substr(comma + 1));
            changed = true;
        } else {
            out.push_back(kv);
        }
    }
    flush();
    if (!changed) return false;
    std::vector<uint8_t> data;
    for (const std::string& kv : out) {
        data.insert(data.end(), kv.begin(), kv.end());
        data.push_back(0);
    }
    if (data.size() > 0xFFFFFF) return false;
    ReplaceData(pdu, data);
    return true;
}

// ---------------------------------------------------------------------------------------------

struct IscsiFront::Conn {
    int initiator = -1, target = -1;
    std::string local;  // the portal the initiator reached, "ADDR:PORT"
    std::string peer;
    std::thread thread;
    std::atomic<bool> done{false};
};

IscsiFront::IscsiFront(LogFn log) : log_(std::move(log)) {}

IscsiFront::~IscsiFront() { Stop(); }

bool IscsiFront::Start(const std::vector<Endpoint>& portals, std::string* error) {
    Stop();
    stopping_ = false;
    for (const Endpoint& e : portals) {
        sockaddr_storage ss;
        socklen_t len;
        if (!MakeAddress(e, &ss, &len)) {
            if (error) *error = "not an address: " + e.Text();
            Stop();
            return false;
        }
        int fd = ::socket(ss.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        if (fd >= 0) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&ss), len) != 0 || ::listen(fd, 64) != 0) {
            if (error) *error = "cannot listen on the iSCSI portal " + e.Text() + ": " + std::strerror(errno);
            if (fd >= 0) ::close(fd);
            Stop();
            return false;
        }
        listenFds_.push_back(fd);
    }
    portals_ = portals;
    wakeFd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    acceptThread_ = std::thread([this] { AcceptLoop(); });
    return true;
}

void IscsiFront::Stop() {
    stopping_ = true;
    if (wakeFd_ >= 0) {
        uint64_t one = 1;
        (void)!::write(wakeFd_, &one, sizeof one);
    }
    if (acceptThread_.joinable()) acceptThread_.join();
    std::vector<std::shared_ptr<Conn>> conns;
    {
        std::lock_guard<std::mutex> g(mu_);
        conns.swap(conns_);
    }
    for (auto& c : conns)
        if (c->thread.joinable()) c->thread.join();
    for (int fd : listenFds_) ::close(fd);
    listenFds_.clear();
    if (wakeFd_ >= 0) ::close(wakeFd_);
    wakeFd_ = -1;
}

void IscsiFront::SetBackend(const Endpoint& backend) {
    std::lock_guard<std::mutex> g(mu_);
    backend_ = backend;
}

void IscsiFront::SetTargetPortals(std::map<std::string, std::vector<std::string>> portals) {
    std::lock_guard<std::mutex> g(mu_);
    targetPortals_ = std::move(portals);
}

std::vector<std::string> IscsiFront::PortalsOf(const std::string& target) const {
    std::lock_guard<std::mutex> g(mu_);
    auto it = targetPortals_.find(target);
    return it == targetPortals_.end() ? std::vector<std::string>{} : it->second;
}

IscsiFront::Stats IscsiFront::stats() const {
    std::lock_guard<std::mutex> g(mu_);
    return stats_;
}

void IscsiFront::AcceptLoop() {
    while (!stopping_) {
        std::vector<pollfd> fds;
        for (int fd : listenFds_) fds.push_back({fd, POLLIN, 0});
        fds.push_back({wakeFd_, POLLIN, 0});
        if (::poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR) break;
        if (stopping_ || fds.back().revents) break;
        for (size_t i = 0; i + 1 < fds.size(); ++i) {
            if (!(fds[i].revents & POLLIN)) continue;
            sockaddr_storage peer{};
            socklen_t plen = sizeof peer;
            int fd = ::accept4(fds[i].fd, reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) continue;
            int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            auto c = std::make_shared<Conn>();
            c->initiator = fd;
            sockaddr_storage local{};
            socklen_t llen = sizeof local;
            ::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &llen);
            c->local = SocketAddressText(local);
            c->peer = SocketAddressText(peer);
            std::lock_guard<std::mutex> g(mu_);
            for (auto it = conns_.begin(); it != conns_.end();) {
                if ((*it)->done) {
                    (*it)->thread.join();
                    it = conns_.erase(it);
                } else {
                    ++it;
                }
            }
            ++stats_.connections;
            conns_.push_back(c);
            c->thread = std::thread([this, c] { Relay(c); });
        }
    }
}

void IscsiFront::Relay(std::shared_ptr<Conn> c) {
    Endpoint backend;
    {
        std::lock_guard<std::mutex> g(mu_);
        backend = backend_;
    }
    c->target = backend.port ? ConnectWithin(backend, 2000) : -1;
    if (c->target < 0) {
        {
            std::lock_guard<std::mutex> g(mu_);
            ++stats_.backendFailures;
        }
        log_("iSCSI portal " + c->local + ": tgtd does not answer at " + backend.Text() + "; connection from " +
             c->peer + " closed");
        ::close(c->initiator);
        c->done = true;
        return;
    }
    int one = 1;
    ::setsockopt(c->target, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    struct Side {
        int fd;
        std::vector<uint8_t> in, out;
        size_t sent = 0;
        size_t Pending() const { return out.size() - sent; }
    };
    Side ini{c->initiator, {}, {}, 0}, tgt{c->target, {}, {}, 0};
    bool raw = false;
    std::set<uint32_t> serialInquiries;  // initiator task tags of INQUIRY page 0x80 in flight
    auto portalsOf = [this](const std::string& t) { return PortalsOf(t); };

    // Moves whole PDUs from `from.in` to `to.out`, looking at those that matter.
    auto pass = [&](Side& from, Side& to, bool fromInitiator) -> bool {
        size_t at = 0;
        while (true) {
            size_t have = from.in.size() - at;
            if (raw) {
                to.out.insert(to.out.end(), from.in.begin() + static_cast<long>(at), from.in.end());
                at = from.in.size();
                break;
            }
            size_t n = PduLength(from.in.data() + at, have);
            if (n == 0 || n > have) break;
            std::vector<uint8_t> pdu(from.in.begin() + static_cast<long>(at), from.in.begin() + static_cast<long>(at + n));
            at += n;
            uint8_t op = pdu[0] & 0x3F;
            uint32_t itt = Be32(&pdu[16]);
            if (fromInitiator) {
                if (IsSerialPageInquiry(pdu.data(), pdu.size())) {
                    if (serialInquiries.size() >= kMaxTracked) serialInquiries.clear();
                    serialInquiries.insert(itt);
                }
            } else if (op == kOpDataIn && serialInquiries.count(itt) && (pdu[1] & 0x01)) {
                serialInquiries.erase(itt);
                if (PatchSerialPage(pdu)) {
                    std::lock_guard<std::mutex> g(mu_);
                    ++stats_.serialPagesFixed;
                }
            } else if (op == kOpScsiResponse) {
                serialInquiries.erase(itt);
            } else if (op == kOpTextResponse) {
                if (RewriteTargetAddresses(pdu, c->local, portalsOf)) {
                    std::lock_guard<std::mutex> g(mu_);
                    ++stats_.discoveryAnswersFixed;
                }
            } else if (op == kOpLoginResponse) {
                size_t ahs = size_t(pdu[4]) * 4, dsl = Be24(&pdu[5]);
                for (const std::string& kv : Pairs(pdu.data() + kBhs + ahs, std::min(dsl, pdu.size() - kBhs - ahs)))
                    if ((kv.rfind("HeaderDigest=", 0) == 0 || kv.rfind("DataDigest=", 0) == 0) &&
                        kv.find("CRC32C") != std::string::npos)
                        raw = true;
                if (raw) {
                    {
                        std::lock_guard<std::mutex> g(mu_);
                        ++stats_.rawConnections;
                    }
                    log_("iSCSI connection from " + c->peer + " negotiated digests; relayed as it comes");
                }
            }
            to.out.insert(to.out.end(), pdu.begin(), pdu.end());
        }
        from.in.erase(from.in.begin(), from.in.begin() + static_cast<long>(at));
        return true;
    };

    uint8_t buf[65536];
    bool open = true;
    while (open && !stopping_) {
        pollfd fds[2] = {{ini.fd, 0, 0}, {tgt.fd, 0, 0}};
        if (tgt.Pending() < kHighWater) fds[0].events |= POLLIN;
        if (ini.Pending() < kHighWater) fds[1].events |= POLLIN;
        if (ini.Pending()) fds[0].events |= POLLOUT;
        if (tgt.Pending()) fds[1].events |= POLLOUT;
        int n = ::poll(fds, 2, 200);
        if (n < 0 && errno != EINTR) break;
        if (n <= 0) continue;
        for (int i = 0; i < 2 && open; ++i) {
            Side& s = i == 0 ? ini : tgt;
            Side& other = i == 0 ? tgt : ini;
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                ssize_t r = ::recv(s.fd, buf, sizeof buf, 0);
                if (r == 0 || (r < 0 && errno != EAGAIN && errno != EINTR)) {
                    open = false;
                    break;
                }
                if (r > 0) {
                    s.in.insert(s.in.end(), buf, buf + r);
                    pass(s, other, i == 0);
                }
            }
            if ((fds[i].revents & POLLOUT) && s.Pending()) {
                ssize_t w = ::send(s.fd, s.out.data() + s.sent, s.Pending(), MSG_NOSIGNAL);
                if (w < 0 && errno != EAGAIN && errno != EINTR) {
                    open = false;
                    break;
                }
                if (w > 0) s.sent += static_cast<size_t>(w);
                if (s.sent == s.out.size()) {
                    s.out.clear();
                    s.sent = 0;
                }
            }
        }
    }
    // What one side said last still goes to the other, as far as it takes it at once.
    for (Side* s : {&ini, &tgt})
        if (s->Pending()) (void)!::send(s->fd, s->out.data() + s->sent, s->Pending(), MSG_NOSIGNAL);
    ::close(c->initiator);
    ::close(c->target);
    c->done = true;
}

}  // namespace trovsim
