// Message digests over memory, strings, streams and files, by the system's cryptographic service provider.
//
// For one digest at one go take a helper of CryptMD5. For bytes that come in pieces, or another algorithm:
//
//   CryptBase hash(CALG_SHA_256, 32);
//   hash.Init();
//   hash.Update(first, firstLength); // any number of times, also from streams
//   hash.Update(second, secondLength);
//   unsigned char digest[32] = {};
//   hash.Final(digest);
//
// MD5 (RFC 1321) and SHA-1 tell whether bytes were damaged. They do not tell whether somebody changed them on purpose;
// SHA-256 (FIPS 180-4) does.
//
// Threads: an object belongs to one thread at a time; different objects are independent. The static helpers make an
// object of their own at each call and may run on any number of threads at once.
// Fails: with a line at DEBUG in the library's log and a digest that stays as it was, so hand in one of zeros. Only
// without memory for the string that it returns, or for `out`, does an operation throw: std::bad_alloc.
#pragma once

#include "veyrasvc/platform/Export.h"
#include "veyrasvc/platform/Win32.h"

#include <cstdint>
#include <string>

namespace Vantor::Sentrix {

class Stream;

// One hash. It is empty until Init(), then takes data until Final() reads the value; Reset() makes it empty again.
// Owns: the provider's hash object from Init() to Reset() or the destructor. Streams and buffers are borrowed.
class VEYRASVC_API CryptBase {
public:
    // `algorithm` is a CALG_ number, `hashLength` the length of its digests in bytes.
    CryptBase(DWORD algorithm, DWORD hashLength);
    virtual ~CryptBase();

    // The hash goes from one object to the other, with all that it has taken so far. The source is empty afterwards and
    // may be used again, for its own algorithm. Assigning first drops what the target had.
    CryptBase(CryptBase&& other) noexcept;
    CryptBase& operator=(CryptBase&& other) noexcept;
    CryptBase(const CryptBase&) = delete;
    CryptBase& operator=(const CryptBase&) = delete;

    // Starts a hash; does nothing when there is one already. SHA-256 is computed by the provider of type PROV_RSA_AES,
    // every other algorithm by that of PROV_RSA_FULL.
    // Fails: the object stays empty when the provider does not know the algorithm; what follows then logs and does
    // nothing.
    void Init();

    // Hashes `length` bytes.
    // Limits: less than 4 GiB a call; of a greater length only the low 32 bits count.
    // Fails: logs "WincryptUpdate fail" for null or a negative length, for an empty object, and after Final().
    void Update(const void* data, std::int64_t length);

    // Hashes `length` bytes of `stream` from its position on, through one buffer of 8192 bytes. Nothing for a negative
    // length. Bytes that the stream cannot deliver are hashed all the same, as zeros or as a repetition of earlier
    // ones: the length is the caller's promise. Fails: as above, once for each piece.
    void Update(Stream& stream, std::int64_t length);

    // Writes the digest. The hash takes no more data then; to hash again, Reset() and Init(). Null does nothing.
    // Requires: room in `digest` for a whole digest of the algorithm, whatever was given as its length.
    // Fails: logs "WincryptFinal fail" for an empty object, and when the length that was given is too short; it has
    // then become the right one.
    void Final(unsigned char* digest);

    // Drops the hash.
    void Reset();

private:
    struct Context;
    static Context* CreateContext(DWORD algorithm);
    static void DestroyContext(Context* context);

    Context* m_context = nullptr; // null: empty
    DWORD m_algorithm;
    DWORD m_hashLength;
};

// MD5. Digests are given as 16 raw bytes, or as 32 upper-case hexadecimal digits by the helpers whose names say Hex.
// Fails: where the system refuses to compute MD5, the helpers log and give 16 zero bytes or 32 zeros.
class VEYRASVC_API CryptMD5 : public CryptBase {
public:
    CryptMD5();

    // Of bytes in memory, less than 4 GiB. Empty when there are none.
    static std::string GetBufferMd5(const void* data, DWORD length);
    static std::string GetBufferMd5Hex(const void* data, DWORD length);
    static std::string GetStringMd5(const std::string& text);
    static std::string GetStringMd5Hex(const std::string& text);

    // Of `length` bytes from the stream's position on, as CryptBase::Update takes them; 16 zero bytes for a negative
    // length.
    static std::string GetStreamMd5(Stream& stream, std::int64_t length);

    // Of the file as long as it is when it is opened. Others may read and write it meanwhile; an empty file has a
    // digest too. The path is in the form that the FileStream for narrow names takes.
    // Fails: an empty string when it cannot be opened, is no file on a disk (but a pipe, say), or has no size that the
    // system knows; logs "getmd5 open faild error:" and the path.
    static std::string GetFileMd5(const std::string& path);
    static std::string GetFileMd5Hex(const std::string& path);

    // Two digits a byte. `out` may be `bytes` itself.
    static void BytesToHexString(const std::string& bytes, std::string& out);
};

} // namespace Vantor::Sentrix
