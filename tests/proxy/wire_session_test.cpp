// The session on the wire, byte for byte, against a scripted peer: handshake, login with its
// enciphered password, listen-port announcement, goodbye, the sequence number and check value
// across commands and reconnects, and every kind of bad reply with its result, its log line, the
// host's failure line and the closed connection. Then the time limits on the fake clock: an
// answer that never comes, a payload that stops short, a connect that hangs, and the limit the
// settings give.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/des.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "testlib/fake_platform.h"
#include "testlib/provider_env.h"
#include "proxy/heartbeat.h"
#include "proxy/iasocket.h"
#include "proxy/kelvane.h"
#include "proxy/session.h"
#include "support/debuglog.h"
#include "testlib/script_peer.h"
#include "testlib/session_env.h"
#include "wire_bytes.h"

namespace {

using testlib::ScriptPeer;
using Bytes = ScriptPeer::Bytes;

using wirebytes::Be32;
using wirebytes::Header;
using wirebytes::kIp;

Bytes Words(std::initializer_list<uint32_t> words) {
    Bytes b;
    for (uint32_t w : words) wirebytes::AppendBe32(b, w);
    return b;
}

Bytes HandshakeAnswer(uint32_t versionStatus, uint32_t token) {
    return ScriptPeer::Reply(2, Words({versionStatus, token}), 3);
}
Bytes LoginAnswer(uint32_t status, uint32_t key) { return ScriptPeer::Reply(4, Words({status, key, 0x5A5A5A5A}), 3); }
Bytes PortAnswer() { return ScriptPeer::Reply(8, {}, 3); }

std::function<Bytes(const Bytes&)> Answer(Bytes b) {
    return [b](const Bytes&) { return b; };
}

// The login password field as the service deciphers it: DES-ECB with the low-end bit numbering,
// done here with OpenSSL's standard DES and byte-wise bit reversal around it.
uint8_t Rev(uint8_t v) {
    uint8_t r = 0;
    for (int i = 0; i < 8; ++i)
        if (v & (1 << i)) r |= static_cast<uint8_t>(0x80 >> i);
    return r;
}

Bytes ExpectedPasswordField(const std::string& password) {
    Bytes field(48, 0);
    std::copy(password.begin(), password.end(), field.begin());
    size_t used = std::min<size_t>(password.size(), 40);
    size_t padded = (used + 7) / 8 * 8;
    Bytes work(field.begin(), field.begin() + used);
    work.resize(padded, ' ');
    DES_cblock key;
    const char* k = "tulnofra";
    for (int i = 0; i < 8; ++i) key[i] = Rev(static_cast<uint8_t>(k[i]));
    DES_key_schedule ks;
    DES_set_key_unchecked(&key, &ks);
    for (size_t off = 0; off < padded; off += 8) {
        DES_cblock in, out;
        for (int i = 0; i < 8; ++i) in[i] = Rev(work[off + i]);
        DES_ecb_encrypt(&in, &out, &ks, DES_ENCRYPT);
        for (int i = 0; i < 8; ++i) work[off + i] = Rev(out[i]);
    }
    if (password.size() <= used) {
        std::copy(work.begin(), work.end(), field.begin());
        if (padded < 48) field[padded] = 0;
    } else {
        std::copy(work.begin(), work.begin() + used, field.begin());
    }
    return field;
}

class WireSession : public ::testing::Test {
protected:
    void SetUp() override {
        testlib::BeginSessionTest(tp);
    }
    void TearDown() override {
        testlib::EndSessionTest();
    }

    // Session settings as the connect sequence would leave them.
    void Configure(const ScriptPeer& peer, const char* user, const std::string& password) {
        std::snprintf(g_session.AgentIP, sizeof g_session.AgentIP, "127.0.0.1");
        std::memset(g_session.UserName, 0, sizeof g_session.UserName);
        std::memcpy(g_session.UserName, user, std::strlen(user));
        std::memset(g_session.Password, 0, sizeof g_session.Password);
        std::memcpy(g_session.Password, password.data(), password.size());
        g_session.PasswordLength = static_cast<uint32_t>(password.size());
        g_session.Port = peer.port();
    }

    // One connection of the peer: each request answered in turn, then `end` (nothing more, the
    // client's close expected, or the peer's own close).
    enum class End { None, ClientCloses, PeerCloses };
    static void Connection(ScriptPeer& peer, std::initializer_list<Bytes> answers, End end = End::None) {
        peer.Accept();
        for (const Bytes& a : answers) peer.OnRequest(Answer(a));
        if (end == End::ClientCloses) peer.ExpectClosed();
        if (end == End::PeerCloses) peer.CloseConnection();
    }
    // One such connection, started, with the transport attached to it.
    static void Serve(ScriptPeer& peer, std::initializer_list<Bytes> answers, End end = End::None) {
        Connection(peer, answers, end);
        peer.Start();
        peer.AttachTransport();
    }

    bool Logged(const std::string& line) const { return tp.DebuggerText().find(line) != std::string::npos; }

    // The one failure line the host was told, which must name `step` and `reason`.
    void ExpectOneFailure(const char* step, const std::string& reason) {
        const auto lines = failures.lines();
        ASSERT_EQ(lines.size(), 1u) << (lines.empty() ? "" : lines[0]);
        EXPECT_EQ(lines[0].rfind(std::string("the ") + step + " exchange with the proxy service at 127.0.0.1:", 0), 0u)
            << lines[0];
        EXPECT_NE(lines[0].find("failed (" + reason), std::string::npos) << lines[0];
    }
    // The transport after a failed exchange: the connection closed, the reason kept.
    void ExpectDropped(int32_t lastSocketError) {
        EXPECT_EQ(g_transport.sock.load(), -1);
        EXPECT_EQ(g_transport.LastSocketError.load(), lastSocketError);
    }

