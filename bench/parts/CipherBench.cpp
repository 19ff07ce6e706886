// Enciphering and deciphering a body, each with the memory it hands out, and enciphering with its random IV.
#include "bench/parts/EvpCipher.h"
#include "bench/parts/Part.h"
#include "veyrasvc/bus/PayloadCipher.h"

#include <memory>
#include <new>

using namespace Vantor::Sentrix;

namespace {

struct OperatorDelete {
    void operator()(unsigned char* block) const { operator delete(block); }
};
using Block = std::unique_ptr<unsigned char, OperatorDelete>;

const unsigned char* Raw(const std::string& bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

void Encrypt(benchmark::State& state) {
    const std::string plain = Bytes(Size(state));
    Measure(state, [&] {
        unsigned char* cipher = nullptr;
        unsigned char* iv = nullptr;
        std::size_t length = 0;
        const int result = EncryptPayload(Raw(plain), plain.size(), &cipher, &length, &iv);
        const Block ownedCipher(cipher);
        const Block ownedIv(iv);
        return result == 0;
    });
}

void Decrypt(benchmark::State& state) {
    const std::string iv(kCipherBlockSize, '\0');
    const std::string text = Bytes(Size(state));
    std::string cipher(text.size() + kCipherBlockSize, '\0');
    std::size_t cipherLength = 0;
    EncryptCbc(Raw(iv), Raw(text), text.size(), reinterpret_cast<unsigned char*>(cipher.data()), &cipherLength);
    Measure(state, [&] {
        unsigned char* plain = nullptr;
        std::size_t length = 0;
        const int result = DecryptPayload(Raw(iv), Raw(cipher), cipherLength, &plain, &length);
        const Block owned(plain);
        return result == 0 && length == text.size();
    });
}

void EvpEncrypt(benchmark::State& state) {
    const std::string plain = Bytes(Size(state));
    std::string out(plain.size() + EvpCipher::kBlock, '\0');
    EvpCipher cipher(EvpCipher::kEncrypt);
    Measure(state, [&] { return cipher.Run(plain, plain.size(), out) == out.size(); });
}

void EvpDecrypt(benchmark::State& state) {
    const std::string plain = Bytes(Size(state));
    std::string cipher(plain.size() + EvpCipher::kBlock, '\0');
    EvpCipher(EvpCipher::kEncrypt).Run(plain, plain.size(), cipher);
    std::string out(cipher.size() + EvpCipher::kBlock, '\0');
    EvpCipher decipher(EvpCipher::kDecrypt);
    Measure(state, [&] { return decipher.Run(cipher, cipher.size(), out) == plain.size(); });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv,
                    {{"Encrypt", Encrypt, {{"EVP_CipherUpdate", EvpEncrypt}}},
                     {"Decrypt", Decrypt, {{"EVP_CipherUpdate", EvpDecrypt}}}});
}
