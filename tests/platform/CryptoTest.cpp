// The random source, AES-CBC against the vectors of NIST SP 800-38A (F.2.1, F.2.3, F.2.5), and hashes of "abc" against
// RFC 1321 and the examples to FIPS 180-4.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Vantor::Sentrix {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes FromHex(const std::string& hex) {
    Bytes bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

const Bytes kIv = FromHex("000102030405060708090a0b0c0d0e0f");
const Bytes kPlain = FromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");

struct Vector {
    const char* key;
    const char* cipher;
};
const Vector kVectors[] = {
    {"2b7e151628aed2a6abf7158809cf4f3c", "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
    {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
     "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"},
    {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
     "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"},
};

// The caller destroys it.
BCRYPT_KEY_HANDLE MakeKey(Bytes bytes) {
    static const BCRYPT_ALG_HANDLE algorithm = [] {
        BCRYPT_ALG_HANDLE opened = nullptr;
        auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
        EXPECT_EQ(BCryptOpenAlgorithmProvider(&opened, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
        EXPECT_EQ(BCryptSetProperty(opened, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0), 0);
        return opened;
    }();
    BCRYPT_KEY_HANDLE key = nullptr;
    const auto size = static_cast<ULONG>(bytes.size());
    EXPECT_EQ(BCryptGenerateSymmetricKey(algorithm, &key, nullptr, 0, bytes.data(), size, 0), 0);
    return key;
}

// One message in place, by a key of its own: the blocks before `cut`, then the others. The IV carries the chain on.
NTSTATUS Transform(decltype(&BCryptEncrypt) transform, const Bytes& keyBytes, Bytes& text, std::size_t cut) {
    const BCRYPT_KEY_HANDLE key = MakeKey(keyBytes);
    Bytes iv = kIv;
    NTSTATUS status = 0;
    for (std::size_t from = 0, to = cut; from < text.size() && status == 0; from = to, to = text.size()) {
        ULONG written = 0;
        unsigned char* const at = text.data() + from;
        const auto size = static_cast<ULONG>(to - from);
        status = transform(key, at, size, nullptr, iv.data(), 16, at, size, &written, 0);
        EXPECT_TRUE(status != 0 || written == size) << written;
    }
    EXPECT_EQ(BCryptDestroyKey(key), 0);
    return status;
}

TEST(CryptoTest, AesGivesThePublishedCiphertextAtOnceAndInParts) {
    for (const Vector& one : kVectors) {
        const Bytes key = FromHex(one.key);
        for (const std::size_t cut : {16, 32}) {
            Bytes text = kPlain;
            EXPECT_EQ(Transform(&BCryptEncrypt, key, text, cut), 0);
            EXPECT_EQ(text, FromHex(one.cipher)) << "cut at " << cut;
            EXPECT_EQ(Transform(&BCryptDecrypt, key, text, cut), 0);
            EXPECT_EQ(text, kPlain) << "cut at " << cut;
        }
        Bytes text = kPlain;
        EXPECT_EQ(static_cast<std::uint32_t>(Transform(&BCryptEncrypt, key, text, 17)), 0xC0000206U);
        EXPECT_EQ(text, kPlain) << "part of a block";
    }
}

TEST(CryptoTest, RandomBytesDiffer) {
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT));
    Bytes first(16);
    Bytes second(16);
    ASSERT_TRUE(CryptGenRandom(provider, 16, first.data()));
    ASSERT_TRUE(CryptGenRandom(provider, 16, second.data()));
    EXPECT_NE(first, second);
    EXPECT_TRUE(CryptReleaseContext(provider, 0));
}

HCRYPTPROV Acquire(DWORD type) {
    HCRYPTPROV provider = 0;
    EXPECT_TRUE(CryptAcquireContextW(&provider, nullptr, nullptr, type, CRYPT_VERIFYCONTEXT)) << type;
    return provider;
}

BOOL HashText(HCRYPTHASH hash, const std::string& text) {
    return CryptHashData(hash, reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()), 0);
}

// The longest value there is fits.
Bytes ValueOf(HCRYPTHASH hash) {
    Bytes value(64);
    auto length = static_cast<DWORD>(value.size());
    EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &length, 0));
    value.resize(length);
    return value;
}

struct HashCase {
    ALG_ID algorithm;
    bool inFull; // known to PROV_RSA_FULL as well
    const char* value;
};
const HashCase kHashes[] = {
    {CALG_MD5, true, "900150983cd24fb0d6963f7d28e17f72"},
    {CALG_SHA1, true, "a9993e364706816aba3e25717850c26c9cd0d89d"},
    {CALG_SHA_256, false, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {CALG_SHA_384, false,
     "cb00753f45a35e8bb5a03d699ac65007272c32ab0eded1631a8b605a43ff5bed8086072ba1e7cc2358baeca134c825a7"},
    {CALG_SHA_512, false,
     "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e"
     "2a9ac94fa54ca49f"},
};

TEST(CryptoTest, AProviderHashesWhatItsTypeKnows) {
    for (const DWORD type : {PROV_RSA_FULL, PROV_RSA_AES}) {
        const HCRYPTPROV provider = Acquire(type);
        HCRYPTHASH hash = 0;
        for (const HashCase& one : kHashes) {
            const BOOL made = CryptCreateHash(provider, one.algorithm, 0, 0, &hash);
            if (type == PROV_RSA_FULL && !one.inFull) {
                EXPECT_TRUE(made == FALSE && GetLastError() == static_cast<DWORD>(NTE_BAD_ALGID)) << one.algorithm;
                continue;
            }
            ASSERT_TRUE(made) << one.algorithm;
            EXPECT_TRUE(HashText(hash, "a") && HashText(hash, "bc"));
            EXPECT_EQ(ValueOf(hash), FromHex(one.value)) << one.algorithm;
            EXPECT_TRUE(CryptDestroyHash(hash));
        }
        EXPECT_FALSE(CryptCreateHash(provider, 0x8FFF, 0, 0, &hash));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
        EXPECT_TRUE(CryptReleaseContext(provider, 0));
    }
}

TEST(CryptoTest, AHashWhoseValueWasReadIsFinished) {
    const HCRYPTPROV provider = Acquire(PROV_RSA_FULL);
    HCRYPTHASH hash = 0;
    ASSERT_TRUE(CryptCreateHash(provider, CALG_MD5, 0, 0, &hash));
    EXPECT_TRUE(HashText(hash, "abc"));
    Bytes value(16);
    DWORD length = 15;
    EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &length, 0));
    EXPECT_EQ(GetLastError(), 234U);
    EXPECT_EQ(length, 16U);
    EXPECT_EQ(value, Bytes(16));
    for (int time = 1; time <= 2; ++time) {
        EXPECT_EQ(ValueOf(hash), FromHex(kHashes[0].value)) << time;
        EXPECT_FALSE(HashText(hash, "d"));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH_STATE));
    }
    EXPECT_TRUE(CryptDestroyHash(hash));
    EXPECT_FALSE(CryptDestroyHash(0));
    EXPECT_TRUE(CryptReleaseContext(provider, 0));
}

} // namespace
} // namespace Vantor::Sentrix
