// Packs a text and a number into memory, shows the bytes, and unpacks them again. Needs no host.
//
//     c++ -std=c++17 packing.cpp $(pkg-config --cflags --libs veyrasvc) -o packing
//     ./packing abc 1     prints "9 bytes: 03 00 61 62 63 01 00 00 00" and, unpacked, "abc 1"
#include "veyrasvc/stream/DataStream.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Vantor::Sentrix;

namespace {

struct Record {
    std::string text;
    int number = 0;
};

// The bytes that the record takes; -1 when it does not fit, or its text is too long for the format.
int Pack(IOChannel& channel, const Record& record) {
    NxIpcPackage package(&channel);
    const int text = package.PacketString(record.text);
    const int number = package.PacketInt(record.number);
    return text < 0 || number < 0 ? -1 : text + number;
}

// False when the bytes are no whole record. The number comes last on purpose: a text that is missing altogether reads
// as an empty one, but then the number is missing too.
bool Unpack(IOChannel& channel, Record& record) {
    NxIpcPackage package(&channel);
    const int text = package.UnpacketString(record.text);
    const int expected = record.text.empty() ? 0 : 2 + static_cast<int>(record.text.size());
    return text == expected && package.UnpacketInt(record.number) == 4;
}

int Show(const Record& record) {
    IpcBufferBuild measure(nullptr, 0, false); // stores nothing
    const int size = Pack(measure, record);
    if (size < 0) {
        std::cerr << "packing: a text has at most 32767 bytes\n";
        return 1;
    }
    std::vector<char> bytes(static_cast<std::size_t>(size));
    IpcBufferBuild out(bytes.data(), static_cast<unsigned int>(bytes.size()), false);
    Pack(out, record); // fits, since it was measured

    std::printf("%d bytes:", size);
    for (const char byte : bytes) {
        std::printf(" %02x", static_cast<unsigned int>(static_cast<unsigned char>(byte)));
    }

    IpcBufferBuild in(bytes.data(), static_cast<unsigned int>(bytes.size()), true);
    Record again;
    const bool whole = Unpack(in, again);
    std::printf("\n%s %d\n", again.text.c_str(), again.number);
    return whole ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        std::size_t digits = 0;
        if (argc == 3) {
            const std::string number = argv[2];
            const Record record{argv[1], std::stoi(number, &digits)};
            if (digits == number.size()) {
                return Show(record);
            }
        }
    } catch (const std::logic_error&) { // no number, or none that an int holds
    }
    std::cerr << "usage: packing TEXT NUMBER\n";
    return 2;
}
