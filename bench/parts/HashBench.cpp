// Digests of bytes in memory beside OpenSSL alone: one context, kept ready for its algorithm.
#include "bench/parts/Part.h"
#include "veyrasvc/stream/HashUtils.h"

#include <openssl/evp.h>

#include <array>
#include <memory>

using namespace Vantor::Sentrix;

namespace {

using Digest = std::array<unsigned char, EVP_MAX_MD_SIZE>;

Digest OpenSslDigest(const EVP_MD* algorithm, const std::string& bytes) {
    Digest digest = {};
    EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, algorithm, nullptr);
    return digest;
}

void Md5(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const Digest expected = OpenSslDigest(EVP_md5(), bytes);
    const std::string text(expected.begin(), expected.begin() + 16);
    Measure(state, [&] { return CryptMD5::GetStringMd5(bytes) == text; });
}

void Sha256(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const Digest expected = OpenSslDigest(EVP_sha256(), bytes);
    Measure(state, [&] {
        Digest digest = {};
        CryptBase hash(CALG_SHA_256, 32);
        hash.Init();
        hash.Update(bytes.data(), static_cast<std::int64_t>(bytes.size()));
        hash.Final(digest.data());
        return digest == expected;
    });
}

void Evp(benchmark::State& state, const EVP_MD* algorithm) {
    const std::string bytes = Bytes(Size(state));
    const Digest expected = OpenSslDigest(algorithm, bytes);
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), algorithm, nullptr);
    Measure(state, [&] {
        Digest digest = {};
        return EVP_DigestInit_ex(context.get(), nullptr, nullptr) == 1 &&
               EVP_DigestUpdate(context.get(), bytes.data(), bytes.size()) == 1 &&
               EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) == 1 && digest == expected;
    });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(
        argc, argv,
        {{"Md5", Md5, {{"EVP_DigestUpdate", [](benchmark::State& state) { Evp(state, EVP_md5()); }}}},
         {"Sha256", Sha256, {{"EVP_DigestUpdate", [](benchmark::State& state) { Evp(state, EVP_sha256()); }}}}});
}
