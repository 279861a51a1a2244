// Transport to the proxy service: one TCP connection, one packet buffer, one request in flight.
//
// MakeHeader builds the 36-byte header (sequence number and check value of the session);
// exec_cmnd sends a request and takes the first bytes of the reply with one receive; recvdata
// reads the rest of a payload; ConnectProxySocket makes the connection. State is process-wide,
// grouped in g_transport; the values that several threads touch are atomics.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

struct TransportState {
    std::atomic<int> sock{0};                 // -1 while a reconnect replaces it
    uint8_t* PacketBuffer = nullptr;          // kPacketBufferSize bytes, from the connect sequence
    std::atomic<uint32_t> sequence{0};        // never reset, also not by a reconnect
    std::atomic<uint32_t> SessionKey{0};
    std::atomic<int32_t> LastSocketError{0};
};

extern TransportState g_transport;

int MakeHeader(uint8_t* buffer, uint32_t dataType, uint32_t opCode);
int exec_cmnd(uint8_t* sendBuffer, int sendLength, uint8_t* recvBuffer, int recvLength);
int recvdata(uint8_t* buffer, int maxlen);
int ConnectProxySocket(const char* ipText, uint16_t port);
// Closes the connection (if any) and leaves `closed` in sock.
void CloseProxySocket(int closed);

// Allocates the packet buffer once; frees it. (The connect sequence and ProxyUnInit.)
bool AllocatePacketBuffer();
void FreePacketBuffer();

// Words for a LastSocketError value: the system's text, "no reply in time" for -2, "connection
// closed by the service" for -1.
std::string TransportErrorText(int32_t lastSocketError);

// Returns the transport to its state at process start, closing what is open (tests only).
void ResetTransportForTest();
