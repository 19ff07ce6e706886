#include "veyrasvc/stream/HashUtils.h"

#include "veyrasvc/stream/SimpleStream.h"
#include "veyrasvc/util/LogStatement.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Vantor::Sentrix {

namespace {

constexpr DWORD kMd5Length = 16;
constexpr std::int64_t kPieceBytes = 8192;
constexpr char kHexDigits[] = "0123456789ABCDEF";

// Whether opening it cannot wait, as it does for the other end of a named pipe. False also when there is no such file.
bool IsNoDevice(const std::string& path) {
    const DWORD attributes = GetFileAttributesA(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DEVICE) == 0;
}

std::string Hex(const std::string& bytes) {
    std::string digits;
    CryptMD5::BytesToHexString(bytes, digits);
    return digits;
}

// The digest of what `update` feeds to the hash.
template <class Feed> std::string Md5Of(Feed update) {
    std::string digest(kMd5Length, '\0');
    CryptMD5 hash;
    hash.Init();
    update(hash);
    hash.Final(reinterpret_cast<unsigned char*>(digest.data()));
    return digest;
}

} // namespace

struct CryptBase::Context {
    HCRYPTPROV provider;
    HCRYPTHASH hash;
};

CryptBase::CryptBase(DWORD algorithm, DWORD hashLength) : m_algorithm(algorithm), m_hashLength(hashLength) {}

CryptBase::~CryptBase() {
    Reset();
}

CryptBase::CryptBase(CryptBase&& other) noexcept
    : m_context(std::exchange(other.m_context, nullptr)), m_algorithm(other.m_algorithm),
      m_hashLength(other.m_hashLength) {}

CryptBase& CryptBase::operator=(CryptBase&& other) noexcept {
    if (this != &other) {
        Reset();
        m_context = std::exchange(other.m_context, nullptr);
        m_algorithm = other.m_algorithm;
        m_hashLength = other.m_hashLength;
    }
    return *this;
}

CryptBase::Context* CryptBase::CreateContext(DWORD algorithm) {
    auto* const context = new (std::nothrow) Context{};
    const DWORD type = algorithm == CALG_SHA_256 ? PROV_RSA_AES : PROV_RSA_FULL; // PROV_RSA_FULL has no SHA-256
    if (context == nullptr ||
        CryptAcquireContextW(&context->provider, nullptr, nullptr, type, CRYPT_VERIFYCONTEXT) == FALSE) {
        delete context;
        return nullptr;
    }
    if (CryptCreateHash(context->provider, algorithm, 0, 0, &context->hash) == FALSE) {
        CryptReleaseContext(context->provider, 0);
        delete context;
        return nullptr;
    }
    return context;
}

void CryptBase::DestroyContext(Context* context) {
    CryptDestroyHash(context->hash);
    CryptReleaseContext(context->provider, 0);
    delete context;
}

void CryptBase::Init() {
    if (m_context == nullptr) {
        m_context = CreateContext(m_algorithm);
    }
}

void CryptBase::Update(const void* data, std::int64_t length) {
    if (data == nullptr || length < 0 || m_context == nullptr ||
        CryptHashData(m_context->hash, static_cast<const BYTE*>(data), static_cast<DWORD>(length), 0) == FALSE) {
        LOG_DEBUG("WincryptUpdate fail");
    }
}

void CryptBase::Update(Stream& stream, std::int64_t length) {
    char buffer[kPieceBytes] = {}; // once: what a short read leaves out is hashed as what is there
    for (std::int64_t left = length; left > 0;) {
        const std::int64_t piece = std::min(left, kPieceBytes);
        stream.ReadBuffer(buffer, static_cast<unsigned int>(piece));
        Update(buffer, piece);
        left -= piece;
    }
}

void CryptBase::Final(unsigned char* digest) {
    if (digest == nullptr) {
        return;
    }
    if (m_context == nullptr || CryptGetHashParam(m_context->hash, HP_HASHVAL, digest, &m_hashLength, 0) == FALSE) {
        LOG_DEBUG("WincryptFinal fail");
    }
}

void CryptBase::Reset() {
    if (m_context != nullptr) {
        DestroyContext(std::exchange(m_context, nullptr));
    }
}

CryptMD5::CryptMD5() : CryptBase(CALG_MD5, kMd5Length) {}

std::string CryptMD5::GetBufferMd5(const void* data, DWORD length) {
    if (data == nullptr || length == 0) {
        return {};
    }
    return Md5Of([&](CryptMD5& hash) { hash.Update(data, length); });
}

std::string CryptMD5::GetBufferMd5Hex(const void* data, DWORD length) {
    return Hex(GetBufferMd5(data, length));
}

std::string CryptMD5::GetStringMd5(const std::string& text) {
    return GetBufferMd5(text.data(), static_cast<DWORD>(text.size()));
}

std::string CryptMD5::GetStringMd5Hex(const std::string& text) {
    return Hex(GetStringMd5(text));
}

std::string CryptMD5::GetStreamMd5(Stream& stream, std::int64_t length) {
    if (length < 0) {
        return std::string(kMd5Length, '\0'); // not the digest of nothing, which would look like a result
    }
    return Md5Of([&](CryptMD5& hash) { hash.Update(stream, length); });
}

std::string CryptMD5::GetFileMd5(const std::string& path) {
    if (IsNoDevice(path)) {
        FileStream file(path, FileStream::kShareAll);
        const std::int64_t size = GetFileType(file.m_handle) == FILE_TYPE_DISK ? file.GetSize() : -1;
        if (size >= 0) {
            return GetStreamMd5(file, size);
        }
    }
    LOG_DEBUG("getmd5 open faild error:" << path);
    return {};
}

std::string CryptMD5::GetFileMd5Hex(const std::string& path) {
    return Hex(GetFileMd5(path));
}

void CryptMD5::BytesToHexString(const std::string& bytes, std::string& out) {
    // From the end on, so that no byte is overwritten before it was read.
    const std::size_t count = bytes.size();
    out.resize(2 * count);
    for (std::size_t i = count; i-- > 0;) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        out[2 * i + 1] = kHexDigits[byte & 15];
        out[2 * i] = kHexDigits[byte >> 4];
    }
}

} // namespace Vantor::Sentrix
