#include "veyrasvc/stream/HashUtils.h"

#include "tests/support/LogCapture.h"
#include "tools/support/ChildProcess.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Vantor::Sentrix {
namespace {

static_assert(!std::is_copy_constructible_v<CryptMD5> && !std::is_copy_assignable_v<CryptMD5>);
static_assert(std::is_nothrow_move_constructible_v<CryptMD5> && std::is_nothrow_move_assignable_v<CryptMD5>);

std::string Hex(const std::string& bytes) {
    std::string digits;
    CryptMD5::BytesToHexString(bytes, digits);
    return digits;
}

std::string Finish(CryptBase& hash, std::size_t length) {
    std::string digest(length, '\0');
    hash.Final(reinterpret_cast<unsigned char*>(digest.data()));
    return Hex(digest);
}

// Gives at most `left` bytes, all of them 'x', and notes what it was asked for.
class CountingStream final : public Stream {
public:
    explicit CountingStream(unsigned int left) : m_left(left) {}
    unsigned int Read(void* buffer, unsigned int count) override {
        asked.push_back(count);
        const unsigned int given = std::min(count, m_left);
        m_left -= given;
        std::fill_n(static_cast<char*>(buffer), given, 'x');
        return given;
    }
    unsigned int Write(const void* /*buffer*/, unsigned int /*count*/) override { return 0; }
    std::int64_t Seek(std::int64_t /*offset*/, int /*origin*/) override { return -1; }

    std::vector<unsigned int> asked;

private:
    unsigned int m_left;
};

TEST(HashUtilsTest, Md5OfTheTextsOfRfc1321) {
    const std::pair<std::string, const char*> cases[] = {
        {"a", "0CC175B9C0F1B6A831C399E269772661"},
        {"message digest", "F96B697D7CB7938D525A2F31AAF161D0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "D174AB98D277D9F5A5611C2C9F419D9F"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57EDF4A22BE3C955AC49DA2E2107B67A"}};
    for (const auto& [text, digest] : cases) {
        EXPECT_EQ(CryptMD5::GetStringMd5Hex(text), digest) << text;
        EXPECT_EQ(Hex(CryptMD5::GetBufferMd5(text.data(), static_cast<DWORD>(text.size()))), digest) << text;
    }
    EXPECT_EQ(CryptMD5::GetBufferMd5Hex(nullptr, 5) + CryptMD5::GetBufferMd5("x", 0) + CryptMD5::GetStringMd5Hex(""),
              "");
    std::string digits("\x0F\xA0");
    CryptMD5::BytesToHexString(digits, digits);
    EXPECT_EQ(digits, "0FA0");
}

TEST(HashUtilsTest, Sha256OfTheExamplesToFips180) {
    CryptBase hash(CALG_SHA_256, 32);
    hash.Init();
    hash.Update("ab", 2);
    hash.Init(); // goes on with the hash that there is
    hash.Update("c", 1);
    EXPECT_EQ(Finish(hash, 32), "BA7816BF8F01CFEA414140DE5DAE2223B00361A396177A9CB410FF61F20015AD");
    hash.Reset();
    hash.Init();
    MemoryrStream million;
    million.Append('a', 1000000).SetPosition(0);
    hash.Update(million, 1000000);
    EXPECT_EQ(Finish(hash, 32), "CDC76E5C9914FB9281A1C7E284D73E67F1809A48A497200E046D39CCC7112CD0");
}

// A folder that goes with the test.
class HashFiles : public testing::Test {
protected:
    HashFiles() { std::filesystem::create_directory(m_folder); }
    ~HashFiles() override { std::filesystem::remove_all(m_folder); }

    std::string Make(const std::string& name, const std::string& bytes) const {
        std::string path = (m_folder / name).string();
        std::ofstream(path, std::ios::binary) << bytes;
        return path;
    }

