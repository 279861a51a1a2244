// Transport to the proxy service: one TCP connection, one packet buffer, one request in flight.
//
// MakeHeader builds the 36-byte header (sequence number and check value of the session);
// exec_cmnd sends a request and takes the first bytes of the reply with one receive; recvdata
// reads the rest of a payload; ConnectProxySocket makes the connection. State is process-wide,
// grouped in g_transport; the values that several threads touch are atomics.
//
// Every wait is bounded by the reply limit (600 s unless the settings lower it) and runs on the
// Platform clock: the first bytes of a reply, the rest of its payload, and the connect. After a
// failed or malformed exchange its caller closes the connection with DropConnection, so that no
// late byte of that reply can be read as another command's; LastSocketError then stays non-zero
// until a reconnect (the event monitor's, or the next load) has made a new connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

// LastSocketError: 0 after a good exchange, an errno value, or one of these.
constexpr int32_t kClosedByService = -1;  // the service closed the connection
constexpr int32_t kNoReplyInTime = -2;    // no reply (or not all of it) within the limit
constexpr int32_t kMalformedReply = -3;   // a reply cut short, of another kind, or larger than the buffer

// The longest wait for a reply, and its bounds as the settings give it (seconds).
constexpr uint32_t kDefaultReplyTimeoutSeconds = 600;

struct TransportState {
    std::atomic<int> sock{0};                 // -1 while a reconnect replaces it or after a drop
    uint8_t* PacketBuffer = nullptr;          // kPacketBufferSize bytes, from the connect sequence
    std::atomic<uint32_t> sequence{0};        // never reset, also not by a reconnect
    std::atomic<uint32_t> SessionKey{0};
    std::atomic<int32_t> LastSocketError{0};
    std::atomic<uint32_t> replyTimeoutMs{kDefaultReplyTimeoutSeconds * 1000};
};

extern TransportState g_transport;

int MakeHeader(uint8_t* buffer, uint32_t dataType, uint32_t opCode);
int exec_cmnd(uint8_t* sendBuffer, int sendLength, uint8_t* recvBuffer, int recvLength);
// Reads exactly maxlen bytes; they must all come within the reply limit. -1 when the connection
// ends (LastSocketError the error, or kClosedByService) or the limit passes (kNoReplyInTime).
int recvdata(uint8_t* buffer, int maxlen);
// Connects within the reply limit; 0, or -1 with errno telling why (ETIMEDOUT at the limit).
int ConnectProxySocket(const char* ipText, uint16_t port);
// Closes the connection (if any) and leaves `closed` in sock.
void CloseProxySocket(int closed);
// After a failed or malformed exchange: shuts the connection down and closes it, leaves -1 in
// sock (the next exchange fails at once, never reading what the old connection still held) and
// `reason` in LastSocketError (0: keep the exchange's own error, or kClosedByService if none), so
// that the event monitor reconnects.
void DropConnection(int32_t reason);

// The reply limit in seconds: 1..600 lowers it; 0 or more than 600 gives 600.
void SetReplyTimeout(uint32_t seconds);
uint32_t ReplyTimeoutMs();

// Allocates the packet buffer once; frees it. (The connect sequence and ProxyUnInit.)
bool AllocatePacketBuffer();
void FreePacketBuffer();

// Words for a LastSocketError value: the system's text, "no reply in time" for -2, "connection
// closed by the service" for -1, "a malformed reply" for -3.
std::string TransportErrorText(int32_t lastSocketError);

// Returns the transport to its state at process start, closing what is open (tests only).
void ResetTransportForTest();
