#include "veyrasvc/platform/posix/SecurityDescriptor.h"

#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/SecurityTypes.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Vantor::Sentrix::Platform {

namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;

DWORD SpelledOut(DWORD access) {
    return (access & GENERIC_ALL) != 0 ? access | kReadWrite : access;
}

bool IsUsable(const EXPLICIT_ACCESS_W& entry) {
    const bool knownMode =
        entry.grfAccessMode == GRANT_ACCESS || entry.grfAccessMode == SET_ACCESS || entry.grfAccessMode == DENY_ACCESS;
    return knownMode && entry.Trustee.TrusteeForm == TRUSTEE_IS_SID && entry.Trustee.ptstrName != nullptr &&
           entry.Trustee.pMultipleTrustee == nullptr;
}

AccessEntry EntryOf(const EXPLICIT_ACCESS_W& entry) {
    AccessEntry made{entry.grfAccessMode != DENY_ACCESS, entry.grfAccessPermissions, {}};
    std::memcpy(&made.sid, entry.Trustee.ptstrName, sizeof made.sid);
    return made;
}

// Null when there is no memory.
AccessList* AllocateAccessList(ULONG count) {
    void* const block = std::calloc(1, sizeof(AccessList) + count * sizeof(AccessEntry));
    return block == nullptr ? nullptr : new (block) AccessList{count};
}

} // namespace

bool operator==(const Sid& a, const Sid& b) {
    return a.revision == b.revision && a.subAuthorityCount == b.subAuthorityCount &&
           std::equal(std::begin(a.authority), std::end(a.authority), std::begin(b.authority)) &&
           std::equal(a.subAuthorities, a.subAuthorities + a.subAuthorityCount, b.subAuthorities);
}

BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorityCount, DWORD sub0, DWORD sub1,
                              DWORD sub2, DWORD sub3, DWORD sub4, DWORD sub5, DWORD sub6, DWORD sub7, PSID* sid) {
    if (authority == nullptr || sid == nullptr || subAuthorityCount == 0 || subAuthorityCount > kMaxSubAuthorities) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    void* const block = std::malloc(sizeof(Sid));
    if (block == nullptr) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    auto* const made =
        new (block) Sid{kSidRevision, subAuthorityCount, {}, {sub0, sub1, sub2, sub3, sub4, sub5, sub6, sub7}};
    std::copy(std::begin(authority->Value), std::end(authority->Value), made->authority);
    *sid = made;
    return TRUE;
}

void* FreeSid(PSID sid) {
    std::free(sid);
    return nullptr;
}

DWORD SetEntriesInAclW(ULONG count, EXPLICIT_ACCESS_W* entries, PACL oldAcl, PACL* newAcl) {
    if (count == 0 || entries == nullptr || oldAcl != nullptr || newAcl == nullptr ||
        !std::all_of(entries, entries + count, IsUsable)) {
        return ERROR_INVALID_PARAMETER;
    }
    AccessList* const list = AllocateAccessList(count);
    if (list == nullptr) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    std::transform(entries, entries + count, list->Entries(), EntryOf);
    std::partition(list->Entries(), list->Entries() + count, [](const AccessEntry& entry) { return !entry.allows; });
    *newAcl = list;
    return ERROR_SUCCESS;
}

BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision) {
    if (descriptor == nullptr || revision != SECURITY_DESCRIPTOR_REVISION) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    new (descriptor) Descriptor{static_cast<std::uint8_t>(revision), 0, 0, nullptr, nullptr, nullptr, nullptr};
    return TRUE;
}

BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl, BOOL defaulted) {
    auto* const made = static_cast<Descriptor*>(descriptor);
    if (made == nullptr || made->revision != SECURITY_DESCRIPTOR_REVISION) {
        return Fail(ERROR_INVALID_PARAMETER);
    }
    made->accessList = present != FALSE ? dacl : nullptr;
    made->control = static_cast<std::uint16_t>((present != FALSE ? kAccessListPresent : 0) |
                                               (defaulted != FALSE ? kAccessListDefaulted : 0));
    return TRUE;
}

bool AllowsEveryone(const SECURITY_ATTRIBUTES* attributes) {
    if (attributes == nullptr || attributes->lpSecurityDescriptor == nullptr) {
        return false;
    }
    const auto* const descriptor = static_cast<const Descriptor*>(attributes->lpSecurityDescriptor);
    if ((descriptor->control & kAccessListPresent) == 0) {
        return false;
    }
    const AccessList* const list = descriptor->accessList;
    if (list == nullptr) {
        return true;
    }
    // As the system decides: entry after entry, the first word on a right is the last.
    DWORD denied = 0;
    DWORD granted = 0;
    for (const AccessEntry* entry = list->Entries(); entry != list->Entries() + list->count; ++entry) {
        if (entry->sid == kEveryone) {
            DWORD& rights = entry->allows ? granted : denied;
            rights |= SpelledOut(entry->access) & ~(entry->allows ? denied : granted);
        }
    }
    return (granted & kReadWrite) == kReadWrite;
}

} // namespace Vantor::Sentrix::Platform
