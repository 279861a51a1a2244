// The login password cipher.
//
// DES in electronic code book mode, with one twist that the service expects: the bits of every
// byte are numbered from the low end. That equals reversing the bits of each byte of text and
// key, running standard DES, and reversing the bits of each byte of the result; as a
// consequence the key's parity bits are the top bit of each byte. The key is fixed in the client.
#pragma once

#include <cstddef>
#include <cstdint>

// The fixed key of the password field, the same for every user and session.
extern const char kPasswordKey[9];  // "tulnofra"

// One 8-byte block in place, with the low-end bit numbering of the service.
void TrovDesEncryptBlock(const uint8_t key[8], uint8_t block[8]);
void TrovDesDecryptBlock(const uint8_t key[8], uint8_t block[8]);

// Standard DES (bit 1 is the most significant bit of the first byte), one block in place.
void DesEncryptBlock(const uint8_t key[8], uint8_t block[8]);
void DesDecryptBlock(const uint8_t key[8], uint8_t block[8]);

// Reverses the bit order of each of the n bytes in place.
void ReverseBitsOfBytes(uint8_t* bytes, size_t n);

// Enciphers the 48-byte password field of the login record in place, with kPasswordKey.
// Of the text (up to the first NUL, at most 48 bytes) the first 40 characters at most are
// enciphered, padded with blanks to whole blocks. When the text fits, the enciphered blocks and
// a NUL behind them replace it; a longer text keeps its tail beyond 40 in clear and gets no NUL.
void EncipherPasswordField(uint8_t field[48]);

// The reverse, for the service's side: recovers the clear password of `passwordLength`
// characters (the login record's length byte) from an enciphered field. Writes at most
// outSize-1 characters and a NUL; false when passwordLength exceeds 48 or outSize is 0.
bool DecipherPasswordField(const uint8_t field[48], unsigned passwordLength, char* out, size_t outSize);
