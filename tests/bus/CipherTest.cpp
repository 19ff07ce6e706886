// The body cipher against the system's AES under the key of the build; the vectors are with the system's calls.
#include "veyrasvc/bus/PayloadCipher.h"

#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace Vantor::Sentrix {
namespace {

using Bytes = std::vector<unsigned char>;

const Bytes kIv = {7, 6, 5, 4, 3, 2, 1, 0, 0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8};

Bytes Text(std::size_t length) {
    Bytes text(length);
    for (std::size_t i = 0; i < length; ++i) {
        text[i] = static_cast<unsigned char>(i * 37 + i / 16);
    }
    return text;
}

// The system's own chain of whole blocks under the key of the build, all in one call.
Bytes Chained(Bytes padded, Bytes iv) {
    unsigned char key[] = {
#include "CipherKey.inc"
    };
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE handle = nullptr;
    Bytes cipher(padded.size());
    const auto size = static_cast<ULONG>(padded.size());
    ULONG written = 0;
    EXPECT_EQ(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
    auto* const mode = reinterpret_cast<PUCHAR>(const_cast<wchar_t*>(BCRYPT_CHAIN_MODE_CBC));
    EXPECT_EQ(BCryptSetProperty(algorithm, BCRYPT_CHAINING_MODE, mode, sizeof BCRYPT_CHAIN_MODE_CBC, 0), 0);
    EXPECT_EQ(BCryptGenerateSymmetricKey(algorithm, &handle, nullptr, 0, key, sizeof key, 0), 0);
    EXPECT_EQ(BCryptEncrypt(handle, padded.data(), size, nullptr, iv.data(), 16, cipher.data(), size, &written, 0), 0);
    BCryptDestroyKey(handle);
    BCryptCloseAlgorithmProvider(algorithm, 0);
    return cipher;
}

Bytes TakeOver(unsigned char* block, std::size_t length) {
    Bytes bytes(block, block + length);
    operator delete(block);
    return bytes;
}

TEST(CipherTest, ABlockIsEncryptedWithoutAChain) {
    const Bytes text = Text(16);
    Bytes block(16);
    ASSERT_EQ(EncryptBlock(text.data(), block.data()), 0);
    EXPECT_EQ(block, Chained(text, Bytes(16)));
    ASSERT_EQ(DecryptBlock(block.data(), block.data()), 0);
    EXPECT_EQ(block, text);
}

TEST(CipherTest, EveryLengthIsPaddedChainedFromAFreshIvAndComesBack) {
    std::set<Bytes> ivs;
    for (std::size_t length = 1; length <= 100; ++length) {
        const Bytes text = Text(length);
        Bytes padded = text;
        const std::size_t pad = 16 - length % 16;
        padded.insert(padded.end(), pad, static_cast<unsigned char>(pad));
        unsigned char* block = nullptr;
        unsigned char* newIv = nullptr;
        std::size_t size = 0;
        ASSERT_EQ(EncryptPayload(text.data(), length, &block, &size, &newIv), 0);
        const Bytes cipher = TakeOver(block, size);
        const Bytes iv = TakeOver(newIv, 16);
        EXPECT_TRUE(ivs.insert(iv).second);
        EXPECT_EQ(cipher, Chained(padded, iv)) << length;
        ASSERT_EQ(DecryptPayload(iv.data(), cipher.data(), size, &block, &size), 0);
        EXPECT_EQ(TakeOver(block, size), text) << length;
    }
}

TEST(CipherTest, PaddingIsCheckedByteByByte) {
    struct Case {
        unsigned char fill;
        unsigned char last;
        int result;
        std::size_t textLength;
    };
    // The last block is filled with one byte and ends in another; a whole block stands before it.
    const Case cases[] = {{9, 0, 0, 32},   {9, 1, 0, 31},   {9, 2, -1, 0},   {2, 2, 0, 30},  {15, 16, -1, 0},
                          {16, 16, 0, 16}, {17, 17, -1, 0}, {9, 255, -1, 0}, {0, 128, -1, 0}};
    for (const Case& one : cases) {
        Bytes padded = Text(16);
        padded.insert(padded.end(), 16, one.fill);
        padded.back() = one.last;
        const Bytes cipher = Chained(padded, kIv);
        Bytes text(32);
        std::size_t length = 0;
        EXPECT_EQ(DecryptCbc(kIv.data(), cipher.data(), 32, text.data(), &length), one.result);
        text.resize(length);
        padded.resize(one.textLength);
        EXPECT_EQ(text, padded) << int{one.fill} << " " << int{one.last};
    }
}

TEST(CipherTest, CiphersThatAreNotWholeBlocksAreRefused) {
    const Bytes bytes = Text(32);
    for (const std::size_t odd : {std::size_t{0}, std::size_t{1}, std::size_t{15}, std::size_t{31}}) {
        unsigned char* plain = nullptr;
        std::size_t length = 0;
        EXPECT_EQ(DecryptPayload(bytes.data(), bytes.data(), odd, &plain, &length), -1) << odd;
        EXPECT_EQ(plain, nullptr) << "no block is handed out";
    }
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
