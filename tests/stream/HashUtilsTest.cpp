#include "veyrasvc/util/HashUtils.h"

#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace Vantor::Sentrix;

namespace {

namespace fs = std::filesystem;

static_assert(!std::is_copy_constructible_v<CryptMD5> && !std::is_copy_assignable_v<CryptMD5>);

constexpr char kMd5OfAbc[] = "900150983CD24FB0D6963F7D28E17F72"; // RFC 1321
const std::string kUntouched(32, '0');

std::string Finish(CryptBase& hash, std::size_t length = 16) {
    std::string digest(length, '\0');
    hash.Final(reinterpret_cast<unsigned char*>(digest.data()));
    CryptMD5::BytesToHexString(digest, digest);
    return digest;
}

TEST(HashUtilsTest, TextsHaveThePublishedDigests) {
    const std::string digits = "12345678901234567890123456789012345678901234567890123456789012345678901234567890";
    EXPECT_EQ(CryptMD5::GetStringMd5Hex(digits), "57EDF4A22BE3C955AC49DA2E2107B67A");
    EXPECT_EQ(CryptMD5::GetBufferMd5Hex("ab", 1), "0CC175B9C0F1B6A831C399E269772661");
    EXPECT_EQ(CryptMD5::GetBufferMd5Hex(nullptr, 5) + CryptMD5::GetBufferMd5("x", 0), "");

    CryptBase sha(CALG_SHA_256, 32);
    sha.Init();
    sha.Update("x", 1);
    sha.Reset();
    sha.Init();
    sha.Update("ab", 2);
    sha.Init(); // goes on with the hash that there is
    sha.Update("c", 1);
    EXPECT_EQ(Finish(sha, 32), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
}

TEST(HashUtilsTest, FilesAreHashedWhole) {
    const std::string path =
        (fs::temp_directory_path() / ("veyra-hash-" + std::to_string(GetCurrentProcessId()))).string();
    for (const std::size_t length : {0, 1, 8191, 8192, 8193, 20000}) { // pieces have 8192 bytes
        const std::string bytes(length, 'f');
        std::ofstream(path, std::ios::binary) << bytes;
        EXPECT_EQ(CryptMD5::GetFileMd5Hex(path),
                  length == 0 ? "D41D8CD98F00B204E9800998ECF8427E" : CryptMD5::GetStringMd5Hex(bytes));
    }
    fs::remove(path);
    const LogCapture log;
    EXPECT_EQ(CryptMD5::GetFileMd5(path) + CryptMD5::GetFileMd5Hex(path), "");
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "getmd5 open faild error:" + path), 2);
}

// What does not come is what the one buffer of 8192 bytes held: zeros at first, then an earlier piece.
TEST(HashUtilsTest, StreamsThatBreakOff) {
    const LogCapture log;
    const std::string piece(8192, 'x'), rest(100, 'y');
    MemoryrStream stream((piece + rest).c_str());
    stream.SetPosition(0);
    EXPECT_EQ(CryptMD5::GetStreamMd5(stream, -1), std::string(16, '\0'));
    EXPECT_EQ(CryptMD5::GetStreamMd5(stream, 2 * 8192), CryptMD5::GetStringMd5(piece + rest + piece.substr(100)));
    EXPECT_EQ(CryptMD5::GetStreamMd5(stream, 9), CryptMD5::GetStringMd5(std::string(9, '\0')));
    EXPECT_EQ(log.Errors("read buffer error!"), 2);
}

TEST(HashUtilsTest, AMoveLeavesAnEmptyObject) {
    CryptMD5 first;
    first.Init();
    first.Update("a", 1);
    CryptMD5 second(std::move(first));
    second.Update("bc", 2);
    CryptBase third(CALG_SHA_256, 32);
    third.Init();
    third = std::move(second);
    EXPECT_EQ(Finish(third), kMd5OfAbc);
    EXPECT_EQ(Finish(first) + Finish(second), kUntouched + kUntouched); // NOLINT(bugprone-use-after-move): the question
}

TEST(HashUtilsTest, WhatCannotBeHashedIsLoggedAndLeavesTheDigest) {
    const LogCapture log;
    CryptBase unknown(0x8FFF, 16);
    CryptBase tooShort(CALG_MD5, 15);
    for (CryptBase* const hash : {&unknown, &tooShort}) {
        hash->Init();
        EXPECT_EQ(Finish(*hash), kUntouched);
    }
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "WincryptFinal fail"), 2);

    CryptMD5 hash;
    hash.Update("no hash yet", 1);
    hash.Init();
    hash.Update(nullptr, 3);
    hash.Update("abc", -1);
    hash.Update("abc", 3);
    hash.Final(nullptr);
    EXPECT_EQ(Finish(hash), kMd5OfAbc);
    hash.Update("d", 1);
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "WincryptUpdate fail"), 4);
}

} // namespace
