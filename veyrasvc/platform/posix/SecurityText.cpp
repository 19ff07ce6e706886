// Access lists from text: ConvertStringSecurityDescriptorToSecurityDescriptorW for "D:(type;flags;rights;;;sid)...".
#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/SecurityTypes.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>
#include <optional>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Platform {

namespace {

using Text = std::wstring_view;

constexpr std::size_t kCodeLength = 2; // flags, rights and well-known accounts are words of two letters

constexpr DWORD kFileAllAccess = 0x1F01FF;
constexpr DWORD kFileRead = 0x120089;
constexpr DWORD kFileWrite = 0x120116;
constexpr DWORD kFileExecute = 0x1200A0;
constexpr DWORD kGenericExecute = 0x20000000;

struct Right {
    Text code;
    DWORD access;
};
constexpr Right kRights[] = {{L"GA", GENERIC_ALL},     {L"GR", GENERIC_READ},   {L"GW", GENERIC_WRITE},
                             {L"GX", kGenericExecute}, {L"FA", kFileAllAccess}, {L"FR", kFileRead},
                             {L"FW", kFileWrite},      {L"FX", kFileExecute}};

struct Account {
    Text code;
    Sid sid;
};
constexpr Account kAccounts[] = {{L"WD", kEveryone},                                         // everyone
                                 {L"AN", {kSidRevision, 1, {0, 0, 0, 0, 0, 5}, {7}}},        // anonymous logon
                                 {L"AU", {kSidRevision, 1, {0, 0, 0, 0, 0, 5}, {11}}},       // authenticated users
                                 {L"SY", {kSidRevision, 1, {0, 0, 0, 0, 0, 5}, {18}}},       // the system
                                 {L"BA", {kSidRevision, 2, {0, 0, 0, 0, 0, 5}, {32, 544}}},  // administrators
                                 {L"BU", {kSidRevision, 2, {0, 0, 0, 0, 0, 5}, {32, 545}}},  // users
                                 {L"BG", {kSidRevision, 2, {0, 0, 0, 0, 0, 5}, {32, 546}}}}; // guests

constexpr Text kInheritance[] = {L"OI", L"CI", L"NP", L"IO", L"ID", L"SA", L"FA"};

// Takes the text up to `end` from the front, and `end` with it.
std::optional<Text> TakeUntil(Text& text, wchar_t end) {
    const auto at = text.find(end);
    if (at == Text::npos) {
        return std::nullopt;
    }
    const Text taken = text.substr(0, at);
    text.remove_prefix(at + 1);
    return taken;
}

bool IsInheritance(Text flags) {
    for (; !flags.empty(); flags.remove_prefix(kCodeLength)) {
        if (std::find(std::begin(kInheritance), std::end(kInheritance), flags.substr(0, kCodeLength)) ==
            std::end(kInheritance)) {
            return false;
        }
    }
    return true;
}

// A whole number, decimal or with 0x, that fits.
std::optional<std::uint64_t> Number(Text text, std::uint64_t most) {
    const bool isHex = text.substr(0, 2) == L"0x";
    const Text digits = isHex ? text.substr(2) : text;
    const unsigned base = isHex ? 16 : 10;
    std::uint64_t value = 0;
    for (const wchar_t c : digits) {
        const auto lower = static_cast<std::uint32_t>(c >= L'A' && c <= L'F' ? c + 32 : c);
        const std::uint32_t digit = lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : lower - '0';
        if (digit >= base || value > (most - digit) / base) {
            return std::nullopt;
        }
        value = value * base + digit;
    }
    return digits.empty() ? std::nullopt : std::optional(value);
}

std::optional<DWORD> Rights(Text text) {
    if (text.substr(0, 2) == L"0x") {
        const auto number = Number(text, std::numeric_limits<DWORD>::max());
        return number ? std::optional(static_cast<DWORD>(*number)) : std::nullopt;
    }
    DWORD access = 0;
    for (; !text.empty(); text.remove_prefix(kCodeLength)) {
        const auto* const right = std::find_if(std::begin(kRights), std::end(kRights), [&](const Right& known) {
            return known.code == text.substr(0, kCodeLength);
        });
        if (right == std::end(kRights)) {
            return std::nullopt;
        }
        access |= right->access;
    }
    return access;
}

// "S-1-authority-sub-sub..."
std::optional<Sid> SidFromText(Text text) {
    constexpr Text kStart = L"S-1-";
    if (text.substr(0, kStart.size()) != kStart) {
        return std::nullopt;
    }
    std::vector<std::uint64_t> numbers;
    for (text.remove_prefix(kStart.size());;) {
        const std::optional<Text> part = TakeUntil(text, L'-');
        constexpr std::uint64_t kMostAuthority = (std::uint64_t{1} << 48) - 1;
        const auto number =
            Number(part.value_or(text), numbers.empty() ? kMostAuthority : std::numeric_limits<DWORD>::max());
        if (!number || numbers.size() > kMaxSubAuthorities) {
            return std::nullopt;
        }
        numbers.push_back(*number);
        if (!part) {
            break;
        }
    }
    Sid sid{kSidRevision, static_cast<BYTE>(numbers.size() - 1), {}, {}};
    for (int i = 0; i < 6; ++i) {
        sid.authority[i] = static_cast<BYTE>(numbers[0] >> (8 * (5 - i)));
    }
    std::transform(numbers.begin() + 1, numbers.end(), sid.subAuthorities,
                   [](std::uint64_t number) { return static_cast<DWORD>(number); });
    return numbers.size() > 1 ? std::optional(sid) : std::nullopt;
}

std::optional<Sid> Trustee(Text text) {
    for (const Account& account : kAccounts) {
        if (account.code == text) {
            return account.sid;
        }
    }
    return SidFromText(text);
}

// The inside of one pair of brackets.
std::optional<AccessEntry> Entry(Text text) {
    const auto type = TakeUntil(text, L';');
    const auto flags = TakeUntil(text, L';');
    const auto rights = TakeUntil(text, L';');
    const auto object = TakeUntil(text, L';');
    const auto inheritedObject = TakeUntil(text, L';');
    if (!inheritedObject || !object->empty() || !inheritedObject->empty() || !IsInheritance(*flags)) {
        return std::nullopt;
    }
    const auto access = Rights(*rights);
    const auto sid = Trustee(text);
    if (!access || !sid || (*type != L"A" && *type != L"D")) {
        return std::nullopt;
    }
    return AccessEntry{*type == L"A", *access, *sid};
}

bool IsListFlags(Text flags) {
    for (const Text known : {Text(L"P"), Text(L"AR"), Text(L"AI")}) {
        if (flags.substr(0, known.size()) == known) {
            flags.remove_prefix(known.size());
        }
    }
    return flags.empty();
}

std::optional<std::vector<AccessEntry>> Parse(Text text) {
    constexpr Text kStart = L"D:";
    const auto firstEntry = std::min(text.find(L'('), text.size());
    if (text.substr(0, kStart.size()) != kStart || !IsListFlags(text.substr(2, firstEntry - 2))) {
        return std::nullopt;
    }
    std::vector<AccessEntry> entries;
    for (text.remove_prefix(firstEntry); !text.empty();) {
        const bool opens = text[0] == L'(';
        text.remove_prefix(1);
        const auto inside = TakeUntil(text, L')');
        const auto entry = opens && inside ? Entry(*inside) : std::nullopt;
        if (!entry) {
            return std::nullopt;
        }
        entries.push_back(*entry);
    }
    return entries;
}

} // namespace

BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(LPCWSTR text, DWORD revision,
                                                          PSECURITY_DESCRIPTOR* descriptor, ULONG* size) {
    return IfMemoryLasts(FALSE, [&] {
        if (text == nullptr || descriptor == nullptr || revision != SDDL_REVISION_1) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        const auto entries = Parse(text);
        if (!entries) {
            return Fail(ERROR_INVALID_PARAMETER);
        }
        // The list lies behind the descriptor in one block, so that one LocalFree takes both.
        const std::size_t bytes = sizeof(Descriptor) + sizeof(AccessList) + entries->size() * sizeof(AccessEntry);
        auto* const block = static_cast<char*>(std::calloc(1, bytes));
        if (block == nullptr) {
            return Fail(ERROR_NOT_ENOUGH_MEMORY);
        }
        auto* const list = new (block + sizeof(Descriptor)) AccessList{static_cast<ULONG>(entries->size())};
        std::copy(entries->begin(), entries->end(), list->Entries());
        *descriptor = new (block)
            Descriptor{SECURITY_DESCRIPTOR_REVISION, 0, kAccessListPresent, nullptr, nullptr, nullptr, list};
        if (size != nullptr) {
            *size = static_cast<ULONG>(bytes);
        }
        return TRUE;
    });
}

} // namespace Vantor::Sentrix::Platform
