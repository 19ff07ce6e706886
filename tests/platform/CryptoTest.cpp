// The random source, and AES-CBC against the vectors of NIST SP 800-38A (F.2.1, F.2.3, F.2.5).
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>
#include <thread>
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
const Bytes kPlain = FromHex("6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
                             "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");

struct Vector {
    Bytes key;
    Bytes cipher;
};
const Vector kVectors[] = {
    {FromHex("2b7e151628aed2a6abf7158809cf4f3c"),
     FromHex("7649abac8119b246cee98e9b12e9197d5086cb9b507219ee95db113a917678b2"
             "73bed6b8e3c1743b7116e69e222295163ff1caa1681fac09120eca307586e1a7")},
    {FromHex("8e73b0f7da0e6452c810f32b809079e562f8ead2522c6b7b"),
     FromHex("4f021db243bc633d7178183a9fa071e8b4d9ada9ad7dedf4e5e738763f69145a"
             "571b242012fb7ae07fa9baac3df102e008b0e27988598881d920a9e64f5615cd")},
    {FromHex("603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4"),
     FromHex("f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
             "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b")},
};

class KeyHandle {
public:
    explicit KeyHandle(Bytes key) {
        BCRYPT_ALG_HANDLE algorithm = nullptr;
        auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
        EXPECT_EQ(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
        EXPECT_EQ(BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0), 0);
        status =
            BCryptGenerateSymmetricKey(algorithm, &m_key, nullptr, 0, key.data(), static_cast<ULONG>(key.size()), 0);
        m_algorithm = algorithm;
    }
    ~KeyHandle() {
        if (status >= 0) {
            BCryptDestroyKey(m_key);
        }
        BCryptCloseAlgorithmProvider(m_algorithm, 0);
    }
    KeyHandle(const KeyHandle&) = delete;
    KeyHandle& operator=(const KeyHandle&) = delete;

    // In place, from `from` to `to`.
    NTSTATUS Run(decltype(&BCryptEncrypt) transform, Bytes& bytes, Bytes& iv, std::size_t from, std::size_t to) {
        ULONG written = 0;
        const auto size = static_cast<ULONG>(to - from);
        return transform(m_key, bytes.data() + from, size, nullptr, iv.data(), static_cast<ULONG>(iv.size()),
                         bytes.data() + from, size, &written, 0);
    }

    NTSTATUS status;

private:
    BCRYPT_ALG_HANDLE m_algorithm;
    BCRYPT_KEY_HANDLE m_key = nullptr;
};

TEST(CryptoTest, AesGivesThePublishedCiphertextAtOnceAndInParts) {
    for (const Vector& vector : kVectors) {
        KeyHandle key(vector.key);
        for (std::size_t cut = 0; cut <= kPlain.size(); cut += 16) {
            Bytes text = kPlain;
            Bytes iv = kIv;
            ASSERT_EQ(key.Run(&BCryptEncrypt, text, iv, 0, cut), 0);
            ASSERT_EQ(key.Run(&BCryptEncrypt, text, iv, cut, text.size()), 0) << "the IV carries the chain on";
            EXPECT_EQ(text, vector.cipher) << "cut at " << cut;
            iv = kIv;
            ASSERT_EQ(key.Run(&BCryptDecrypt, text, iv, 0, cut), 0);
            ASSERT_EQ(key.Run(&BCryptDecrypt, text, iv, cut, text.size()), 0);
            EXPECT_EQ(text, kPlain) << "cut at " << cut;
        }
    }
}

TEST(CryptoTest, AesRefusesOtherSizes) {
    EXPECT_LT(KeyHandle(Bytes(15)).status, 0);
    EXPECT_LT(KeyHandle(Bytes(33)).status, 0);
    KeyHandle key(kVectors[2].key);
    Bytes text = kPlain;
    Bytes iv = kIv;
    Bytes shortIv(15);
    EXPECT_EQ(static_cast<std::uint32_t>(key.Run(&BCryptEncrypt, text, iv, 0, 17)), 0xC0000206U);
    EXPECT_LT(key.Run(&BCryptEncrypt, text, shortIv, 0, 16), 0);
    EXPECT_EQ(text, kPlain);
}

TEST(CryptoTest, OneKeyServesManyThreads) {
    KeyHandle keys[] = {KeyHandle(kVectors[0].key), KeyHandle(kVectors[1].key), KeyHandle(kVectors[2].key)};
    std::vector<std::thread> threads;
    for (std::size_t first = 0; first < 4; ++first) {
        threads.emplace_back([&keys, first] {
            for (std::size_t round = 0; round < 300; ++round) {
                const std::size_t which = (first + round / (first + 1)) % 3;
                Bytes text = kPlain;
                Bytes iv = kIv;
                keys[which].Run(&BCryptEncrypt, text, iv, 0, text.size());
                ASSERT_EQ(text, kVectors[which].cipher);
                iv = kIv;
                keys[which].Run(&BCryptDecrypt, text, iv, 0, text.size());
                ASSERT_EQ(text, kPlain);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

TEST(CryptoTest, RandomBytesFillTheWholeBufferAndNeverRepeat) {
    HCRYPTPROV provider = 0;
    ASSERT_TRUE(CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT));
    std::set<Bytes> seen;
    for (int i = 0; i < 100; ++i) {
        Bytes bytes(16);
        ASSERT_TRUE(CryptGenRandom(provider, 16, bytes.data()));
        EXPECT_TRUE(seen.insert(bytes).second);
    }
    // More than the kernel gives at once. 1000 zeros in a row do not come by chance.
    Bytes many(3'000'000);
    ASSERT_TRUE(CryptGenRandom(provider, static_cast<DWORD>(many.size()), many.data()));
    const Bytes zeros(1000);
    for (std::size_t at = 0; at < many.size(); at += zeros.size()) {
        ASSERT_NE(std::memcmp(&many[at], zeros.data(), zeros.size()), 0) << "untouched at " << at;
    }
    EXPECT_TRUE(CryptReleaseContext(provider, 0));
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
