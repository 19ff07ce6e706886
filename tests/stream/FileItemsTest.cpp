#include "veyrasvc/util/FileItems.h"

#include "tests/support/LogCapture.h"
#include "veyrasvc/stream/SpanStream.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace std::string_literals;
using namespace Vantor::Sentrix;

namespace {

std::string Bytes(auto&& item) {
    MemoryrStream stream;
    item.Serialize(&stream);
    return stream.ToString();
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
    EXPECT_EQ(Bytes(item),
              "\0\0\0\1\0\0\0\4\0a\0\xE9\0\0\0\2\0/\1\2\3\4\5\6\7\x08\xFF\xFF\xFF\xFE\x11\x12\x13\x14\xF1\xF2\xF3\xF4"
              "!\"#$%&'(12345678ABCDEFGH\0\0\0\0"s);
    item.m_flag2 = !(item.m_flag = false);
    EXPECT_EQ(Bytes(item).substr(0, 4) + Bytes(item).substr(62), "\0\0\0\0\0\0\0\1"s);
    SimpleFileItem other;
    EXPECT_EQ(Bytes(other), std::string(60, '\0'));
    other.Assign(&item);
    EXPECT_EQ(Bytes(other), Bytes(item));
    const std::string bytes = Bytes(item).replace(2, 1, "x");
    SpanStream stream(bytes.data(), bytes.size());
    other.Deserialize(&stream);
    EXPECT_TRUE(other.m_flag) << "true is whatever is not 0";
}

// Lists that announce more than there is, and break off at every byte. What came of the last item is kept.
TEST(FileItemsTest, AListEndsWhereItsBytesDo) {
    const std::string one = Bytes(Sample());
    for (const std::string& count : {"\0\0\0\0"s, "\0\0\0\1"s, "\0\0\0\3"s, "\xFF\xFF\xFF\xFF"s}) {
        const std::string list = std::string(count).append(one).append(one);
        const std::size_t announced = static_cast<unsigned char>(list[3]);
        for (std::size_t length = 0; length <= list.size(); ++length) {
            LogCapture log;
            SpanStream stream(list.data(), length);
            std::vector<BaseItem*> items{nullptr};
            ReadItems(items, &stream);
            const std::size_t there = length < 4 ? 0 : (length - 4 + one.size() - 1) / one.size();
            ASSERT_EQ(items.size(), 1 + std::min(there, announced))
                << announced << " announced, " << length << " bytes";
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
