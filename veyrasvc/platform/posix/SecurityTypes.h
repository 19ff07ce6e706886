// What stands behind the opaque pointers of the security calls.
#pragma once

#include "veyrasvc/platform/posix/Win32Subset.h"

#include <cstdint>
#include <type_traits>

namespace Vantor::Sentrix::Platform {

struct Sid {
    BYTE revision;
    BYTE subAuthorityCount;
    BYTE authority[6];
    DWORD subAuthorities[8];
};

constexpr BYTE kSidRevision = 1;
constexpr BYTE kMaxSubAuthorities = 8;

// S-1-1-0.
constexpr Sid kEveryone{kSidRevision, 1, {0, 0, 0, 0, 0, 1}, {0}};

bool operator==(const Sid& a, const Sid& b);

struct AccessEntry {
    bool allows; // else it denies
    DWORD access;
    Sid sid;
};

// One block of the local heap, entries and all; refusals stand before grants.
struct AccessList {
    ULONG count;

    AccessEntry* Entries() { return reinterpret_cast<AccessEntry*>(this + 1); }
    const AccessEntry* Entries() const { return reinterpret_cast<const AccessEntry*>(this + 1); }
};
static_assert(alignof(AccessEntry) <= sizeof(AccessList));

struct Descriptor {
    std::uint8_t revision;
    std::uint8_t reserved;
    std::uint16_t control;
    void* owner;
    void* group;
    void* systemList;
    AccessList* accessList; // borrowed
};
static_assert(sizeof(Descriptor) == SECURITY_DESCRIPTOR_MIN_LENGTH && std::is_trivial_v<Descriptor>);

constexpr std::uint16_t kAccessListPresent = 0x0004;
constexpr std::uint16_t kAccessListDefaulted = 0x0008;

} // namespace Vantor::Sentrix::Platform
