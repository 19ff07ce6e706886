#include "veyrasvc/platform/posix/OpenSsl.h"

#include <dlfcn.h>

#include <openssl/opensslv.h>

namespace Vantor::Sentrix::Platform {

namespace {

#define VEYRA_TEXT_OF(token) #token
#define VEYRA_TEXT(token) VEYRA_TEXT_OF(token)
constexpr char kLibrary[] = "libcrypto.so." VEYRA_TEXT(OPENSSL_SHLIB_VERSION);

template <class Function> bool Find(void* library, const char* name, Function& function) {
    function = reinterpret_cast<Function>(dlsym(library, name));
    return function != nullptr;
}

const OpenSsl* LoadOnce() {
    void* const library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL); // for as long as the process lives
    static OpenSsl functions;
    if (library == nullptr) {
        return nullptr;
    }
#define VEYRA_FIND(name) Find(library, #name, functions.name)
    const bool isWhole = VEYRA_FIND(OPENSSL_init_crypto) && VEYRA_FIND(OPENSSL_cleanse) &&
                         VEYRA_FIND(EVP_CIPHER_fetch) && VEYRA_FIND(EVP_CIPHER_CTX_new) &&
                         VEYRA_FIND(EVP_CIPHER_CTX_free) && VEYRA_FIND(EVP_CIPHER_CTX_set_padding) &&
                         VEYRA_FIND(EVP_CipherInit_ex) && VEYRA_FIND(EVP_CipherUpdate) && VEYRA_FIND(EVP_MD_fetch) &&
                         VEYRA_FIND(EVP_MD_CTX_new) && VEYRA_FIND(EVP_MD_CTX_free) && VEYRA_FIND(EVP_DigestInit_ex) &&
                         VEYRA_FIND(EVP_DigestUpdate) && VEYRA_FIND(EVP_DigestFinal_ex) && VEYRA_FIND(EVP_Q_digest);
#undef VEYRA_FIND
    return isWhole && functions.OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1 ? &functions : nullptr;
}

} // namespace

const OpenSsl* OpenSsl::Load() {
    static const OpenSsl* const loaded = LoadOnce();
    return loaded;
}

} // namespace Vantor::Sentrix::Platform