    TestPlatform tp;
    testlib::HostFailures failures;
};

// --- Handshake -----------------------------------------------------------------------------------

TEST_F(WireSession, HandshakeSendsTheVersionWordAndKeepsTheToken) {
    ScriptPeer peer;
    Serve(peer, {HandshakeAnswer(0xABCD0501, 0xDEADBEEF)});  // bits 16..31 are not read

    EXPECT_EQ(Handshake(g_transport.PacketBuffer), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(g_session.HandshakeToken.load(), 0xDEADBEEFu);

    Bytes want = Header(0, 0, 3, 1, 6);
    for (char c : std::string("qvemid")) want.push_back(static_cast<uint8_t>(c));
    ASSERT_EQ(peer.requests().size(), 1u);
    EXPECT_EQ(peer.requests()[0], want);
    EXPECT_EQ(g_transport.LastSocketError.load(), 0);
}

struct HandshakeCase {
    uint32_t versionStatus;
    int result;
    const char* logLine;  // in the debug log, or null
    const char* console;  // on standard output, or null
};

class HandshakeStatus : public WireSession, public ::testing::WithParamInterface<HandshakeCase> {};

TEST_P(HandshakeStatus, GivesTheResultAndMessageOfTheStatus) {
    const HandshakeCase& c = GetParam();
    ScriptPeer peer;
    Serve(peer, {HandshakeAnswer(c.versionStatus, 0x0BADF00D)});

    testing::internal::CaptureStdout();
    int rc = Handshake(g_transport.PacketBuffer);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(rc, c.result);
    // The token is kept before the answer is judged.
    EXPECT_EQ(g_session.HandshakeToken.load(), 0x0BADF00Du);
    if (c.logLine) {
        EXPECT_TRUE(Logged(c.logLine)) << tp.DebuggerText();
    }
    EXPECT_EQ(out, c.console ? c.console : "");
    if (c.result == 0) {
        EXPECT_FALSE(Logged("status.")) << tp.DebuggerText();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, HandshakeStatus,
    ::testing::Values(HandshakeCase{0x0501, 0, nullptr, nullptr},
                      HandshakeCase{0x0502, -1, nullptr, "unknown user.\n"},
                      HandshakeCase{0x0505, -1, "invalid password.\n", nullptr},
                      HandshakeCase{0x0503, -1, "unknown status.\n", nullptr},
                      HandshakeCase{0x0500, -1, "unknown status.\n", nullptr},
                      // A version other than 5 ends it, whatever the status says.
                      HandshakeCase{0x0401, 29, nullptr, nullptr}, HandshakeCase{0x0601, 29, nullptr, nullptr},
                      HandshakeCase{0x0001, 29, nullptr, nullptr}),
    [](const ::testing::TestParamInfo<HandshakeCase>& i) {
        char name[32];
        std::snprintf(name, sizeof name, "Version%uStatus%u", i.param.versionStatus >> 8, i.param.versionStatus & 0xFF);
        return std::string(name);
    });

TEST_F(WireSession, ProxyLoginStopsAtAVersionMismatchWithItsMessage) {
    ScriptPeer peer;
    Serve(peer, {HandshakeAnswer(0x0601, 7)});
    EXPECT_EQ(ProxyLogin(), 29);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(peer.requests().size(), 1u);  // no login follows
    EXPECT_TRUE(Logged("Version incompatibility! The version of the kelvane and the vds provider must match.\n"));
}

// --- Bad replies to the handshake ----------------------------------------------------------------

struct BadReply {
    const char* name;
    Bytes reply;             // sent after the request was read
    bool closeAfter;         // the peer closes the connection after the reply
    const char* logLine;     // in the debug log, or null
    int32_t lastSocketError; // after the exchange
    const char* reason;      // in the host's failure line
};

class HandshakeBadReply : public WireSession, public ::testing::WithParamInterface<BadReply> {};

// Unlike the original, which keeps the connection and reads what is left of a bad answer as the
// next one, the client closes the connection: the peer sees it end with nothing more sent.
TEST_P(HandshakeBadReply, FailsWithMinusOneAndClosesTheConnection) {
    const BadReply& c = GetParam();
    ScriptPeer peer;
    Serve(peer, {c.reply}, c.closeAfter ? End::PeerCloses : End::ClientCloses);
    Configure(peer, "admin", "pw");

    EXPECT_EQ(Handshake(g_transport.PacketBuffer), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    ExpectDropped(c.lastSocketError);
    ExpectOneFailure("handshake", c.reason);
    if (c.logLine) {
        EXPECT_TRUE(Logged(c.logLine)) << tp.DebuggerText();
    }
}

Bytes Truncated(Bytes b, size_t n) {
    b.resize(n);
    return b;
}

Bytes WithDataLen(Bytes b, uint32_t len) {
    b[32] = static_cast<uint8_t>(len >> 24);
    b[33] = static_cast<uint8_t>(len >> 16);
    b[34] = static_cast<uint8_t>(len >> 8);
    b[35] = static_cast<uint8_t>(len);
    return b;
}

INSTANTIATE_TEST_SUITE_P(
    Replies, HandshakeBadReply,
    ::testing::Values(
        BadReply{"WrongDataType", ScriptPeer::Reply(2, Words({0x0501, 1}), 2), false, nullptr, kMalformedReply,
                 "an answer of DataType 2, OpCode 2)"},
        BadReply{"WrongOpCode", ScriptPeer::Reply(4, Words({0x0501, 1}), 3), false, nullptr, kMalformedReply,
                 "an answer of DataType 3, OpCode 4)"},
        // Twenty bytes: the request's own DataType and OpCode stay in the buffer and are judged.
        BadReply{"ShortHeader", Truncated(HandshakeAnswer(0x0501, 1), 20), false, nullptr, kMalformedReply,
                 "an answer header of 20 bytes)"},
        BadReply{"PayloadOfTwelve", ScriptPeer::Reply(2, Words({0x0501, 1, 0}), 3), false, nullptr, kMalformedReply,
                 "an answer of 12 bytes, 8 expected)"},
        BadReply{"PayloadOfFour", ScriptPeer::Reply(2, Words({0x0501}), 3), false, nullptr, kMalformedReply,
                 "an answer of 4 bytes, 8 expected)"},
        // The header promises eight bytes, three come, then the connection ends.
        BadReply{"ClosedMidReply", Truncated(HandshakeAnswer(0x0501, 1), 39), true, "recvdata len = 0\n",
                 kClosedByService,
                 "the answer's 8 bytes of payload did not all come: connection closed by the service)"},
        BadReply{"ClosedWithoutReply", {}, true, "OOP!! exec_cmnd recv error 0x0\n", kClosedByService,
                 "connection closed by the service)"},
        // Larger than the packet buffer: refused without a read, nothing written past the buffer.
        BadReply{"DataLenBeyondBuffer", WithDataLen(HandshakeAnswer(0x0501, 1), 3145728), false, nullptr,
                 kMalformedReply, "an answer of 3145728 bytes, more than the packet buffer holds)"},
        BadReply{"DataLenHuge", WithDataLen(HandshakeAnswer(0x0501, 1), 0xFFFFFFF0u), false, nullptr, kMalformedReply,
                 "an answer of 4294967280 bytes, more than the packet buffer holds)"}),
    [](const ::testing::TestParamInfo<BadReply>& i) { return std::string(i.param.name); });

// --- Login ---------------------------------------------------------------------------------------

class LoginPassword : public WireSession, public ::testing::WithParamInterface<size_t> {};

TEST_P(LoginPassword, RecordCarriesUserEncipheredPasswordLengthAndToken) {
    const size_t len = GetParam();
    std::string password;
    for (size_t i = 0; i < len; ++i) password.push_back(static_cast<char>('a' + (i * 7) % 26));
    ScriptPeer peer;
    Serve(peer, {LoginAnswer(1, 0x13572468)});
    Configure(peer, "operator", password);
    g_session.HandshakeToken = 0xA1B2C3D4;
    g_transport.sequence = 5;

    EXPECT_EQ(Login(g_transport.PacketBuffer), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(g_transport.SessionKey.load(), 0x13572468u);

    ASSERT_EQ(peer.requests().size(), 1u);
    const Bytes req = peer.requests()[0];
    ASSERT_EQ(req.size(), 380u);
    EXPECT_EQ(Bytes(req.begin(), req.begin() + 36), Header(5, 0, 3, 3, 344));
    Bytes user(32, 0);
    std::memcpy(user.data(), "operator", 8);
    EXPECT_EQ(Bytes(req.begin() + 36, req.begin() + 68), user);
    EXPECT_EQ(Bytes(req.begin() + 68, req.begin() + 116), ExpectedPasswordField(password));
    EXPECT_EQ(req[116], static_cast<uint8_t>(len));
    EXPECT_EQ(Bytes(req.begin() + 117, req.begin() + 120), Bytes(3, 0));
    EXPECT_EQ(Be32(req, 120), 0xA1B2C3D4u);
    EXPECT_EQ(Bytes(req.begin() + 124, req.end()), Bytes(256, 0));
    // The clear password stays as it was for the next login.
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(g_session.Password), len), password);
}

INSTANTIATE_TEST_SUITE_P(Lengths, LoginPassword, ::testing::Values(0u, 1u, 8u, 9u, 40u, 44u),
                         [](const ::testing::TestParamInfo<size_t>& i) { return "Of" + std::to_string(i.param); });

TEST_F(WireSession, LoginFieldOfFortyFourKeepsItsTailInClear) {
    // Checked apart from the reference computation: the shape alone.
    const std::string password = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNwxyz";
    ASSERT_EQ(password.size(), 44u);
    ScriptPeer peer;
    Serve(peer, {LoginAnswer(1, 1)});
    Configure(peer, "u", password);
    EXPECT_EQ(Login(g_transport.PacketBuffer), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const Bytes req = peer.requests().at(0);
    EXPECT_EQ(std::string(req.begin() + 68 + 40, req.begin() + 68 + 44), "wxyz");
    EXPECT_NE(std::string(req.begin() + 68, req.begin() + 68 + 8), "abcdefgh");
    EXPECT_EQ(req[68 + 44], 0);
}

struct LoginCase {
    const char* name;
    Bytes reply;
    const char* logLine;
    const char* console;
    bool dropped;        // a malformed answer closes the connection; a refusal keeps it
    const char* reason;  // in the host's failure line
};

class LoginBadReply : public WireSession, public ::testing::WithParamInterface<LoginCase> {};

TEST_P(LoginBadReply, FailsAndKeepsTheOldSessionKey) {
    const LoginCase& c = GetParam();
    ScriptPeer peer;
    Serve(peer, {c.reply}, c.dropped ? End::ClientCloses : End::None);
    Configure(peer, "admin", "secret");
    g_transport.SessionKey = 0x77;

    testing::internal::CaptureStdout();
    int rc = Login(g_transport.PacketBuffer);
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(g_transport.SessionKey.load(), 0x77u);
    if (c.logLine) {
        EXPECT_TRUE(Logged(c.logLine)) << tp.DebuggerText();
    }
    EXPECT_EQ(out, c.console ? c.console : "");
    const auto lines = failures.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find(c.reason), std::string::npos) << lines[0];
    if (c.dropped) {
        ExpectDropped(kMalformedReply);
    } else {
        EXPECT_GT(g_transport.sock.load(), 0);
        EXPECT_EQ(g_transport.LastSocketError.load(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Replies, LoginBadReply,
    ::testing::Values(LoginCase{"UnknownUser", LoginAnswer(2, 9), nullptr, "unknown user.\n", false,
                                "login refused by the proxy service at 127.0.0.1:"},
                      LoginCase{"InvalidPassword", LoginAnswer(5, 9), "invalid password.\n", nullptr, false,
                                ": invalid password (status 5)"},
                      LoginCase{"UnknownStatus", LoginAnswer(3, 9), "unknown status.\n", nullptr, false,
                                ": unknown status 3"},
                      // The whole word counts, not its low byte.
                      LoginCase{"StatusInHighBits", LoginAnswer(0x101, 9), "unknown status.\n", nullptr, false,
                                ": unknown status 257"},
                      LoginCase{"WrongOpCode", ScriptPeer::Reply(2, Words({1, 9, 0}), 3), nullptr,
                                "datatype = 3   opcode = 2\n", true, "(an answer of DataType 3, OpCode 2)"},
                      LoginCase{"WrongDataType", ScriptPeer::Reply(4, Words({1, 9, 0}), 2), nullptr,
                                "datatype = 2   opcode = 4\n", true, "(an answer of DataType 2, OpCode 4)"},
                      LoginCase{"PayloadOfEight", ScriptPeer::Reply(4, Words({1, 9}), 3), nullptr, nullptr, true,
                                "(an answer of 8 bytes, 12 expected)"},
                      LoginCase{"DataLenBeyondBuffer", WithDataLen(LoginAnswer(1, 9), 0x00400000), nullptr, nullptr,
                                true, "(an answer of 4194304 bytes, more than the packet buffer holds)"},
                      // A short header leaves the request's DataType 3 and OpCode 3 to be judged.
                      LoginCase{"ShortHeader", Truncated(LoginAnswer(1, 9), 20), nullptr,
                                "datatype = 3   opcode = 3\n", true, "(an answer header of 20 bytes)"}),
    [](const ::testing::TestParamInfo<LoginCase>& i) { return std::string(i.param.name); });

// --- Listen port and goodbye ---------------------------------------------------------------------

TEST_F(WireSession, ListenPortAnnouncementCarriesTheLowBitsOfTheProcessId) {
    ListenerName();  // computes the port as the connect sequence does
    const uint16_t port = static_cast<uint16_t>(getpid() & 0xFFFF);
    ASSERT_EQ(ListenPort(), port);
    ScriptPeer peer;
    Serve(peer, {ScriptPeer::Reply(8, Words({0xFFFFFFFF}), 3), PortAnswer()});  // a payload is read and ignored
    g_transport.sequence = 9;
    g_transport.SessionKey = 0x100;

    EXPECT_EQ(negotiate_listen_port(g_transport.PacketBuffer), 0);
    EXPECT_EQ(negotiate_listen_port(g_transport.PacketBuffer), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    Bytes want = Header(9, 0x100, 3, 7, 2);
    want.push_back(static_cast<uint8_t>(port >> 8));
    want.push_back(static_cast<uint8_t>(port));
    ASSERT_EQ(peer.requests().size(), 2u);
    EXPECT_EQ(peer.requests()[0], want);
    EXPECT_EQ(Be32(peer.requests()[1], 12), 10u);
}

TEST_F(WireSession, ListenPortRefusedByAnotherAnswerClosesTheConnection) {
    ListenerName();
    ScriptPeer peer;
    for (const Bytes& answer : {ScriptPeer::Reply(9, {}, 3), ScriptPeer::Reply(8, {}, 2)}) {
        Connection(peer, {answer}, End::ClientCloses);
    }
    peer.Start();
    Configure(peer, "admin", "pw");
    testing::internal::CaptureStdout();
    for (int round = 0; round < 2; ++round) {
        peer.AttachTransport();
        EXPECT_EQ(negotiate_listen_port(g_transport.PacketBuffer), -1);
        ExpectDropped(kMalformedReply);
    }
    std::string out = testing::internal::GetCapturedStdout();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(out, "datatype = 3   opcode = 9\ndatatype = 2   opcode = 8\n");
    const auto lines = failures.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("the listen-port exchange with the proxy service at 127.0.0.1:"), std::string::npos);
    EXPECT_NE(lines[0].find("failed (an answer of DataType 3, OpCode 9)"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find("failed (an answer of DataType 2, OpCode 8)"), std::string::npos) << lines[1];
}

TEST_F(WireSession, ProxyUnInitSaysGoodbyeClosesAndFreesTheBuffer) {
    ScriptPeer peer;
    Serve(peer, {ScriptPeer::Reply(14, {}, 3)});
    g_transport.sequence = 41;
    g_transport.SessionKey = 0xCAFE;

    ProxyUnInit();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    ASSERT_EQ(peer.requests().size(), 1u);
    EXPECT_EQ(peer.requests()[0], Header(41, 0xCAFE, 3, 14, 0));
    EXPECT_EQ(g_session.terminating.load(), 1);
    EXPECT_EQ(g_transport.sock.load(), 0);
    EXPECT_EQ(g_transport.PacketBuffer, nullptr);
    const std::string log = tp.DebuggerText();
    for (const char* line : {"ProxyUnInit enter\n", "sig_action -1\n", "waiting for threads to complete\n",
                             "ProxyUnInit leave\n"})
        EXPECT_NE(log.find(line), std::string::npos) << line;
    EXPECT_LT(log.find("ProxyUnInit enter\n"), log.find("sig_action -1\n"));
    EXPECT_EQ(log.find("timed out waiting"), std::string::npos);
    // Once terminating, a reconnect isn't tried.
    EXPECT_EQ(ProxyReconnect(), -1);
}

// --- Sequence and check value --------------------------------------------------------------------

TEST_F(WireSession, SequenceRunsOnAcrossLoginReconnectAndWrapsTheTable) {
    const uint32_t k1 = 0x10000, k2 = 0xFFFFFF00;  // k2 makes the check value's sum wrap
    ScriptPeer peer;
    // The fourth answer is to a reconnect on a healthy line.
    Connection(peer, {HandshakeAnswer(0x0501, 1), LoginAnswer(1, k1), PortAnswer(), HandshakeAnswer(0x0501, 2)},
               End::PeerCloses);
    Serve(peer, {HandshakeAnswer(0x0501, 3), LoginAnswer(1, k2), PortAnswer()});
    ListenerName();
    Configure(peer, "admin", "pw");
    const uint32_t s = 61;  // packets 61..68 cross 63 -> 64, where the table starts again
    g_transport.sequence = s;

    EXPECT_EQ(ProxyLogin(), 0);
    EXPECT_EQ(ProxyReconnect(), 0);
    EXPECT_EQ(g_session.HandshakeToken.load(), 2u);
    // The peer has closed: the handshake that tests the line fails and the whole session is
    // made again on a new connection.
    EXPECT_EQ(ProxyReconnect(), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_EQ(g_transport.SessionKey.load(), k2);
    EXPECT_EQ(g_session.HandshakeToken.load(), 3u);

    struct Want {
        uint32_t seq, key, op;
    };
    // s+4 went to the dead connection and never reached the peer.
    const Want want[] = {{s, 0, 1},     {s + 1, 0, 3},  {s + 2, k1, 7}, {s + 3, k1, 1},
                         {s + 5, k1, 1}, {s + 6, k1, 3}, {s + 7, k2, 7}};
    const auto reqs = peer.requests();
    ASSERT_EQ(reqs.size(), std::size(want));
    for (size_t i = 0; i < reqs.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(Be32(reqs[i], 12), want[i].seq);
        EXPECT_EQ(Be32(reqs[i], 16), wirebytes::CheckValue(want[i].seq, want[i].key));
        EXPECT_EQ(Be32(reqs[i], 24), want[i].op);
    }
    // Packet 64 uses the first entry of the table again.
    EXPECT_EQ(Be32(reqs[3], 16), 58u + k1 + 64u);
    EXPECT_EQ(Be32(reqs[6], 16), static_cast<uint32_t>(kIp[4] + k2 + 68u));
    EXPECT_EQ(g_transport.sequence.load(), s + 8);

    EXPECT_TRUE(Logged("Reconnecting... (handshake returned err -1)\n")) << tp.DebuggerText();
    const auto events = tp.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0].type, EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(events[0].text, "The VDS Provider has lost its connection to the TROV Proxy service.");
    EXPECT_EQ(events[1].type, EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(events[1].text, "The VDS Provider has restored its connection to the TROV Proxy service.");
}

TEST_F(WireSession, SecondLossWarnsNoMoreButReportsTheRestoreAgain) {
    ScriptPeer peer;
    for (int round = 0; round < 2; ++round)
        Connection(peer, {HandshakeAnswer(0x0501, 1), LoginAnswer(1, 2), PortAnswer()}, End::PeerCloses);
    peer.Start();
    ListenerName();
    Configure(peer, "admin", "pw");
    AllocatePacketBuffer();
    g_transport.sock = -1;  // as the transport stands after a lost connection

    EXPECT_EQ(ProxyReconnect(), 0);
    EXPECT_EQ(ProxyReconnect(), 0);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    const auto events = tp.Events();
    ASSERT_EQ(events.size(), 3u);
    EXPECT_EQ(events[0].type, EVENTLOG_WARNING_TYPE);
    EXPECT_EQ(events[1].type, EVENTLOG_INFORMATION_TYPE);
    EXPECT_EQ(events[2].type, EVENTLOG_INFORMATION_TYPE);
}

TEST_F(WireSession, ReconnectReportsEachFailingStep) {
    ScriptPeer peer;
    // A version mismatch, a refused login, a refused port; each closed so that the next test of
    // the line fails.
    Connection(peer, {HandshakeAnswer(0x0401, 1)}, End::PeerCloses);
    Connection(peer, {HandshakeAnswer(0x0501, 1), LoginAnswer(5, 2)}, End::PeerCloses);
    Connection(peer, {HandshakeAnswer(0x0501, 1), LoginAnswer(1, 2), ScriptPeer::Reply(9, {}, 3)});
    peer.Start();
    ListenerName();
    Configure(peer, "admin", "pw");
    AllocatePacketBuffer();
    g_transport.sock = -1;

    testing::internal::CaptureStdout();
    EXPECT_EQ(ProxyReconnect(), 29);
    EXPECT_EQ(ProxyReconnect(), -1);
    EXPECT_EQ(ProxyReconnect(), -1);
    testing::internal::GetCapturedStdout();
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("Reconnect failed (err 29)\n")) << tp.DebuggerText();
    EXPECT_TRUE(Logged("Version incompatibility! The version of the kelvane and the vds provider must match.\n"));
    EXPECT_TRUE(Logged("Reconnect login failed (err -1)\n"));
    EXPECT_TRUE(Logged("Reconnect negotiate_listen_port failed (err -1)\n"));
    // A failed port announcement still counts as a restored connection.
    const auto events = tp.Events();
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1].type, EVENTLOG_INFORMATION_TYPE);
}

TEST_F(WireSession, ReconnectGivesUpAfterTenRefusedConnects) {
    uint16_t deadPort;
    {
        ScriptPeer gone;  // a port that was free a moment ago and now refuses
        deadPort = gone.port();
    }
    std::snprintf(g_session.AgentIP, sizeof g_session.AgentIP, "127.0.0.1");
    g_session.Port = deadPort;
    AllocatePacketBuffer();
    g_transport.sock = -1;
    EXPECT_EQ(ProxyReconnect(), -1);
    const std::string log = tp.DebuggerText();
    EXPECT_NE(log.find("reconnect failed (err -1)\n"), std::string::npos) << log;
    const std::string refused = "socket connect to port " + std::to_string(deadPort) + " failed, error ";
    size_t count = 0;
    for (size_t at = log.find(refused); at != std::string::npos; at = log.find(refused, at + 1)) ++count;
    EXPECT_EQ(count, 10u);
}

// --- Time limits, on the fake clock in manual mode (no real wait) -------------------------------

struct LimitCase {
    uint32_t setting;  // ReplyTimeout, seconds
    uint64_t limitMs;  // the limit it gives
};

class HandshakeLimit : public WireSession, public ::testing::WithParamInterface<LimitCase> {};

// The original waits 600 s for an answer; ReplyTimeout may lower that, never raise it.
TEST_P(HandshakeLimit, AnAnswerThatNeverComesEndsAtTheLimit) {
    const LimitCase& c = GetParam();
    SetReplyTimeout(c.setting);
    ScriptPeer peer;
    peer.Accept();
    peer.OnRequest(nullptr);  // takes the handshake and never answers
    peer.ExpectClosed();
    peer.Start();
    peer.AttachTransport();
    Configure(peer, "admin", "pw");
    tp.clock().SetAuto(false);

    testlib::CallOnClock call(tp.clock(), [] { return Handshake(g_transport.PacketBuffer); });
    ASSERT_TRUE(call.Blocked());
    EXPECT_TRUE(call.AdvanceStillWaits(c.limitMs - 1));
    EXPECT_TRUE(call.AdvanceEnds(1));
    EXPECT_EQ(call.Join(), -1);
    EXPECT_EQ(call.Elapsed(), c.limitMs);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    ExpectDropped(kNoReplyInTime);
    ExpectOneFailure("handshake", "no reply in time)");
    EXPECT_TRUE(Logged("OOP!! exec_cmnd FD_ISSET error\n"));
}

INSTANTIATE_TEST_SUITE_P(Settings, HandshakeLimit,
                         ::testing::Values(LimitCase{0, 600000}, LimitCase{1, 1000}, LimitCase{45, 45000},
                                           LimitCase{600, 600000}, LimitCase{601, 600000},
                                           LimitCase{0xFFFFFFFF, 600000}),
                         [](const ::testing::TestParamInfo<LimitCase>& i) {
                             return "ReplyTimeout" + std::to_string(i.param.setting);
                         });

TEST_F(WireSession, AnAnswerWhosePayloadStopsShortEndsAtTheLimit) {
    SetReplyTimeout(30);
    ScriptPeer peer;
    Serve(peer, {Truncated(LoginAnswer(1, 9), 40)}, End::ClientCloses);  // 4 of the 12 bytes it announces
    Configure(peer, "admin", "pw");
    g_transport.SessionKey = 0x77;
    tp.clock().SetAuto(false);

    testlib::CallOnClock call(tp.clock(), [] { return Login(g_transport.PacketBuffer); });
    // Waiting for the rest of the payload: the peer has sent what it sends, the client read it.
    ASSERT_TRUE(call.BlockedWhen([&] { return peer.stepsDone() >= 2 && testlib::CallOnClock::NothingUnread(); }));
    EXPECT_TRUE(call.AdvanceStillWaits(29999));
    EXPECT_TRUE(call.AdvanceEnds(1));
    EXPECT_EQ(call.Join(), -1);
    EXPECT_EQ(call.Elapsed(), 30000u);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    ExpectDropped(kNoReplyInTime);
    ExpectOneFailure("login", "the answer's 12 bytes of payload did not all come: no reply in time)");
    EXPECT_TRUE(Logged("recvdata timed out after 30000 ms, 4 of 12 bytes\n")) << tp.DebuggerText();
    EXPECT_EQ(g_transport.SessionKey.load(), 0x77u);
}

TEST_F(WireSession, AConnectThatHangsEndsAtTheLimit) {
    // A listener whose one place in its queue is taken: the system drops further connection
    // requests, so that a connect neither succeeds nor fails.
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len), 0);
    int filler = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(filler, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const uint16_t port = ntohs(addr.sin_port);
    SetReplyTimeout(2);
    tp.clock().SetAuto(false);

    testlib::CallOnClock call(tp.clock(), [port] { return ConnectProxySocket("127.0.0.1", port) == 0 ? 0 : errno; });
    ASSERT_TRUE(call.Blocked());
    EXPECT_TRUE(call.AdvanceStillWaits(1999));
    EXPECT_TRUE(call.AdvanceEnds(1));
    EXPECT_EQ(call.Join(), ETIMEDOUT);
    EXPECT_EQ(call.Elapsed(), 2000u);
    EXPECT_EQ(g_transport.sock.load(), -1);
    EXPECT_TRUE(Logged("socket connect to port " + std::to_string(port) + " failed, error " +
                       std::to_string(ETIMEDOUT) + "\n"))
        << tp.DebuggerText();
    ::close(filler);
    ::close(listener);
}

// --- Through a provider load, against the emulator ---------------------------------------------

std::vector<CComPtr<IVdsController>> ControllersOf(IVdsSubSystem* ss) {
    return testlib::CollectFrom<IVdsController>([&](IEnumVdsObject** e) { return ss->QueryControllers(e); },
                                                IID_IVdsController);
}

// The settings' ReplyTimeout reaches the transport before the first connection is made.
TEST(LoadLimits, ReplyTimeoutFromTheSettingsBoundsALoad) {
    testlib::ProviderEnv env;
    testlib::HostFailures failures;
    env.tp.settings().SetDword(TROV_PARAMETERS_KEY, "ReplyTimeout", 7);
    env.sim->AddFault({trovsim::FaultKind::kNeverAnswer, 0, 0, 1, 0});  // the subsystem list
    env.tp.clock().SetAuto(false);
    HRESULT hr = E_FAIL;
    testlib::CallOnClock call(env.tp.clock(), [&] {
        hr = env.Load();
        return 0;
    });
    ASSERT_TRUE(call.BlockedWhen([&] { return env.sim->stats().commands >= 1; }));
    EXPECT_TRUE(call.AdvanceStillWaits(6999));
    EXPECT_TRUE(call.AdvanceEnds(1));
    call.Join();
    EXPECT_EQ(call.Elapsed(), 7000u);
    EXPECT_EQ(hr, VDS_E_INITIALIZED_FAILED);  // the load's answer to a subsystem list that failed
    EXPECT_EQ(failures.lines(), std::vector<std::string>{
                                    "the exchange with the proxy service failed at get_subsystems (no reply in time)"});
    env.tp.clock().SetAuto(true);
}

// A controller's record that comes after the limit. The original keeps the connection, so that
// the late record is read as the answer to the next command of its kind: controller B's record
// turns out to be A's, and the tree silently loses a controller. Here the load tells the host, the
// next command fails at once instead of reading the late record, and after the reconnect (the
// event monitor's) and at the next load each controller has its own record.
TEST(LoadLimits, ARecordThatComesAfterTheLimitIsNeverTakenForAnother) {
    trovsim::Options options;
    options.manualClock = true;
    testlib::ProviderEnv env("demo", options);
    testlib::HostFailures failures;
    uint32_t handleB = 0;
    env.sim->WithModel([&](trovsim::Model& m) { handleB = m.subsystems().at(0).ctrl[1].handle; });
    env.sim->DelayReply(1, 700000);  // the first controller record
    env.tp.clock().SetAuto(false);
    HRESULT hr = E_FAIL;
    testlib::CallOnClock call(env.tp.clock(), [&] {
        hr = env.Load();
        return 0;
    });
    ASSERT_TRUE(call.BlockedWhen([&] { return env.sim->stats().delayedReplies == 1; }));
    EXPECT_TRUE(call.AdvanceStillWaits(599999));
    EXPECT_TRUE(call.AdvanceEnds(1));
    call.Join();
    EXPECT_EQ(hr, S_OK);
    const auto lines = failures.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0], "the exchange with the proxy service failed at get_controller_data (no reply in time)");
    EXPECT_NE(g_transport.LastSocketError.load(), 0);  // the monitor's cue to reconnect
    for (auto& ss : env.SubSystems()) EXPECT_EQ(ControllersOf(ss).size(), 2u);

    env.sim->AdvanceTime(700000);  // the late record goes out
    ASSERT_TRUE(testlib::Eventually([&] { return env.sim->stats().delayedReplies == 0; }));
    auto record = std::make_unique<std::vector<uint8_t>>(rec::kControllerDataSize);
    EXPECT_EQ(Kelvane::get_controller_data(handleB, record->data()), -1);
    ASSERT_EQ(ProxyReconnect(), 0);
    ASSERT_EQ(Kelvane::get_controller_data(handleB, record->data()), 0);
    EXPECT_EQ(reinterpret_cast<const ControllerData*>(record->data())->controller.controllerId, 0);  // B's

    env.tp.clock().SetAuto(true);
    env.Unload();
    ASSERT_EQ(env.Load(), S_OK);
    auto subsystems = env.SubSystems();
    ASSERT_EQ(subsystems.size(), 1u);
    EXPECT_EQ(ControllersOf(subsystems[0]).size(), 2u);
}

// The emulator's faults on a loaded provider's connection: each malformed reply closes the
// connection, the next command fails at once, and the reconnect (the event monitor's) restores it.
struct FaultCase {
    const char* name;
    trovsim::FaultKind kind;
    uint32_t value;
    int32_t lastSocketError;
    const char* reason;
};

class EmulatorFault : public ::testing::TestWithParam<FaultCase> {};

TEST_P(EmulatorFault, ClosesTheConnectionUntilTheReconnect) {
    const FaultCase& c = GetParam();
    testlib::ProviderEnv env;
    ASSERT_EQ(env.Load(), S_OK);
    testlib::HostFailures failures;
    env.sim->AddFault({c.kind, cmd::kGetVersion.opcode, 0, 1, c.value});

    EXPECT_EQ(Kelvane::get_version(), -1);
    EXPECT_EQ(g_transport.sock.load(), -1);
    EXPECT_EQ(g_transport.LastSocketError.load(), c.lastSocketError);
    const uint64_t commands = env.sim->stats().commands;
    EXPECT_EQ(Kelvane::get_version(), -1);
    EXPECT_EQ(env.sim->stats().commands, commands);
    const auto lines = failures.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], std::string("the exchange with the proxy service failed at get_version (") + c.reason + ")");

