#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace Vantor::Sentrix;

namespace {

class FileStreamTest : public testing::Test {
protected:
    void SetUp() override { std::filesystem::remove(path); }
    void TearDown() override { std::filesystem::remove(path); }
    LogCapture log;
    std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("veyra-stream-" + std::to_string(GetCurrentProcessId()));
};

TEST_F(FileStreamTest, WritesSeeksCutsAndReadsBack) {
    {
        FileStream file(path.wstring(), FileStream::kCreate);
        ASSERT_TRUE(file.IsValid());
        StreamWriter(&file).Write(std::string("0123456789"));
        EXPECT_EQ(file.GetSize(), 14);
        EXPECT_EQ(file.Seek(-3, Stream::kFromEnd), 11);
        EXPECT_EQ(file.Write("xyz", 3), 3U);
        EXPECT_EQ(file.Seek(-100, Stream::kFromCurrent), -1);
        file.SetSize(100);
        EXPECT_EQ(file.GetPosition(), 100);
        file.SetSize(12);
        EXPECT_EQ(file.GetSize(), 12);
        EXPECT_EQ(log.Take().size(), 0U);
    }
    FileStream file(path.string(), FileStream::kShareAll);
    MemoryrStream all;
    EXPECT_EQ(all.CopyFrom(file, 0), 12);
    EXPECT_EQ(all.ToString(), std::string("\0\0\0\x0A"
                                          "0123456x",
                                          12));
    file.SetPosition(0);
    EXPECT_EQ(StreamReader(&file).ReadString(), std::string("0123456x\0\0", 10));
    EXPECT_EQ(file.Write("x", 1), 0U) << "opened for reading";
    file.SetSize(3);
    EXPECT_EQ(file.GetSize(), 12);
    EXPECT_EQ(log.Errors("set stream size failed!"), 1);
}

TEST_F(FileStreamTest, ModesThatExistOpenAndOthersDoNot) {
    const auto opens = [this](unsigned int mode) { return FileStream(path.string(), std::uint16_t(mode)).IsValid(); };
    EXPECT_FALSE(opens(FileStream::kShareAll)) << "a missing file";
    EXPECT_TRUE(opens(FileStream::kCreate));
    EXPECT_TRUE(opens(0x00U) && opens(0x02U) && opens(0x10U) && opens(0x42U));
    EXPECT_FALSE(opens(0x03U) || opens(0x43U) || opens(0x50U) || opens(0xF0U));
}

} // namespace
