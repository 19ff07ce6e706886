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
    EXPECT_FALSE(FileStream(path.wstring(), FileStream::kReadWrite).IsValid()) << "a missing file";
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

} // namespace
