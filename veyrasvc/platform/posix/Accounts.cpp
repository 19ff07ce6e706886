// Who owns a file and who runs the program. An account is S-1-22-1-<user id>.
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/SecurityTypes.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace Vantor::Sentrix::Platform {

namespace {

// A process has one account here: the token tells it and holds nothing.
class Token final : public Object {};

struct TokenUserBlock {
    TOKEN_USER user;
    Sid sid;
};

Sid AccountOf(uid_t user) {
    return {kSidRevision, 2, {0, 0, 0, 0, 0, 22}, {1, user}};
}

} // namespace

BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token) {
    if (process != GetCurrentProcess() || access != TOKEN_QUERY || token == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    *token = AddHandle(MakeObject<Token>());
    return *token != nullptr ? TRUE : FALSE;
}

BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void* buffer, DWORD size, DWORD* needed) {
    if (!Find<Token>(token)) {
        return FALSE;
    }
    if (what != TokenUser || needed == nullptr) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    *needed = sizeof(TokenUserBlock);
    if (buffer == nullptr || size < sizeof(TokenUserBlock)) {
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    auto* const block = new (buffer) TokenUserBlock{{}, AccountOf(geteuid())};
    block->user.User.Sid = &block->sid;
    return TRUE;
}

DWORD GetNamedSecurityInfoW(LPCWSTR name, SE_OBJECT_TYPE type, DWORD what, PSID* owner, PSID* group, PACL* accessList,
                            PACL* systemList, PSECURITY_DESCRIPTOR* descriptor) {
    std::string path;
    if (name == nullptr || type != SE_FILE_OBJECT || what != OWNER_SECURITY_INFORMATION || owner == nullptr ||
        group != nullptr || accessList != nullptr || systemList != nullptr || descriptor == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    if (!WideToUtf8(name, path)) {
        return ERROR_INVALID_NAME;
    }
    struct stat found {};
    if (lstat(path.c_str(), &found) != 0) {
        return ErrorFromErrno(errno);
    }
    void* const block = LocalAlloc(LPTR, sizeof(Sid));
    if (block == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    *owner = new (block) Sid(AccountOf(found.st_uid));
    *descriptor = block;
    return ERROR_SUCCESS;
}

BOOL EqualSid(PSID a, PSID b) {
    return *static_cast<const Sid*>(a) == *static_cast<const Sid*>(b) ? TRUE : FALSE;
}

} // namespace Vantor::Sentrix::Platform
