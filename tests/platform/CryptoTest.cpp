// The random source, AES-CBC against the vectors of NIST SP 800-38A (F.2.1, F.2.3, F.2.5), and hashes of "abc" against
// RFC 1321 and the examples to FIPS 180-4.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
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

const Bytes kPlain = FromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51");

// One message in place, by a key of its own, `step` bytes a call. The IV carries the chain on.
NTSTATUS Transform(decltype(&BCryptEncrypt) transform, Bytes keyBytes, Bytes& text, std::size_t step) {
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE key = nullptr;
    auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
    const auto keySize = static_cast<ULONG>(keyBytes.size());
    EXPECT_EQ(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
    EXPECT_EQ(BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0), 0);
    EXPECT_EQ(BCryptGenerateSymmetricKey(algorithm, &key, nullptr, 0, keyBytes.data(), keySize, 0), 0);
    Bytes iv = FromHex("000102030405060708090a0b0c0d0e0f");
    NTSTATUS status = 0;
    for (std::size_t from = 0; from < text.size() && status == 0; from += step) {
        ULONG written = 0;
        const auto size = static_cast<ULONG>(step);
        status = transform(key, &text[from], size, nullptr, iv.data(), 16, &text[from], size, &written, 0);
        EXPECT_TRUE(status != 0 || written == size) << written;
    }
    EXPECT_TRUE(BCryptDestroyKey(key) == 0 && BCryptCloseAlgorithmProvider(algorithm, 0) == 0);
    return status;
}

TEST(CryptoTest, AesGivesThePublishedCiphertextAtOnceAndInParts) {
    const std::pair<const char*, const char*> cases[] = {
        {"2b7e151628aed2a6abf7158809cf4f3c", "7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"},
        {"8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b",
         "4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"},
        {"603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4",
         "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"},
    };
    for (const auto& [key, cipher] : cases) {
        Bytes text = kPlain;
        EXPECT_EQ(static_cast<std::uint32_t>(Transform(&BCryptEncrypt, FromHex(key), text, 17)), 0xC0000206U);
        EXPECT_EQ(text, kPlain) << "part of a block";
        for (const std::size_t step : {16, 32}) {
            EXPECT_EQ(Transform(&BCryptEncrypt, FromHex(key), text, step), 0);
            EXPECT_EQ(text, FromHex(cipher)) << step;
            EXPECT_EQ(Transform(&BCryptDecrypt, FromHex(key), text, step), 0);
            EXPECT_EQ(text, kPlain) << step;
        }
    }
}

BOOL HashText(HCRYPTHASH hash, const std::string& text) {
    return CryptHashData(hash, reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()), 0);
}

// A buffer that is too small gets nothing; from then on the value can be read, and nothing be added.
void ExpectDigestOfAbc(HCRYPTHASH hash, DWORD length, const std::string& start) {
    EXPECT_TRUE(HashText(hash, "a") && HashText(hash, "bc"));
    Bytes value(length);
    DWORD room = length - 1;
    EXPECT_FALSE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &room, 0));
    EXPECT_EQ(GetLastError(), 234U);
    EXPECT_EQ(room, length);
    EXPECT_EQ(value, Bytes(length));
    for (int time = 1; time <= 2; ++time) {
        EXPECT_TRUE(CryptGetHashParam(hash, HP_HASHVAL, value.data(), &room, 0)) << time;
        EXPECT_EQ(Bytes(value.begin(), value.begin() + 8), FromHex(start)) << time;
        EXPECT_FALSE(HashText(hash, "d"));
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_HASH_STATE));
    }
    EXPECT_TRUE(CryptDestroyHash(hash));
}

TEST(CryptoTest, ProvidersHashWhatTheirTypeKnowsAndGiveRandomBytes) {
    // The algorithm, whether PROV_RSA_FULL knows it as well, the digest's length (0: nobody knows it) and first bytes.
    const std::tuple<ALG_ID, bool, DWORD, const char*> cases[] = {
        {CALG_MD5, true, 16, "900150983cd24fb0"},      {CALG_SHA1, true, 20, "a9993e364706816a"},
        {CALG_SHA_256, false, 32, "ba7816bf8f01cfea"}, {CALG_SHA_384, false, 48, "cb00753f45a35e8b"},
        {CALG_SHA_512, false, 64, "ddaf35a193617aba"}, {0x8FFF, true, 0, ""},
    };
    for (const DWORD type : {PROV_RSA_FULL, PROV_RSA_AES}) {
        HCRYPTPROV provider = 0;
        ASSERT_TRUE(type == PROV_RSA_FULL
                        ? CryptAcquireContextW(&provider, nullptr, nullptr, type, CRYPT_VERIFYCONTEXT)
                        : CryptAcquireContextA(&provider, nullptr, nullptr, type, CRYPT_VERIFYCONTEXT));
        for (const auto& [algorithm, inFull, length, start] : cases) {
            SCOPED_TRACE(algorithm);
            HCRYPTHASH hash = 0;
            const BOOL made = CryptCreateHash(provider, algorithm, 0, 0, &hash);
            ASSERT_EQ(made != FALSE, length > 0 && (inFull || type == PROV_RSA_AES));
            if (made) {
                ExpectDigestOfAbc(hash, length, start);
            } else {
                EXPECT_EQ(GetLastError(), static_cast<DWORD>(NTE_BAD_ALGID));
            }
        }
        Bytes first(16), second(16);
        EXPECT_TRUE(CryptGenRandom(provider, 16, first.data()) && CryptGenRandom(provider, 16, second.data()));
        EXPECT_NE(first, second);
        EXPECT_FALSE(CryptDestroyHash(0));
        EXPECT_TRUE(CryptReleaseContext(provider, 0));
    }
}

} // namespace
} // namespace Vantor::Sentrix
