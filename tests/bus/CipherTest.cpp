// The body cipher: chaining, padding, and that its blocks are AES-256 under the key of the build.
#include "veyrasvc/bus/PayloadCipher.h"

#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <cstring>
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

// The chain, written out block by block.
Bytes ChainedByHand(const Bytes& padded, const Bytes& iv) {
    Bytes cipher(padded.size());
    Bytes chain = iv;
    for (std::size_t block = 0; block < padded.size(); block += kCipherBlockSize) {
        for (std::size_t i = 0; i < kCipherBlockSize; ++i) {
            chain[i] ^= padded[block + i];
        }
        EXPECT_EQ(EncryptBlock(chain.data(), &cipher[block]), 0);
        chain.assign(&cipher[block], &cipher[block] + kCipherBlockSize);
    }
    return cipher;
}

Bytes Decrypted(const Bytes& iv, const Bytes& cipher, int expected = 0) {
    Bytes out(cipher.size());
    std::size_t length = 0;
    EXPECT_EQ(DecryptCbc(iv.data(), cipher.data(), cipher.size(), out.data(), &length), expected);
    out.resize(length);
    return out;
}

TEST(CipherTest, BlocksAreAes256UnderTheKeyOfTheBuild) {
    unsigned char key[] = {
#include "CipherKey.inc"
    };
    BCRYPT_ALG_HANDLE algorithm = nullptr;
    BCRYPT_KEY_HANDLE handle = nullptr;
    ASSERT_EQ(BCryptOpenAlgorithmProvider(&algorithm, BCRYPT_AES_ALGORITHM, nullptr, 0), 0);
    ASSERT_EQ(BCryptGenerateSymmetricKey(algorithm, &handle, nullptr, 0, key, sizeof key, 0), 0);
    Bytes block = Text(16);
    Bytes noChain(16);
    Bytes expected(16);
    Bytes actual(16);
    ULONG written = 0;
    ASSERT_EQ(BCryptEncrypt(handle, block.data(), 16, nullptr, noChain.data(), 16, expected.data(), 16, &written, 0),
              0);
    EXPECT_EQ(EncryptBlock(block.data(), actual.data()), 0);
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(DecryptBlock(actual.data(), actual.data()), 0);
    EXPECT_EQ(actual, block);
    BCryptDestroyKey(handle);
    BCryptCloseAlgorithmProvider(algorithm, 0);
}

TEST(CipherTest, EveryLengthIsPaddedChainedAndComesBack) {
    for (std::size_t length = 1; length <= 100; ++length) {
        const Bytes text = Text(length);
        Bytes padded = text;
        const std::size_t pad = 16 - length % 16;
        padded.insert(padded.end(), pad, static_cast<unsigned char>(pad));
        Bytes cipher(length / 16 * 16 + 16);
        std::size_t cipherLength = 0;
        ASSERT_EQ(EncryptCbc(kIv.data(), text.data(), length, cipher.data(), &cipherLength), 0);
        ASSERT_EQ(cipherLength, cipher.size());
        EXPECT_EQ(cipher, ChainedByHand(padded, kIv)) << length;
        EXPECT_EQ(Decrypted(kIv, cipher), text) << length;
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
        const Bytes text = Decrypted(kIv, ChainedByHand(padded, kIv), one.result);
        EXPECT_EQ(text, Bytes(padded.begin(), padded.begin() + static_cast<long>(one.textLength)))
            << int{one.fill} << " " << int{one.last};
    }
}

TEST(CipherTest, AWrongIvSpoilsTheFirstBlockOnly) {
    const Bytes text = Text(50);
    Bytes cipher(64);
    std::size_t length = 0;
    ASSERT_EQ(EncryptCbc(kIv.data(), text.data(), text.size(), cipher.data(), &length), 0);
    Bytes wrong = kIv;
    wrong[3] ^= 0x20;
    Bytes expected = text;
    expected[3] ^= 0x20;
    EXPECT_EQ(Decrypted(wrong, cipher), expected);
}

TEST(CipherTest, PayloadsHaveAFreshIvEachAndComeBack) {
    const Bytes text = Text(33);
    Bytes ciphers[2];
    for (Bytes& made : ciphers) {
        unsigned char* cipher = nullptr;
        unsigned char* iv = nullptr;
        unsigned char* plain = nullptr;
        std::size_t cipherLength = 0;
        std::size_t plainLength = 0;
        ASSERT_EQ(EncryptPayload(text.data(), text.size(), &cipher, &cipherLength, &iv), 0);
        made.assign(cipher, cipher + cipherLength);
        ASSERT_EQ(DecryptPayload(iv, cipher, cipherLength, &plain, &plainLength), 0);
        EXPECT_EQ(Bytes(plain, plain + plainLength), text);
        operator delete(cipher);
        operator delete(iv);
        operator delete(plain);
    }
    EXPECT_EQ(ciphers[0].size(), 48U);
    EXPECT_NE(ciphers[0], ciphers[1]);
}

TEST(CipherTest, WhatCannotBeWorkedOnIsRefused) {
    Bytes bytes = Text(32);
    unsigned char* const b = bytes.data();
    unsigned char* block = b;
    unsigned char* iv = b;
    std::size_t length = 0;
    EXPECT_EQ(EncryptPayload(b, 0, &block, &length, &iv), -1);
    EXPECT_EQ(EncryptPayload(nullptr, 16, &block, &length, &iv), -1);
    EXPECT_EQ(EncryptPayload(b, 16, &block, &length, nullptr), -1);
    EXPECT_EQ(EncryptCbc(b, b, 16, nullptr, &length), -1);
    EXPECT_EQ(DecryptCbc(nullptr, b, 16, b, &length), -1);
    EXPECT_EQ(DecryptPayload(b, b, 0, &block, &length), -1);
    for (const std::size_t odd : {std::size_t{1}, std::size_t{15}, std::size_t{31}}) {
        EXPECT_EQ(DecryptPayload(b, b, odd, &block, &length), -1) << odd;
        EXPECT_EQ(block, nullptr) << "no block is handed out";
    }
    EXPECT_EQ(bytes, Text(32)) << "nothing was touched";
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
