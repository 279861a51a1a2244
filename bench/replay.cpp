#include "replay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "proxy/wire.h"

namespace bench {

namespace {

int ListenLoopback(uint16_t* port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || ::listen(fd, 4) != 0) {
        ::close(fd);
        return -1;
    }
    socklen_t len = sizeof a;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

int ConnectLoopback(uint16_t port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        ::close(fd);
        return -1;
    }
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

// Accepts with a poll, so that a stop flag ends the wait.
int AcceptUntil(int listenFd, const std::atomic<bool>& stop) {
    while (!stop) {
        pollfd p{listenFd, POLLIN, 0};
        if (::poll(&p, 1, 50) > 0) {
            int fd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                int on = 1;
                ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            }
            return fd;
        }
    }
    return -1;
}

bool ReadFull(int fd, char* p, size_t n) {
    while (n > 0) {
        ssize_t r = ::recv(fd, p, n, 0);
        if (r <= 0) return false;
        p += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

}  // namespace

std::string Recording::Key(const uint8_t* pkt, size_t len) {
    std::string k(reinterpret_cast<const char*>(pkt + wire::kDataTypeOffset), 8);  // DataType and OpCode
    // The listen-port announcement carries the client's process id: any process gets the answer.
    bool listenPort = wire::DataTypeOf(pkt) == wire::RSSESSION && wire::OpCodeOf(pkt) == 7;
    if (len > wire::kHeaderSize && !listenPort) k.append(reinterpret_cast<const char*>(pkt + wire::kHeaderSize), len - wire::kHeaderSize);
    return k;
}

const std::string* Recording::Find(const uint8_t* pkt, size_t len) const {
    auto it = replies_.find(Key(pkt, len));
    return it == replies_.end() ? nullptr : it->second.get();
}

void Recording::Add(const std::string& request, const std::string& reply) {
    auto key = Key(reinterpret_cast<const uint8_t*>(request.data()), request.size());
    auto it = replies_.find(key);
    std::shared_ptr<const std::string> r;
    if (it != replies_.end() && *it->second == reply) {
        r = it->second;
    } else {
        r = std::make_shared<const std::string>(reply);
        replies_[key] = r;
    }
    sequence_.push_back({request, r});
}

uint64_t Recording::Bytes() const {
    uint64_t n = 0;
    for (const Exchange& e : sequence_) n += e.request.size() + e.reply->size();
    return n;
}

bool ReadPacket(int fd, std::string* out) {
    out->assign(wire::kHeaderSize, '\0');
    if (!ReadFull(fd, out->data(), wire::kHeaderSize)) return false;
    uint32_t len = wire::DataLenOf(reinterpret_cast<const uint8_t*>(out->data()));
    if (len > wire::kPacketBufferSize) return false;
    out->resize(wire::kHeaderSize + len);
    return ReadFull(fd, out->data() + wire::kHeaderSize, len);
}

bool WriteAll(int fd, const void* p, size_t n) {
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t w = ::send(fd, c, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        c += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

Tap::Tap(uint16_t servicePort) : servicePort_(servicePort) {
    listenFd_ = ListenLoopback(&port_);
    thread_ = std::thread([this] { Run(); });
}

Tap::~Tap() {
    Stop();
    if (listenFd_ >= 0) ::close(listenFd_);
}

void Tap::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

void Tap::Run() {
    while (!stop_) {
        int client = AcceptUntil(listenFd_, stop_);
        if (client < 0) continue;
        int service = ConnectLoopback(servicePort_);
        std::string req, rep;
        // The provider speaks strictly in turns: a request, then its reply. A goodbye's answer may
        // be the last thing the service sends before it closes.
        while (service >= 0 && ReadPacket(client, &req)) {
            if (!WriteAll(service, req.data(), req.size()) || !ReadPacket(service, &rep)) break;
            rec_.Add(req, rep);
            if (!WriteAll(client, rep.data(), rep.size())) break;
        }
        if (service >= 0) ::close(service);
        ::close(client);
    }
}

ReplayPeer::ReplayPeer(const Recording& rec) : rec_(rec) {
    listenFd_ = ListenLoopback(&port_);
    thread_ = std::thread([this] { Run(); });
}

ReplayPeer::~ReplayPeer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (listenFd_ >= 0) ::close(listenFd_);
}

void ReplayPeer::Run() {
    std::string req;
    while (!stop_) {
        int fd = AcceptUntil(listenFd_, stop_);
        if (fd < 0) continue;
        while (ReadPacket(fd, &req)) {
            const std::string* r = rec_.Find(reinterpret_cast<const uint8_t*>(req.data()), req.size());
            if (!r) {
                ++unknown_;
                break;
            }
            if (!WriteAll(fd, r->data(), r->size())) break;
        }
        ::close(fd);
    }
}

uint64_t RawExchanges(uint16_t port, const std::vector<Exchange>& sequence) {
    int fd = ConnectLoopback(port);
    if (fd < 0) return 0;
    uint64_t got = 0;
    std::string rep;
    for (const Exchange& e : sequence) {
        if (!WriteAll(fd, e.request.data(), e.request.size()) || !ReadPacket(fd, &rep)) {
            got = 0;
            break;
        }
        got += rep.size();
    }
    ::close(fd);
    return got;
}

std::string WriteClientConfig(const std::string& dir, uint16_t port, const std::string& user,
                              const std::string& password) {
    std::ofstream(dir + "/kelvane.conf") << "version  :1\nipaddress:127.0.0.1\nusername :" << user
                                         << "\npassword :" << password << "\nport     :" << port << "\n";
    std::string settings = dir + "/settings.reg";
    std::ofstream(settings) << "Windows Registry Editor Version 5.00\n\n"
                            << "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\kelvane\\Parameters]\n"
                            << "\"ConfigurationFile\"=\"" << dir << "/kelvane.conf\"\n";
    return settings;
}

}  // namespace bench
