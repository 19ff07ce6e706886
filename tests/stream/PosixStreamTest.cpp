// Streams where something runs out: memory, the disk, the other end of a pipe. For systems that let a test arrange it.
#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/DataStream.h"
#include "veyrasvc/stream/FileItems.h"
#include "veyrasvc/stream/HashUtils.h"
#include "veyrasvc/stream/SpanStream.h"

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

namespace {

std::atomic<std::size_t> live = 0;
std::atomic<std::size_t> peak = 0;
std::atomic<std::ptrdiff_t> allowed = std::numeric_limits<std::ptrdiff_t>::max();

} // namespace

[[gnu::noinline]] void* operator new(std::size_t bytes) {
    void* const block = allowed-- > 0 ? std::malloc(bytes) : nullptr;
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    live += malloc_usable_size(block);
    peak = std::max(peak.load(), live.load());
    return block;
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    live -= malloc_usable_size(block);
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t /*bytes*/) noexcept {
    operator delete(block);
}

namespace Vantor::Sentrix {
namespace {

constexpr std::size_t kPiece = 0x10000;

// The most memory that `run` has at a time.
std::size_t CostOf(const std::function<void()>& run) {
    const std::size_t before = live;
    peak = before;
    run();
    return peak - before;
}

std::vector<std::unique_ptr<BaseItem>> ReadAll(Stream& stream) {
    std::vector<BaseItem*> items;
    ReadItems(items, &stream);
    return {items.begin(), items.end()};
}

TEST(PosixStreamTest, ALengthThatLiesCostsWhatArrivedAndAPiece) {
    const LogCapture log;
    GetLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    for (const std::size_t arrived : {0, 10, 60'000, 2'000'000}) {
        const std::size_t limit = 2 * (arrived + kPiece) + 4096;
        const std::string bytes = "\x7F\xFF\xFF\xFE" + std::string(arrived, 'x');
        SpanStream narrow(bytes.data(), bytes.size()), wide(narrow);
        EXPECT_LT(CostOf([&] { StreamReader(&narrow).ReadString(); }), limit) << arrived;
        EXPECT_LT(CostOf([&] { StreamReader(&wide).ReadWString(); }), limit * sizeof(wchar_t) / 2) << arrived;
    }
    for (const char* tail :
         {"\x10", "\x7F", "\x7F\xFF\xFF\xFE"}) { // of an item that breaks off in the length of a name
        const std::string bytes = std::string("\0\0\0\1\0\0\0\0", 8) + tail;
        SpanStream list(bytes.data(), bytes.size());
        EXPECT_LT(CostOf([&] { EXPECT_EQ(ReadAll(list).size(), 1U); }), 4 * kPiece + 4096);
    }
}

TEST(PosixStreamTest, WhicheverAllocationFailsNothingIsThrownOrLost) {
    const LogCapture log;
    GetLogger().setLogLevel(log4cplus::OFF_LOG_LEVEL);
    const std::vector<std::string> texts{std::string(3 * kPiece, 't'), "t"};
    const std::vector<std::wstring> wideTexts{std::wstring(2 * kPiece, L't')};
    SimpleFileItem item;
    item.m_name = wideTexts[0];
    MemoryrStream room(kPiece), list;
    StreamWriter(&list).Write(2);
    item.Serialize(&list);
    item.Serialize(&list);
    const auto read = [](const std::string& bytes, auto... containers) {
        SpanStream stream(bytes.data(), bytes.size());
        (StreamReader(&stream).Read(containers), ...);
    };
    // Not in place: any other stream is read in pieces. What follows a string is found also when that has no memory.
    const auto readText = [&](auto readOne) {
        class Slow : public MemoryrStream {
        } stream;
        StreamWriter writer(&stream);
        writer.Write(texts[0]);
        writer.Write(7);
        stream.SetPosition(0);
        StreamReader reader(&stream);
        (reader.*readOne)();
        EXPECT_EQ(reader.ReadInt(), 7);
    };
    const std::function<void()> runs[] = {
        [&] { StreamWriter(&room).Write(wideTexts[0]); },
        [&] { StreamWriter(&room).Write(std::numeric_limits<float>::max()); },
        [&] { SerializeToString(wideTexts); },
        [&, bytes = SerializeToString(wideTexts)] { read(bytes, std::vector<std::wstring>()); },
        [&, bytes = SerializeToString(texts)] { read(bytes, std::vector<std::string>(), std::vector<int>()); },
        [&, bytes = SerializeToString(texts)] { read(bytes, std::map<std::string, std::string>()); },
        [&] { readText(&StreamReader::ReadString); },
        [&] { readText(&StreamReader::ReadWString); },
        [&] { SimpleFileItem().Assign(&item); },
        [&] {
            char packed[] = "\1\0\0\0\x13\0nineteen characters, and a line that is longer\n";
            IpcBufferBuild channel(packed, sizeof packed - 1, true);
            std::vector<std::string> strings;
            std::string line;
            DataStream stream(&channel, false);
            stream.ReadUtf8StringArray(strings);
            stream.ReadLine(line);
        },
        [&] {
            list.SetPosition(0);
            std::vector<BaseItem*> items;
            ReadItems(items, &list);
            std::for_each(items.begin(), items.end(), std::default_delete<BaseItem>());
        },
    };
    for (const auto& run : runs) {
        bool isEnough = false;
        for (std::ptrdiff_t count = 0; !isEnough; ++count) {
            const std::size_t before = live;
            bool hasThrown = false;
            allowed = count;
            try {
                run();
            } catch (const std::bad_alloc&) {
                hasThrown = true;
            }
            isEnough = allowed >= 0;
            allowed = std::numeric_limits<std::ptrdiff_t>::max();
            EXPECT_FALSE(hasThrown) << &run - runs << ", " << count;
            EXPECT_EQ(live, before) << &run - runs << ", " << count;
        }
    }
}

class PosixFileTest : public testing::Test {
protected:
    void TearDown() override { std::filesystem::remove(path); }
    const std::string path =
        std::filesystem::temp_directory_path() / ("veyra-posix-" + std::to_string(GetCurrentProcessId()));
};

TEST_F(PosixFileTest, AWriteThatTheDiskEndsCountsAsFarAsItCame) {
    std::signal(SIGXFSZ, SIG_IGN); // the limit stands for a disk that becomes full
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    FileStream file(path, FileStream::kCreate);
    const rlimit ten{10, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &ten);
    const unsigned int counts[] = {file.Write("0123456", 7), file.Write("789abc", 6), file.Write("d", 1)};
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_EQ(std::vector(counts, counts + 3), (std::vector{7U, 3U, 0U}));
    EXPECT_EQ(file.GetPosition(), 10);
    EXPECT_EQ(file.Write("xyz", 3), 3U);
    file.SetPosition(0);
    MemoryrStream all;
    all.LoadFromStream(file);
    EXPECT_EQ(all.ToString(), "0123456789xyz");
}

// A pipe would be waited for; what has no size looks empty.
TEST_F(PosixFileTest, OnlyFilesOfAKnownSizeAreHashed) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const LogCapture log;
    for (const std::string& name : {path, std::string("/proc/version"), std::string("/dev/zero"), std::string("/")}) {
        EXPECT_EQ(CryptMD5::GetFileMd5Hex(name), "");
        EXPECT_EQ(log.Count(log4cplus::DEBUG_LOG_LEVEL, "getmd5 open faild error:" + name), 1) << name;
    }
}

} // namespace
} // namespace Vantor::Sentrix
