#include "veyrasvc/stream/FileItems.h"

#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace Vantor::Sentrix {
namespace {

namespace fs = std::filesystem;

std::string Bytes(auto&& item) {
    MemoryrStream stream;
    item.Serialize(&stream);
    return stream.ToString();
}

std::string Text(const char* hex) {
    std::string bytes;
    for (const char* at = hex; *at != '\0'; at += 2) {
        bytes += static_cast<char>(std::stoi(std::string(at, 2), nullptr, 16));
        at += at[2] == ' ' ? 1 : 0;
    }
    return bytes;
}

// Every field has a value of its own, so that two that change places are seen.
SimpleFileItem Sample() {
    SimpleFileItem item;
    item.m_flag = true;
    item.m_name = L"a\u00e9";
    item.m_path = L"/";
    item.m_size = 0x0102030405060708;
    item.m_attributes = -2;
    item.m_reserved0 = 0x11121314;
    item.m_reserved1 = 0xF1F2F3F4;
    item.m_creationTime = {0x21222324, 0x25262728};
    item.m_lastAccessTime = {0x31323334, 0x35363738};
    item.m_lastWriteTime = {0x41424344, 0x45464748};
    return item;
}

// Takes the items over.
std::vector<std::unique_ptr<BaseItem>> Read(Stream& stream) {
    SimpleFileItem before;
    std::vector<BaseItem*> items{&before};
    ReadItems(items, &stream);
    EXPECT_EQ(items.front(), &before) << "items are appended";
    return {items.begin() + 1, items.end()};
}

TEST(FileItemsTest, AnItemHasItsFieldsInOrder) {
    SimpleFileItem item = Sample();
    EXPECT_EQ(Bytes(item), Text("00000001 00000004 006100e9 00000002 002f 0102030405060708 fffffffe 11121314 f1f2f3f4 "
                                "2122232425262728 3132333435363738 4142434445464748 00000000"));
    item.m_flag2 = !(item.m_flag = false);
    EXPECT_EQ(Bytes(item).substr(0, 4) + Bytes(item).substr(62), Text("00000000 00000001"));
    SimpleFileItem other;
    EXPECT_EQ(Bytes(other), std::string(60, '\0'));
    other.Assign(&item);
    EXPECT_EQ(Bytes(other), Bytes(item));
    other.Assign(&other);
    EXPECT_EQ(Bytes(other), Bytes(item));
    const LogCapture quiet;
    MemoryrStream bools(Text("00000100").c_str(), 4);
    bools.SetPosition(0);
    other.Deserialize(&bools);
    EXPECT_EQ(Bytes(other).substr(0, 8), Text("00000001 00000000")) << "true is whatever is not 0";
}

TEST(FileItemsTest, AnItemOfARealFileComesBackThroughAFile) {
    const fs::path folder = fs::temp_directory_path() / ("veyra-items-" + std::to_string(GetCurrentProcessId()));
    fs::create_directory(folder);
    const fs::path described = folder / u8"r\u00e9sum\u00e9 \u4e2d";
    std::ofstream(described, std::ios::binary) << std::string(70000, 'x');
    const auto written = static_cast<std::uint64_t>(fs::last_write_time(described).time_since_epoch().count());
    SimpleFileItem item;
    item.m_name = L"r\u00e9sum\u00e9 \u4e2d";
    item.m_path = folder.wstring() + L"/" + item.m_name;
    item.m_size = fs::file_size(described);
    item.m_lastWriteTime = {static_cast<DWORD>(written), static_cast<DWORD>(written >> 32)};
    const std::wstring list = (folder / "list").wstring();
    {
        FileStream stream(list, FileStream::kCreate);
        StreamWriter(&stream).Write(2);
        item.Serialize(&stream);
        Sample().Serialize(&stream);
        stream.SetPosition(0);
        const auto items = Read(stream);
        ASSERT_EQ(items.size(), 2U);
        EXPECT_EQ(Bytes(*items[0]), Bytes(item));
        EXPECT_EQ(Bytes(*items[1]), Bytes(Sample()));
        const auto& back = dynamic_cast<const SimpleFileItem&>(*items[0]);
        EXPECT_EQ(FileStream(back.m_path, FileStream::kRead).GetSize(), 70000) << "it still leads to the file";
    }
    fs::remove_all(folder);
}

// Lists that announce more than there is, and break off at every byte.
TEST(FileItemsTest, AListThatLiesEndsWithItsLastWholeItem) {
    const std::string one = Bytes(Sample());
    for (const char* count : {"00000000", "00000001", "00000003", "ffffffff"}) {
        const std::string list = Text(count) + one + one;
        const std::size_t announced = static_cast<unsigned char>(list[3]);
        for (std::size_t length = 0; length <= list.size(); ++length) {
            LogCapture log;
            MemoryrStream stream(list.data(), static_cast<int>(length));
            stream.SetPosition(0);
            const std::size_t there = length < 4 ? 0 : (length - 4) / one.size();
            const auto items = Read(stream);
            ASSERT_EQ(items.size(), std::min(there, announced)) << count << ", " << length << " bytes";
            EXPECT_TRUE(items.empty() || Bytes(*items.back()) == one);
            const bool ends = length < 4 || there < announced;
            EXPECT_EQ(log.Errors("read buffer error!"), ends ? 1 : 0) << length;
            EXPECT_EQ(log.Take().size(), ends ? 1U : 0U);
        }
    }
    const LogCapture quiet;
    MemoryrStream huge(Text("ffffffff 00000001 7ffffffe 00780078").c_str(), 16);
    huge.SetPosition(0);
    EXPECT_TRUE(Read(huge).empty()) << "a name of two gigabytes that is not there";
}

} // namespace
} // namespace Vantor::Sentrix
