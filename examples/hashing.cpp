// Prints the MD5 and the SHA-256 of files. Needs no host.
//
//     c++ -std=c++17 hashing.cpp $(pkg-config --cflags --libs veyrasvc) -o hashing
//     ./hashing FILE...
#include "veyrasvc/stream/HashUtils.h"
#include "veyrasvc/stream/SimpleStream.h"

#include <iostream>
#include <string>

using namespace Vantor::Sentrix;

namespace {

constexpr DWORD kSha256Bytes = 32;

// Any algorithm of the system's provider goes this way; for MD5 there are helpers that do it in one call.
std::string Sha256Hex(Stream& stream, std::int64_t length) {
    CryptBase hash(CALG_SHA_256, kSha256Bytes);
    hash.Init();
    hash.Update(stream, length); // any number of times, also with bytes from memory
    std::string digest(kSha256Bytes, '\0');
    hash.Final(reinterpret_cast<unsigned char*>(digest.data()));
    std::string digits;
    CryptMD5::BytesToHexString(digest, digits);
    return digits;
}

bool Show(const std::string& path) {
    FileStream file(path, FileStream::kRead | FileStream::kShareAll);
    const std::string md5 = CryptMD5::GetFileMd5Hex(path); // empty when it cannot be opened
    if (!file.IsValid() || md5.empty()) {
        std::cerr << "hashing: cannot read '" << path << "'\n";
        return false;
    }
    std::cout << "MD5 (" << path << ") = " << md5 << '\n'
              << "SHA256 (" << path << ") = " << Sha256Hex(file, file.GetSize()) << '\n';
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: hashing FILE...\n";
        return 2;
    }
    bool done = true;
    for (int i = 1; i < argc; ++i) {
        done = Show(argv[i]) && done;
    }
    return done ? 0 : 1;
}