    std::filesystem::path m_folder =
        std::filesystem::temp_directory_path() / ("veyra-hash-" + std::to_string(GetCurrentProcessId()));
};

TEST_F(HashFiles, RandomFilesHaveTheDigestsThatTheSystemGives) {
    Support::ChildProcess system;
    std::vector<std::string> paths;
    std::mt19937 random(std::random_device{}());
    for (const std::size_t edge : {64, 128, 8192, 16384}) {
        for (const std::size_t length : {edge - 1, edge, edge + 1, edge + 2 + random() % 60}) {
            std::string bytes(length, '\0');
            std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
            paths.push_back(Make(std::to_string(length), bytes));
        }
    }
    if (!system.Start(MD5SUM_PROGRAM, paths, Support::ChildProcess::Output::Pipe)) {
        GTEST_SKIP() << "there is no md5sum here";
    }
    for (const std::string& path : paths) {
        std::string digits = CryptMD5::GetFileMd5Hex(path);
        std::transform(digits.begin(), digits.end(), digits.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        EXPECT_EQ(system.ReadLine(), digits + "  " + path) << std::filesystem::file_size(path);
    }
    EXPECT_EQ(system.WaitForExit(), 0U);
}

TEST_F(HashFiles, AFileThatCannotBeOpenedIsToldAtDebug) {
    LogCapture log;
    EXPECT_EQ(Hex(CryptMD5::GetFileMd5(Make("empty", ""))), "D41D8CD98F00B204E9800998ECF8427E");
    const std::string missing = (m_folder / "missing").string();
    EXPECT_EQ(CryptMD5::GetFileMd5(missing) + CryptMD5::GetFileMd5Hex(missing), "");
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "getmd5 open faild error:" + missing), 2);
    EXPECT_EQ(log.Take().size(), 2U);
}

TEST(HashUtilsTest, StreamsAreReadInPieces) {
    LogCapture log;
    CountingStream whole(20000);
    EXPECT_EQ(Hex(CryptMD5::GetStreamMd5(whole, 20000)), CryptMD5::GetStringMd5Hex(std::string(20000, 'x')));
    EXPECT_EQ(whole.asked, (std::vector<unsigned int>{8192, 8192, 3616}));
    EXPECT_TRUE(log.Take().empty());

    // What does not come is what the one buffer held: zeros at first, then an earlier piece.
    CountingStream breaksOff(100);
    EXPECT_EQ(Hex(CryptMD5::GetStreamMd5(breaksOff, 8292)),
              CryptMD5::GetStringMd5Hex(std::string(100, 'x') + std::string(8092, '\0') + std::string(100, 'x')));
    EXPECT_EQ(log.Errors("read buffer error!"), 2);

    for (const std::int64_t length : {-1, -20000}) {
        CountingStream untouched(9);
        EXPECT_EQ(CryptMD5::GetStreamMd5(untouched, length), std::string(16, '\0'));
        EXPECT_TRUE(untouched.asked.empty());
    }
}

TEST(HashUtilsTest, AMoveLeavesAnEmptyObjectThatCanBeUsedAgain) {
    CryptMD5 first;
    first.Init();
    first.Update("a", 1);
    CryptMD5 second(std::move(first));
    second.Update("bc", 2);
    CryptBase third(CALG_SHA_256, 32);
    third.Init();
    third = std::move(second);
    EXPECT_EQ(Finish(third, 16), "900150983CD24FB0D6963F7D28E17F72");
    for (CryptMD5* const empty : {&first, &second}) { // NOLINT(bugprone-use-after-move): that is the question
        EXPECT_EQ(Finish(*empty, 16), std::string(32, '0'));
        empty->Init();
        empty->Update("a", 1);
        EXPECT_EQ(Finish(*empty, 16), "0CC175B9C0F1B6A831C399E269772661");
    }
}

TEST(HashUtilsTest, WhatCannotBeHashedIsLoggedAndLeavesTheDigest) {
    LogCapture log;
    CryptBase unknown(0x8FFF, 16);
    unknown.Init();
    unknown.Update("x", 1);
    EXPECT_EQ(Finish(unknown, 16), std::string(32, '0'));
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "WincryptUpdate fail"), 1);
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "WincryptFinal fail"), 1);
    CryptBase tooShort(CALG_MD5, 15);
    tooShort.Init();
    EXPECT_EQ(Finish(tooShort, 16), std::string(32, '0'));
    EXPECT_EQ(log.Take().size(), 3U);

    CryptMD5 hash;
    hash.Init();
    hash.Update(nullptr, 3);
    hash.Update("abc", -1);
    hash.Update("abc", 3);
    hash.Final(nullptr);
    EXPECT_EQ(Finish(hash, 16), "900150983CD24FB0D6963F7D28E17F72");
    hash.Update("d", 1);
    EXPECT_EQ(Finish(hash, 16), "900150983CD24FB0D6963F7D28E17F72");
    EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "WincryptUpdate fail"), 3);
    EXPECT_EQ(log.Take().size(), 3U);
}

} // namespace
} // namespace Vantor::Sentrix
