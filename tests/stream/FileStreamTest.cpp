#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace Vantor::Sentrix;

namespace {

TEST(FileStreamTest, WritesSeeksCutsAndReadsBack) {
    const LogCapture log;
    const auto path =
        std::filesystem::temp_directory_path() / ("veyra-stream-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::remove(path);
    EXPECT_EQ(FileStream(path.wstring(), FileStream::kReadWrite).m_handle, INVALID_HANDLE_VALUE) << "a missing file";
    for (const std::uint16_t mode : std::initializer_list<std::uint16_t>{0x03, 0x50, 0x53}) {
        EXPECT_FALSE(FileStream(path.string(), mode).IsValid()) << "no such mode";
    }
    {
        FileStream file(path.wstring(), FileStream::kCreate);
        ASSERT_TRUE(file.IsValid());
        StreamWriter(&file).Write(std::string("0123456789"));
        EXPECT_EQ(file.GetSize(), 14);
        EXPECT_EQ(file.Seek(-3, Stream::kFromEnd), 11);
        EXPECT_EQ(file.Write("xyz", 3), 3U);
        EXPECT_EQ(file.Seek(-100, Stream::kFromCurrent), -1);
        static_cast<Stream&>(file).SetSize(100LL);
        EXPECT_EQ(file.GetPosition(), 100);
        file.SetSize(12);
        file.SetPosition(5);
        EXPECT_EQ(log.Errors("set stream size failed!"), 0);
        file.SetSize(-1);
        file.SetSize(std::numeric_limits<std::int64_t>::min());
        EXPECT_EQ(log.Errors("set stream size failed!"), 2);
        EXPECT_EQ(file.GetPosition(), 5);
        EXPECT_EQ(file.GetSize(), 12);
    }
    {
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
        EXPECT_EQ(log.Errors("set stream size failed!"), 3);
    }
    std::filesystem::remove(path);
}

} // namespace