    ASSERT_EQ(ProxyReconnect(), 0);
    EXPECT_EQ(Kelvane::get_version(), 0);
    EXPECT_EQ(g_transport.LastSocketError.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, EmulatorFault,
    ::testing::Values(FaultCase{"ShortHeader", trovsim::FaultKind::kShortHeader, 20, kMalformedReply,
                                "a reply header of 20 bytes"},
                      FaultCase{"WrongOpcode", trovsim::FaultKind::kWrongOpcode, 0, kMalformedReply,
                                "a reply of DataType 2, OpCode 12"},
                      FaultCase{"HugeDataLen", trovsim::FaultKind::kHugeDataLen, 0, kMalformedReply,
                                "a reply of 2147483632 bytes, more than the packet buffer holds"},
                      FaultCase{"Close", trovsim::FaultKind::kClose, 0, kClosedByService,
                                "connection closed by the service"}),
    [](const ::testing::TestParamInfo<FaultCase>& i) { return std::string(i.param.name); });

// --- Transport routines --------------------------------------------------------------------------

TEST_F(WireSession, ExecCmndHealsTheErrorAndCountsAClosedPeerAsOne) {
    ScriptPeer peer;
    Serve(peer, {ScriptPeer::Reply(3, {})}, End::PeerCloses);
    uint8_t* b = g_transport.PacketBuffer;
    g_transport.LastSocketError = 104;
    MakeHeader(b, 1, 3);
    EXPECT_EQ(exec_cmnd(b, 36, b, 36), 36);
    EXPECT_EQ(g_transport.LastSocketError.load(), 0);
    EXPECT_EQ(wire::DataTypeOf(b), 2u);
    MakeHeader(b, 1, 3);
    EXPECT_EQ(exec_cmnd(b, 36, b, 36), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_NE(g_transport.LastSocketError.load(), 0);
    EXPECT_TRUE(Logged("OOP!! exec_cmnd recv error 0x")) << tp.DebuggerText();
}

TEST_F(WireSession, ExecCmndSendFailureKeepsTheSocketError) {
    AllocatePacketBuffer();
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    ::close(fds[1]);
    g_transport.sock = fds[0];  // not a socket: send fails with ENOTSOCK
    uint8_t* b = g_transport.PacketBuffer;
    MakeHeader(b, 1, 0);
    EXPECT_EQ(exec_cmnd(b, 36, b, 36), -1);
    EXPECT_EQ(g_transport.LastSocketError.load(), ENOTSOCK);
    char line[64];
    std::snprintf(line, sizeof line, "OOP!! exec_cmnd send error errorcode 0x%x\n", ENOTSOCK);
    EXPECT_TRUE(Logged(line)) << tp.DebuggerText();
    ::close(fds[0]);
    g_transport.sock = 0;
}

TEST_F(WireSession, RecvdataGathersPiecesAndReportsAnEarlyEnd) {
    ScriptPeer peer;
    peer.Accept();
    peer.SendRaw({1, 2, 3});
    peer.SendRaw({4, 5});
    peer.SendRaw({6, 7});
    peer.CloseConnection();
    peer.Start();
    peer.AttachTransport();
    uint8_t buf[8] = {};
    EXPECT_EQ(recvdata(buf, 0), 0);
    EXPECT_EQ(recvdata(buf, -5), 0);
    EXPECT_EQ(recvdata(buf, 5), 5);
    EXPECT_EQ(Bytes(buf, buf + 5), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(recvdata(buf, 4), -1);
    ASSERT_TRUE(peer.Finish()) << peer.failure();
    EXPECT_TRUE(Logged("recvdata len = 0\n")) << tp.DebuggerText();
    // Kept, so that the event monitor reconnects.
    EXPECT_EQ(g_transport.LastSocketError.load(), kClosedByService);
}

TEST_F(WireSession, MakeHeaderNumbersEveryHeaderAndWrapsTheCounter) {
    uint8_t b[36];
    g_transport.sequence = 0xFFFFFFFF;
    g_transport.SessionKey = 0x80000000;
    EXPECT_EQ(MakeHeader(b, 5, 0), 36);
    EXPECT_EQ(Bytes(b, b + 36), Header(0xFFFFFFFF, 0x80000000, 5, 0, 0));
    EXPECT_EQ(MakeHeader(b, 1, 77), 36);
    EXPECT_EQ(Bytes(b, b + 36), Header(0, 0x80000000, 1, 77, 0));
    EXPECT_EQ(g_transport.sequence.load(), 1u);
}

// --- The scripted peer itself: a script that can't be played must say so ---------------------------

TEST_F(WireSession, ScriptPeerFailsWhenTheClientLeavesBeforeItsRequest) {
    ScriptPeer peer;
    Serve(peer, {PortAnswer()});
    CloseProxySocket(0);
    EXPECT_FALSE(peer.Finish());
    EXPECT_EQ(peer.failure(), "request header not read");
    EXPECT_TRUE(peer.requests().empty());
}

TEST_F(WireSession, ScriptPeerRefusesAnOversizedRequest) {
    ScriptPeer peer;
    Serve(peer, {PortAnswer()});
    uint8_t* b = g_transport.PacketBuffer;
    MakeHeader(b, 1, 0);
    wire::StoreBe32(b + wire::kDataLenOffset, 5u << 20);
    ASSERT_EQ(::send(g_transport.sock.load(), b, 36, MSG_NOSIGNAL), 36);
    EXPECT_FALSE(peer.Finish());
    EXPECT_EQ(peer.failure(), "request DataLen too large");
}

TEST_F(WireSession, ScriptPeerTimesOutWithoutAClientAndEndsAtOnce) {
    ScriptPeer peer;
    peer.Accept();
    peer.Start();
    EXPECT_FALSE(peer.Finish(20));
}

}  // namespace
