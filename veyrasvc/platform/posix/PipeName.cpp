#include "veyrasvc/platform/posix/PipeName.h"

#include "veyrasvc/platform/posix/Handle.h"
#include "veyrasvc/platform/posix/Namespace.h"
#include "veyrasvc/platform/posix/Utf8.h"

#include <cstddef>
#include <cstring>
#include <cwctype>
#include <string_view>

namespace Vantor::Sentrix::Platform {

std::optional<PipeName> PipeName::Parse(LPCWSTR name) {
    return IfMemoryLasts(std::optional<PipeName>(), [&] {
        auto parsed = ParseText(name);
        if (!parsed) {
            SetLastError(ERROR_INVALID_NAME);
        }
        return parsed;
    });
}

std::optional<PipeName> PipeName::ParseText(LPCWSTR name) {
    constexpr std::wstring_view kPrefix = L"\\\\.\\pipe\\";
    if (name == nullptr) {
        return std::nullopt;
    }
    std::wstring folded(name);
    for (wchar_t& unit : folded) {
        unit = static_cast<wchar_t>(std::towlower(static_cast<wint_t>(unit)));
    }
    if (folded.size() <= kPrefix.size() || folded.compare(0, kPrefix.size(), kPrefix) != 0) {
        return std::nullopt;
    }
    std::string utf8;
    if (!WideToUtf8(folded.substr(kPrefix.size()), utf8)) {
        return std::nullopt;
    }
    PipeName result;
    result.m_key = "veyrasvc/" + PipeNamespace() + "/" + utf8;
    if (result.m_key.size() + 1 > sizeof result.m_address.sun_path) {
        return std::nullopt;
    }
    result.m_address.sun_family = AF_UNIX;
    std::memcpy(result.m_address.sun_path + 1, result.m_key.data(), result.m_key.size());
    result.m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + result.m_key.size());
    return result;
}

} // namespace Vantor::Sentrix::Platform
