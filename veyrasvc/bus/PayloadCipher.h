// The cipher of message bodies: AES-256 in CBC mode under the key of the build, a fresh random IV for every message,
// and 1 to 16 bytes of padding, each of which holds their number.
//
// Threads: all functions are reentrant and need no lock.
// Owns: the blocks that EncryptPayload and DecryptPayload hand out are released with operator delete.
// Fails: -1 (GenerateRandom: false), and the out pointers are null. Nothing is logged: the callers do.
#pragma once

#include <cstddef>

namespace Vantor::Sentrix {

constexpr std::size_t kCipherBlockSize = 16; // of the IV as well

// Fills the buffer from the system's cryptographic random generator.
bool GenerateRandom(unsigned char* buffer, std::size_t length);

// Ciphertext of `length` rounded down to whole blocks plus one block, and the 16-byte IV it was made with. An empty
// plaintext is refused.
int EncryptPayload(const unsigned char* plain, std::size_t length, unsigned char** cipher, std::size_t* cipherLength,
                   unsigned char** iv);

// The plaintext; `*plainLength` may come out as 0. Refused: a length that is not a multiple of 16, bad padding.
int DecryptPayload(const unsigned char* iv, const unsigned char* cipher, std::size_t length, unsigned char** plain,
                   std::size_t* plainLength);

// The same between buffers of the caller, which may be one and the same. `out` takes `length` rounded down to whole
// blocks plus one block for EncryptCbc, `length` bytes for DecryptCbc.
int EncryptCbc(const unsigned char* iv, const unsigned char* in, std::size_t length, unsigned char* out,
               std::size_t* outLength);
int DecryptCbc(const unsigned char* iv, const unsigned char* in, std::size_t length, unsigned char* out,
               std::size_t* outLength);

// The block transforms alone: 16 bytes to 16 bytes, each the other's inverse. 0, or -1 when the system has no cipher.
int EncryptBlock(const unsigned char* in, unsigned char* out);
int DecryptBlock(const unsigned char* in, unsigned char* out);

} // namespace Vantor::Sentrix
