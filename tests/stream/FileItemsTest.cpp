#include "veyrasvc/util/FileItems.h"

#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SpanStream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

using namespace Vantor::Sentrix;

namespace {

std::string Bytes(auto&& item) {
    MemoryrStream stream;
    item.Serialize(&stream);
    return stream.ToString();
}

std::string Text(const std::string& hex) {
    std::string bytes;
    std::istringstream digits(hex);
    for (char high, low; digits >> high >> low;) {
        bytes += static_cast<char>(std::stoi(std::string{high, low}, nullptr, 16));
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
    const std::string bytes = Bytes(item).replace(2, 1, "x");
    MemoryrStream stream(bytes.data(), static_cast<int>(bytes.size()));
    stream.SetPosition(0);
    other.Deserialize(&stream);
    EXPECT_EQ(Bytes(other).substr(0, 4), Text("00000001")) << "true is whatever is not 0";
}

// Lists that announce more than there is, and break off at every byte. What came of the last item is kept.
TEST(FileItemsTest, AListEndsWhereItsBytesDo) {
    const std::string one = Bytes(Sample());
    for (const char* count : {"00000000", "00000001", "00000003", "ffffffff"}) {
        const std::string list = Text(count).append(one).append(one);
        const std::size_t announced = static_cast<unsigned char>(list[3]);
        for (std::size_t length = 0; length <= list.size(); ++length) {
            SCOPED_TRACE(testing::Message() << count << ", " << length << " bytes");
            LogCapture log;
            SpanStream stream(list.data(), length);
            std::vector<BaseItem*> items{nullptr};
            ReadItems(items, &stream);
            const std::size_t there = length < 4 ? 0 : (length - 4 + one.size() - 1) / one.size();
            ASSERT_EQ(items.size(), 1 + std::min(there, announced)) << "appended to the one before";
            const std::size_t lines = log.Take().size();
            EXPECT_EQ(lines == 0, length >= 4 && (there > announced || length - 4 >= announced * one.size()));
            EXPECT_TRUE(lines <= 1 || (length - 4) % one.size() != 0) << "one line for all that is missing";
            for (std::size_t i = 1, begin = 4; i < items.size(); ++i, begin += one.size()) {
                SpanStream bytes(list.data() + begin, length - begin);
                SimpleFileItem expected;
                expected.Deserialize(&bytes);
                EXPECT_EQ(Bytes(*items[i]), Bytes(expected));
                delete items[i];
            }
        }
    }
}

} // namespace
