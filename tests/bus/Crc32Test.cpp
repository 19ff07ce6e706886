#include "veyrasvc/bus/Crc32.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace Vantor::Sentrix {
namespace {

// The definition, bit by bit.
std::uint32_t BitByBit(const unsigned char* bytes, std::size_t count) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (std::size_t i = 0; i < count; ++i) {
        crc ^= bytes[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320 : 0);
        }
    }
    return ~crc;
}

TEST(Crc32Test, GivesTheDefinedValueAtEveryLengthAndAlignment) {
    EXPECT_EQ(Crc32("123456789", 9), 0xCBF43926U);
    std::mt19937 random(1);
    std::vector<unsigned char> bytes(5000);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random()); });
    for (std::size_t start = 0; start < 16; ++start) {
        for (std::size_t count = 0; count < 300; ++count) {
            ASSERT_EQ(Crc32(&bytes[start], count), BitByBit(&bytes[start], count)) << start << " " << count;
        }
    }
    EXPECT_EQ(Crc32(bytes.data(), bytes.size()), BitByBit(bytes.data(), bytes.size()));
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
