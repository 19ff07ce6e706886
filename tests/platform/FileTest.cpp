// Files: opening, sharing, reading, writing, and where the next byte goes.
#include "veyrasvc/platform/Win32.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace Vantor::Sentrix {
namespace {

constexpr DWORD kReadWrite = GENERIC_READ | GENERIC_WRITE;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE;

class FileTest : public testing::Test {
protected:
    FileTest()
        : m_folder(std::filesystem::temp_directory_path() / ("veyra-file-" + std::to_string(GetCurrentProcessId()))) {
        std::filesystem::create_directories(m_folder);
    }
    ~FileTest() override { std::filesystem::remove_all(m_folder); }

    std::wstring Path(const wchar_t* name) const { return m_folder.wstring() + L"/" + name; }

    static HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD disposition) {
        SetLastError(NO_ERROR);
        return CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    }

    // The error of an attempt to open, NO_ERROR when it succeeds.
    static DWORD TryOpen(const std::wstring& path, DWORD access, DWORD share, DWORD disposition = OPEN_EXISTING) {
        const HANDLE file = Open(path, access, share, disposition);
        const DWORD error = GetLastError();
        return file != INVALID_HANDLE_VALUE && CloseHandle(file) != FALSE ? NO_ERROR : error;
    }

    static void Write(HANDLE file, const std::string& text) {
        DWORD written = 0;
        ASSERT_TRUE(WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr));
        ASSERT_EQ(written, text.size());
    }

    static std::string Read(HANDLE file, DWORD count) {
        std::string text(count, '?');
        DWORD got = 0;
        EXPECT_TRUE(ReadFile(file, text.data(), count, &got, nullptr));
        return text.substr(0, got);
    }

    static LONGLONG Seek(HANDLE file, LONGLONG distance, DWORD method) {
        LARGE_INTEGER to;
        LARGE_INTEGER position;
        to.QuadPart = distance;
        position.QuadPart = -1;
        return SetFilePointerEx(file, to, &position, method) != FALSE ? position.QuadPart : -1;
    }

    const std::filesystem::path m_folder;
};

TEST_F(FileTest, ReadsWritesSeeksAndTruncates) {
    const HANDLE file = Open(Path(L"numbers"), kReadWrite, 0, CREATE_ALWAYS);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    Write(file, "0123456789");
    EXPECT_EQ(Read(file, 4), "") << "the end is no error";
    EXPECT_EQ(Seek(file, 3, FILE_BEGIN), 3);
    EXPECT_EQ(Read(file, 2), "34");
    EXPECT_EQ(Seek(file, -1, FILE_CURRENT), 4);
    Write(file, "x");
    EXPECT_EQ(Seek(file, -4, FILE_END), 6);
    EXPECT_TRUE(SetEndOfFile(file));
    EXPECT_EQ(Seek(file, -1, FILE_BEGIN), -1) << "before the beginning is nothing";
    EXPECT_EQ(Seek(file, 8, FILE_BEGIN), 8);
    EXPECT_TRUE(SetEndOfFile(file));
    EXPECT_EQ(Seek(file, 0, FILE_BEGIN), 0);
    EXPECT_EQ(Read(file, 100), std::string("0123x5\0\0", 8));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_FALSE(CloseHandle(file));
}

TEST_F(FileTest, AnOverlappedPositionIsUsedInsteadOfTheFilesOwn) {
    const HANDLE file = Open(Path(L"positioned"), kReadWrite, 0, CREATE_ALWAYS);
    Write(file, "abcdef");
    char bytes[4] = {};
    DWORD got = 0;
    OVERLAPPED at{};
    at.Offset = 4;
    EXPECT_TRUE(ReadFile(file, bytes, sizeof bytes, &got, &at));
    EXPECT_EQ(std::string(bytes, got), "ef");
    at.Offset = 6;
    EXPECT_FALSE(ReadFile(file, bytes, sizeof bytes, &got, &at));
    EXPECT_EQ(GetLastError(), ERROR_HANDLE_EOF);
    CloseHandle(file);
}

TEST_F(FileTest, OpeningTellsWhyItFails) {
    EXPECT_EQ(TryOpen(Path(L"missing"), GENERIC_READ, kShareAll), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(TryOpen(Path(L"no/folder"), kReadWrite, 0, CREATE_ALWAYS), ERROR_PATH_NOT_FOUND);
    EXPECT_EQ(TryOpen(m_folder.wstring(), GENERIC_READ, kShareAll), ERROR_ACCESS_DENIED);
}

TEST_F(FileTest, AFileWithoutSharingIsKeptFromOthersAndEmptiedOnlyByThoseLetIn) {
    const std::wstring path = Path(L"shared");
    char byte = 0;
    DWORD got = 0;
    HANDLE file = Open(path, GENERIC_WRITE, 0, CREATE_ALWAYS);
    EXPECT_EQ(GetLastError(), NO_ERROR) << "the file is new";
    Write(file, "kept");
    EXPECT_FALSE(ReadFile(file, &byte, 1, &got, nullptr));
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    EXPECT_EQ(TryOpen(path, GENERIC_READ, kShareAll), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(TryOpen(path, kReadWrite, kShareAll, CREATE_ALWAYS), ERROR_SHARING_VIOLATION);
    EXPECT_EQ(Seek(file, 0, FILE_END), 4) << "the refused attempt truncated nothing";
    CloseHandle(file);
    file = Open(path, GENERIC_READ, kShareAll, CREATE_ALWAYS);
    EXPECT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    EXPECT_EQ(Read(file, 10), "") << "what was there is gone";
    EXPECT_FALSE(WriteFile(file, &byte, 1, &got, nullptr));
    EXPECT_EQ(TryOpen(path, GENERIC_READ, kShareAll), NO_ERROR);
    EXPECT_EQ(TryOpen(path, GENERIC_READ, 0), ERROR_SHARING_VIOLATION);
    CloseHandle(file);
}

TEST_F(FileTest, NarrowAndWideNamesMeetInOneFile) {
    EXPECT_EQ(TryOpen(Path(L"r\u00e9sum\u00e9 \u4e2d"), kReadWrite, 0, CREATE_ALWAYS), NO_ERROR);
    EXPECT_EQ(TryOpen(Path(L"r\u00e9sum\u00e8 \u4e2d"), GENERIC_READ, kShareAll), ERROR_FILE_NOT_FOUND);
    CloseHandle(CreateFileA((m_folder / "narrow").string().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_EQ(TryOpen(Path(L"narrow"), GENERIC_READ, kShareAll), NO_ERROR);
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
