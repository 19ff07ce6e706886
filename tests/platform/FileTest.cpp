// Files: who may open one. What is read and written is tested with the streams that do it.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition) {
    SetLastError(NO_ERROR);
    return CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// The error of an attempt to open, NO_ERROR when it succeeds.
DWORD TryOpen(const std::wstring& path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
    const HANDLE file = Open(path, access, share, disposition);
    const DWORD error = GetLastError();
    return file != INVALID_HANDLE_VALUE && CloseHandle(file) != FALSE ? NO_ERROR : error;
}

TEST(FileTest, OpensForThoseWhomSharingLetsInAndTellsTheOthersWhy) {
    const auto folder =
        std::filesystem::temp_directory_path() / ("veyra-file-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directory(folder);
    const std::wstring path = folder.wstring() + L"/r\u00e9sum\u00e9 \u4e2d";
    char byte = 0;
    DWORD count = 0;
    HANDLE file = Open(path, GENERIC_WRITE, 0, CREATE_ALWAYS);
    EXPECT_EQ(GetLastError(), NO_ERROR) << "the file is new";
    EXPECT_TRUE(WriteFile(file, "kept", 4, &count, nullptr));
    EXPECT_FALSE(ReadFile(file, &byte, 1, &count, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(TryOpen(path, GENERIC_READ, kShareAll), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(TryOpen(path, kReadWrite, kShareAll, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(std::filesystem::file_size(folder / u8"r\u00e9sum\u00e9 \u4e2d"), 4U)
        << "the refused attempt truncated nothing";
    CloseHandle(file);
    file = Open(path, GENERIC_READ, kShareAll, CREATE_ALWAYS);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_TRUE(ReadFile(file, &byte, 1, &count, nullptr));
    EXPECT_EQ(count, 0U) << "what was there is gone";
    EXPECT_FALSE(WriteFile(file, &byte, 1, &count, nullptr));
    EXPECT_EQ(TryOpen(path, GENERIC_READ, kShareAll), NO_ERROR);
    EXPECT_EQ(TryOpen(path, GENERIC_READ, 0), ERROR_SHARING_VIOLATION);
    CloseHandle(file);
    EXPECT_EQ(TryOpen(path + L"2", GENERIC_READ, kShareAll), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(TryOpen(folder.wstring() + L"/no/folder", kReadWrite, 0, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(TryOpen(folder.wstring(), GENERIC_READ, kShareAll), ERROR_ACCESS_DENIED);
    std::filesystem::remove_all(folder);
}

TEST(FileTest, WhoHasAFileOpenSaysWhatOthersMayDoWithIt) {
    const auto path = std::filesystem::temp_directory_path() / ("veyra-share-" + std::to_string(GetCurrentProcessId()));
    CloseHandle(Open(path.wstring(), GENERIC_WRITE, 0, CREATE_ALWAYS));
    constexpr DWORD kAccesses[] = {GENERIC_READ, GENERIC_WRITE, kReadWrite};
    constexpr DWORD kShares[] = {0, FILE_SHARE_READ, FILE_SHARE_WRITE, kShareAll};
    const auto lets = [](DWORD share, DWORD access) {
        return ((access & GENERIC_READ) == 0 || (share & FILE_SHARE_READ) != 0) &&
               ((access & GENERIC_WRITE) == 0 || (share & FILE_SHARE_WRITE) != 0);
    };
    for (const DWORD access : kAccesses) {
        for (const DWORD share : kShares) {
            const HANDLE holder = Open(path.wstring(), access, share, OPEN_EXISTING);
            ASSERT_NE(holder, INVALID_HANDLE_VALUE) << "the holder before has closed the file";
            for (const DWORD newAccess : kAccesses) {
                for (const DWORD newShare : kShares) {
                    const bool fits = lets(share, newAccess) && lets(newShare, access);
                    EXPECT_EQ(TryOpen(path.wstring(), newAccess, newShare), fits ? NO_ERROR : ERROR_SHARING_VIOLATION)
                        << std::hex << access << '/' << share << " then " << newAccess << '/' << newShare;
                }
            }
            CloseHandle(holder);
        }
    }
    std::filesystem::remove(path);
}

TEST(FileTest, TellsFilesFromPipes) {
    const auto path = std::filesystem::temp_directory_path() / ("veyra-type-" + std::to_string(GetCurrentProcessId()));
    HANDLE ends[2];
    const HANDLE file = Open(path.wstring(), GENERIC_WRITE, 0, CREATE_ALWAYS);
    ASSERT_TRUE(CreatePipe(&ends[0], &ends[1], nullptr, 0));
    EXPECT_EQ(GetFileType(file), DWORD{FILE_TYPE_DISK});
    EXPECT_EQ(GetFileType(ends[0]), DWORD{FILE_TYPE_PIPE});
    for (const HANDLE handle : {file, ends[0], ends[1]}) {
        EXPECT_TRUE(CloseHandle(handle));
    }
    EXPECT_EQ(GetFileType(file), DWORD{FILE_TYPE_UNKNOWN});
    EXPECT_EQ(GetLastError(), ERROR_INVALID_HANDLE);
    std::filesystem::remove(path);
}

} // namespace
} // namespace Vantor::Sentrix
