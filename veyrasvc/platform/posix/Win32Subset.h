// The Windows names that this project uses, declared for POSIX systems.
//
// A closed subset: a call that is not declared here does not compile, and nothing here is a stub. Names, argument
// orders, results and error codes are those that Microsoft documents for the Win32 call of the same name; where less
// is supplied than Windows has, ../README.md says so. Everything lives in a namespace of its own, so that a program
// that includes our public headers gets no HANDLE, DWORD or Sleep of its own, and constants are no macros.
//
// Threads: every function may be called from any thread unless its row in ../README.md says otherwise.
// Fails: a function reports failure by its result and leaves the reason in GetLastError() of the calling thread.
#pragma once

#include "veyrasvc/platform/posix/Win32Types.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace Vantor::Sentrix::Platform {

// NOLINTBEGIN(readability-identifier-naming): the names are Microsoft's

// ---- Handles, events and waits -------------------------------------------------------------------------------------

constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED = 0x80;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;

BOOL CloseHandle(HANDLE handle);

HANDLE CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, LPCWSTR name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);

// ---- Threads and the work-item pool --------------------------------------------------------------------------------

using LPTHREAD_START_ROUTINE = DWORD (*)(void* parameter);

constexpr DWORD THREAD_QUERY_LIMITED_INFORMATION = 0x800;
constexpr ULONG WT_EXECUTEDEFAULT = 0;
constexpr ULONG WT_EXECUTELONGFUNCTION = 0x10;

HANDLE CreateThread(SECURITY_ATTRIBUTES* attributes, SIZE_T stackSize, LPTHREAD_START_ROUTINE start, void* parameter,
                    DWORD flags, DWORD* threadId);
DWORD GetCurrentThreadId();
DWORD GetCurrentProcessId();
HANDLE OpenThread(DWORD access, BOOL inheritHandle, DWORD threadId);
void Sleep(DWORD milliseconds);
DWORD GetTickCount();
void GetLocalTime(SYSTEMTIME* now);
BOOL QueueUserWorkItem(LPTHREAD_START_ROUTINE function, void* context, ULONG flags);

using NTSTATUS = LONG; // negative: failure

enum THREADINFOCLASS { ThreadSystemThreadInformation = 40 };

struct CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
};

struct SYSTEM_THREAD_INFORMATION {
    LARGE_INTEGER Reserved1[3];
    ULONG Reserved2;
    void* StartAddress;
    CLIENT_ID ClientId;
    LONG Priority;
    LONG BasePriority;
    ULONG Reserved3;
    ULONG ThreadState;
    ULONG WaitReason;
};
static_assert(sizeof(SYSTEM_THREAD_INFORMATION) == 80);

// Of the thread states, those that are told apart here.
constexpr ULONG StateReady = 1; // has a processor or waits for one
constexpr ULONG StateWait = 5;  // blocked

NTSTATUS NtQueryInformationThread(HANDLE thread, THREADINFOCLASS informationClass, void* information, ULONG length,
                                  ULONG* returnLength);

// ---- Locks ---------------------------------------------------------------------------------------------------------

struct CRITICAL_SECTION {
    pthread_mutex_t mutex;
};

void InitializeCriticalSection(CRITICAL_SECTION* section);
void DeleteCriticalSection(CRITICAL_SECTION* section);
void EnterCriticalSection(CRITICAL_SECTION* section);
void LeaveCriticalSection(CRITICAL_SECTION* section);
BOOL TryEnterCriticalSection(CRITICAL_SECTION* section);

struct SRWLOCK {
    pthread_rwlock_t lock;
};

void InitializeSRWLock(SRWLOCK* lock);
void AcquireSRWLockExclusive(SRWLOCK* lock);
void ReleaseSRWLockExclusive(SRWLOCK* lock);
void AcquireSRWLockShared(SRWLOCK* lock);
void ReleaseSRWLockShared(SRWLOCK* lock);

constexpr DWORD MUTEX_ALL_ACCESS = 0x1F0001;

HANDLE CreateMutexW(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, LPCWSTR name);
HANDLE OpenMutexW(DWORD access, BOOL inheritHandle, LPCWSTR name);
BOOL ReleaseMutex(HANDLE mutex);

// ---- Memory --------------------------------------------------------------------------------------------------------

constexpr UINT LPTR = 0x40; // fixed and zero-filled

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes);
HLOCAL LocalFree(HLOCAL block);

constexpr DWORD MEM_COMMIT = 0x1000;
constexpr DWORD MEM_RESERVE = 0x2000;
constexpr DWORD MEM_RELEASE = 0x8000;
constexpr DWORD MEM_RESET = 0x80000;
constexpr DWORD PAGE_READWRITE = 4;

// Zero-filled pages. MEM_RESET: what those of that range hold is of no interest until they are written to again, so the
// system may take their memory; it may read as anything until then.
void* VirtualAlloc(void* address, SIZE_T bytes, DWORD type, DWORD protection);
BOOL VirtualFree(void* address, SIZE_T bytes, DWORD type);

// ---- Files ---------------------------------------------------------------------------------------------------------

constexpr DWORD GENERIC_ALL = 0x10000000;
constexpr DWORD GENERIC_WRITE = 0x40000000;
constexpr DWORD GENERIC_READ = 0x80000000;
constexpr DWORD FILE_SHARE_READ = 1;
constexpr DWORD FILE_SHARE_WRITE = 2;
constexpr DWORD CREATE_ALWAYS = 2;
constexpr DWORD OPEN_EXISTING = 3;
constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x10;
constexpr DWORD FILE_ATTRIBUTE_DEVICE = 0x40;
constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x80;
constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;
constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;
constexpr DWORD FILE_TYPE_UNKNOWN = 0;
constexpr DWORD FILE_TYPE_DISK = 1;
constexpr DWORD FILE_TYPE_CHAR = 2;
constexpr DWORD FILE_TYPE_PIPE = 3;
constexpr DWORD FILE_BEGIN = 0;
constexpr DWORD FILE_CURRENT = 1;
constexpr DWORD FILE_END = 2;

HANDLE CreateFileA(LPCSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes, DWORD disposition,
                   DWORD flags, HANDLE templateFile);
HANDLE CreateFileW(LPCWSTR name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* attributes, DWORD disposition,
                   DWORD flags, HANDLE templateFile);
BOOL ReadFile(HANDLE file, void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE file, const void* buffer, DWORD count, DWORD* transferred, OVERLAPPED* overlapped);
BOOL SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, LARGE_INTEGER* newPosition, DWORD method);
BOOL SetEndOfFile(HANDLE file);
DWORD GetFileAttributesA(LPCSTR name);
DWORD GetFileType(HANDLE file);

// ---- Named pipes and completion ports ------------------------------------------------------------------------------

constexpr DWORD PIPE_ACCESS_DUPLEX = 3;
constexpr DWORD PIPE_TYPE_BYTE = 0;
constexpr DWORD PIPE_READMODE_BYTE = 0;
constexpr DWORD PIPE_WAIT = 0;
constexpr DWORD PIPE_UNLIMITED_INSTANCES = 255;

HANDLE CreateNamedPipeW(LPCWSTR name, DWORD openMode, DWORD pipeMode, DWORD maxInstances, DWORD outBufferSize,
                        DWORD inBufferSize, DWORD defaultTimeout, SECURITY_ATTRIBUTES* attributes);
BOOL ConnectNamedPipe(HANDLE pipe, OVERLAPPED* overlapped);
BOOL DisconnectNamedPipe(HANDLE pipe);
BOOL WaitNamedPipeW(LPCWSTR name, DWORD milliseconds);
BOOL SetNamedPipeHandleState(HANDLE pipe, DWORD* mode, DWORD* maxCollectionCount, DWORD* collectDataTimeout);
BOOL GetOverlappedResult(HANDLE file, OVERLAPPED* overlapped, DWORD* transferred, BOOL wait);

HANDLE CreateIoCompletionPort(HANDLE file, HANDLE existingPort, ULONG_PTR key, DWORD concurrentThreads);
BOOL GetQueuedCompletionStatus(HANDLE port, DWORD* transferred, ULONG_PTR* key, OVERLAPPED** overlapped,
                               DWORD milliseconds);
BOOL PostQueuedCompletionStatus(HANDLE port, DWORD transferred, ULONG_PTR key, OVERLAPPED* overlapped);

// ---- Security descriptors ------------------------------------------------------------------------------------------

using PSID = void*;
using PACL = struct AccessList*; // opaque, from SetEntriesInAclW, freed with LocalFree
using PSECURITY_DESCRIPTOR = void*;

struct SID_IDENTIFIER_AUTHORITY {
    BYTE Value[6];
};

enum ACCESS_MODE { NOT_USED_ACCESS, GRANT_ACCESS, SET_ACCESS, DENY_ACCESS };
enum MULTIPLE_TRUSTEE_OPERATION { NO_MULTIPLE_TRUSTEE };
enum TRUSTEE_FORM { TRUSTEE_IS_SID, TRUSTEE_IS_NAME };
enum TRUSTEE_TYPE {
    TRUSTEE_IS_UNKNOWN,
    TRUSTEE_IS_USER,
    TRUSTEE_IS_GROUP,
    TRUSTEE_IS_DOMAIN,
    TRUSTEE_IS_ALIAS,
    TRUSTEE_IS_WELL_KNOWN_GROUP
};

struct TRUSTEE_W {
    TRUSTEE_W* pMultipleTrustee;
    MULTIPLE_TRUSTEE_OPERATION MultipleTrusteeOperation;
    TRUSTEE_FORM TrusteeForm;
    TRUSTEE_TYPE TrusteeType;
    LPWSTR ptstrName; // the SID when TrusteeForm is TRUSTEE_IS_SID
};

struct EXPLICIT_ACCESS_W {
    DWORD grfAccessPermissions;
    ACCESS_MODE grfAccessMode;
    DWORD grfInheritance;
    TRUSTEE_W Trustee;
};

constexpr DWORD NO_INHERITANCE = 0;
constexpr DWORD SECURITY_DESCRIPTOR_REVISION = 1;
constexpr DWORD SDDL_REVISION_1 = 1;
constexpr SIZE_T SECURITY_DESCRIPTOR_MIN_LENGTH = 40;

BOOL AllocateAndInitializeSid(SID_IDENTIFIER_AUTHORITY* authority, BYTE subAuthorityCount, DWORD sub0, DWORD sub1,
                              DWORD sub2, DWORD sub3, DWORD sub4, DWORD sub5, DWORD sub6, DWORD sub7, PSID* sid);
void* FreeSid(PSID sid);
DWORD SetEntriesInAclW(ULONG count, EXPLICIT_ACCESS_W* entries, PACL oldAcl, PACL* newAcl);
BOOL InitializeSecurityDescriptor(PSECURITY_DESCRIPTOR descriptor, DWORD revision);
BOOL SetSecurityDescriptorDacl(PSECURITY_DESCRIPTOR descriptor, BOOL present, PACL dacl, BOOL defaulted);
BOOL ConvertStringSecurityDescriptorToSecurityDescriptorW(LPCWSTR text, DWORD revision,
                                                          PSECURITY_DESCRIPTOR* descriptor, ULONG* size);

// ---- Random source, hashes and block cipher ------------------------------------------------------------------------

using HCRYPTPROV = ULONG_PTR;
constexpr DWORD PROV_RSA_FULL = 1;
constexpr DWORD PROV_RSA_AES = 24;
constexpr DWORD CRYPT_VERIFYCONTEXT = 0xF0000000;

BOOL CryptAcquireContextA(HCRYPTPROV* provider, LPCSTR container, LPCSTR providerName, DWORD type, DWORD flags);
BOOL CryptAcquireContextW(HCRYPTPROV* provider, LPCWSTR container, LPCWSTR providerName, DWORD type, DWORD flags);
BOOL CryptGenRandom(HCRYPTPROV provider, DWORD length, BYTE* buffer);
BOOL CryptReleaseContext(HCRYPTPROV provider, DWORD flags);

using ALG_ID = unsigned int;
using HCRYPTHASH = ULONG_PTR;
using HCRYPTKEY = ULONG_PTR;
using HRESULT = LONG;
constexpr ALG_ID CALG_MD5 = 0x8003;
constexpr ALG_ID CALG_SHA1 = 0x8004;
constexpr ALG_ID CALG_SHA_256 = 0x800C;
constexpr ALG_ID CALG_SHA_384 = 0x800D;
constexpr ALG_ID CALG_SHA_512 = 0x800E;
constexpr DWORD HP_HASHVAL = 2;
constexpr HRESULT NTE_BAD_ALGID = static_cast<HRESULT>(0x80090008);
constexpr HRESULT NTE_BAD_HASH_STATE = static_cast<HRESULT>(0x8009000C);

BOOL CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, DWORD flags, HCRYPTHASH* hash);
BOOL CryptHashData(HCRYPTHASH hash, const BYTE* data, DWORD length, DWORD flags);
BOOL CryptGetHashParam(HCRYPTHASH hash, DWORD parameter, BYTE* data, DWORD* length, DWORD flags);
BOOL CryptDestroyHash(HCRYPTHASH hash);

using BCRYPT_HANDLE = void*;
using BCRYPT_ALG_HANDLE = void*;
using BCRYPT_KEY_HANDLE = void*;
constexpr LPCWSTR BCRYPT_AES_ALGORITHM = L"AES";
constexpr LPCWSTR BCRYPT_CHAINING_MODE = L"ChainingMode";
constexpr wchar_t BCRYPT_CHAIN_MODE_CBC[] = L"ChainingModeCBC";

NTSTATUS BCryptOpenAlgorithmProvider(BCRYPT_ALG_HANDLE* algorithm, LPCWSTR id, LPCWSTR implementation, ULONG flags);
NTSTATUS BCryptCloseAlgorithmProvider(BCRYPT_ALG_HANDLE algorithm, ULONG flags);
NTSTATUS BCryptSetProperty(BCRYPT_HANDLE object, LPCWSTR property, PUCHAR value, ULONG valueSize, ULONG flags);
NTSTATUS BCryptGenerateSymmetricKey(BCRYPT_ALG_HANDLE algorithm, BCRYPT_KEY_HANDLE* key, PUCHAR keyObject,
                                    ULONG keyObjectSize, PUCHAR secret, ULONG secretSize, ULONG flags);
NTSTATUS BCryptDestroyKey(BCRYPT_KEY_HANDLE key);
NTSTATUS BCryptEncrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* paddingInfo, PUCHAR iv, ULONG ivSize,
                       PUCHAR output, ULONG outputSize, ULONG* resultSize, ULONG flags);
NTSTATUS BCryptDecrypt(BCRYPT_KEY_HANDLE key, PUCHAR input, ULONG inputSize, void* paddingInfo, PUCHAR iv, ULONG ivSize,
                       PUCHAR output, ULONG outputSize, ULONG* resultSize, ULONG flags);

// ---- Processes -----------------------------------------------------------------------------------------------------

struct PROCESS_MEMORY_COUNTERS {
    DWORD cb;
    DWORD PageFaultCount;
    SIZE_T PeakWorkingSetSize;
    SIZE_T WorkingSetSize;
    SIZE_T QuotaPeakPagedPoolUsage;
    SIZE_T QuotaPagedPoolUsage;
    SIZE_T QuotaPeakNonPagedPoolUsage;
    SIZE_T QuotaNonPagedPoolUsage;
    SIZE_T PagefileUsage;
    SIZE_T PeakPagefileUsage;
};
static_assert(sizeof(PROCESS_MEMORY_COUNTERS) == 72);

struct STARTUPINFOW {
    DWORD cb;
    LPWSTR lpReserved;
    LPWSTR lpDesktop;
    LPWSTR lpTitle;
    DWORD dwX, dwY, dwXSize, dwYSize, dwXCountChars, dwYCountChars, dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    BYTE* lpReserved2;
    HANDLE hStdInput, hStdOutput, hStdError;
};

struct PROCESS_INFORMATION {
    HANDLE hProcess;
    HANDLE hThread;
    DWORD dwProcessId;
    DWORD dwThreadId;
};

constexpr DWORD STARTF_USESTDHANDLES = 0x100;
constexpr DWORD HANDLE_FLAG_INHERIT = 1;
constexpr DWORD STD_INPUT_HANDLE = static_cast<DWORD>(-10);
constexpr DWORD STD_OUTPUT_HANDLE = static_cast<DWORD>(-11);
constexpr DWORD STD_ERROR_HANDLE = static_cast<DWORD>(-12);

HANDLE GetCurrentProcess();
BOOL GetProcessAffinityMask(HANDLE process, ULONG_PTR* ofProcess, ULONG_PTR* ofSystem);
BOOL K32GetProcessMemoryInfo(HANDLE process, PROCESS_MEMORY_COUNTERS* counters, DWORD size);
BOOL CreateProcessW(LPCWSTR application, LPWSTR commandLine, SECURITY_ATTRIBUTES* processAttributes,
                    SECURITY_ATTRIBUTES* threadAttributes, BOOL inheritHandles, DWORD flags, void* environment,
                    LPCWSTR directory, STARTUPINFOW* startup, PROCESS_INFORMATION* information);
BOOL TerminateProcess(HANDLE process, UINT exitCode);
BOOL GetExitCodeProcess(HANDLE process, DWORD* exitCode);
BOOL CreatePipe(HANDLE* readEnd, HANDLE* writeEnd, SECURITY_ATTRIBUTES* attributes, DWORD size);
BOOL SetHandleInformation(HANDLE handle, DWORD mask, DWORD flags);
HANDLE GetStdHandle(DWORD which);
DWORD GetModuleFileNameW(HANDLE module, LPWSTR path, DWORD size);
BOOL SetEnvironmentVariableW(LPCWSTR name, LPCWSTR value);
DWORD GetEnvironmentVariableA(LPCSTR name, char* value, DWORD size);

// ---- Libraries -----------------------------------------------------------------------------------------------------

using HMODULE = void*;
using FARPROC = std::intptr_t (*)();

HMODULE GetModuleHandleA(LPCSTR name);
HMODULE LoadLibraryA(LPCSTR name);
FARPROC GetProcAddress(HMODULE library, LPCSTR name);

// ---- Accounts ------------------------------------------------------------------------------------------------------

constexpr DWORD TOKEN_QUERY = 8;
constexpr DWORD OWNER_SECURITY_INFORMATION = 1;

enum TOKEN_INFORMATION_CLASS { TokenUser = 1 };
enum SE_OBJECT_TYPE { SE_UNKNOWN_OBJECT_TYPE, SE_FILE_OBJECT };

struct SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
};

struct TOKEN_USER {
    SID_AND_ATTRIBUTES User;
};

BOOL OpenProcessToken(HANDLE process, DWORD access, HANDLE* token);
BOOL GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, void* buffer, DWORD size, DWORD* needed);
DWORD GetNamedSecurityInfoW(LPCWSTR name, SE_OBJECT_TYPE type, DWORD what, PSID* owner, PSID* group, PACL* accessList,
                            PACL* systemList, PSECURITY_DESCRIPTOR* descriptor);
BOOL EqualSid(PSID a, PSID b);

// ---- The machine ---------------------------------------------------------------------------------------------------

struct MEMORYSTATUSEX {
    DWORD dwLength;
    DWORD dwMemoryLoad; // percent
    std::uint64_t ullTotalPhys;
    std::uint64_t ullAvailPhys;
    std::uint64_t ullTotalPageFile;
    std::uint64_t ullAvailPageFile;
    std::uint64_t ullTotalVirtual;
    std::uint64_t ullAvailVirtual;
    std::uint64_t ullAvailExtendedVirtual;
};
static_assert(sizeof(MEMORYSTATUSEX) == 64);

struct SYSTEM_POWER_STATUS {
    BYTE ACLineStatus;
    BYTE BatteryFlag;
    BYTE BatteryLifePercent;
    BYTE SystemStatusFlag;
    DWORD BatteryLifeTime;
    DWORD BatteryFullLifeTime;
};
static_assert(sizeof(SYSTEM_POWER_STATUS) == 12);

constexpr UINT DRIVE_NO_ROOT_DIR = 1;
constexpr UINT DRIVE_FIXED = 3;

BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status);
BOOL GetSystemTimes(FILETIME* idle, FILETIME* kernel, FILETIME* user);
BOOL GetSystemPowerStatus(SYSTEM_POWER_STATUS* status);
DWORD GetLogicalDrives();
UINT GetDriveTypeW(LPCWSTR root);

// ---- Versions ------------------------------------------------------------------------------------------------------

// The size of a record tells its version, so the text is UTF-16 here too.
struct OSVERSIONINFOW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    char16_t szCSDVersion[128];
};
static_assert(sizeof(OSVERSIONINFOW) == 276);

struct OSVERSIONINFOEXW {
    DWORD dwOSVersionInfoSize;
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    char16_t szCSDVersion[128];
    WORD wServicePackMajor;
    WORD wServicePackMinor;
    WORD wSuiteMask;
    BYTE wProductType;
    BYTE wReserved;
};
static_assert(sizeof(OSVERSIONINFOEXW) == 284);

struct SYSTEM_INFO {
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    void* lpMinimumApplicationAddress;
    void* lpMaximumApplicationAddress;
    ULONG_PTR dwActiveProcessorMask;
    DWORD dwNumberOfProcessors;
    DWORD dwProcessorType;
    DWORD dwAllocationGranularity;
    WORD wProcessorLevel;
    WORD wProcessorRevision;
};
static_assert(sizeof(SYSTEM_INFO) == 48);

struct WKSTA_INFO_100 {
    DWORD wki100_platform_id;
    LPWSTR wki100_computername;
    LPWSTR wki100_langroup;
    DWORD wki100_ver_major;
    DWORD wki100_ver_minor;
};

struct VS_FIXEDFILEINFO {
    DWORD dwSignature;
    DWORD dwStrucVersion;
    DWORD dwFileVersionMS;
    DWORD dwFileVersionLS;
    DWORD dwProductVersionMS;
    DWORD dwProductVersionLS;
    DWORD dwFileFlagsMask;
    DWORD dwFileFlags;
    DWORD dwFileOS;
    DWORD dwFileType;
    DWORD dwFileSubtype;
    DWORD dwFileDateMS;
    DWORD dwFileDateLS;
};
static_assert(sizeof(VS_FIXEDFILEINFO) == 52);

using NET_API_STATUS = DWORD;
using ULONGLONG = std::uint64_t;

constexpr NET_API_STATUS NERR_Success = 0;
constexpr DWORD VER_PLATFORM_WIN32_NT = 2;
constexpr BYTE VER_NT_WORKSTATION = 1;
constexpr DWORD VER_PRODUCT_TYPE = 0x80;
constexpr BYTE VER_EQUAL = 1;
constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;
constexpr WORD PROCESSOR_ARCHITECTURE_ARM64 = 12;
constexpr WORD PROCESSOR_ARCHITECTURE_UNKNOWN = 0xFFFF;
constexpr DWORD PLATFORM_ID_NT = 500;
constexpr DWORD VS_FFI_SIGNATURE = 0xFEEF04BD;
constexpr int SM_SERVERR2 = 89;

BOOL GetVersionExW(OSVERSIONINFOW* version);
ULONGLONG VerSetConditionMask(ULONGLONG conditions, DWORD typeMask, BYTE condition);
BOOL VerifyVersionInfoW(OSVERSIONINFOEXW* version, DWORD typeMask, ULONGLONG conditions);
void GetNativeSystemInfo(SYSTEM_INFO* info);
int GetSystemMetrics(int index);
NET_API_STATUS NetWkstaGetInfo(LPWSTR server, DWORD level, BYTE** buffer);
NET_API_STATUS NetApiBufferFree(void* buffer);
DWORD GetFileVersionInfoSizeW(LPCWSTR file, DWORD* unused);
BOOL GetFileVersionInfoW(LPCWSTR file, DWORD unused, DWORD size, void* block);
BOOL VerQueryValueW(const void* block, LPCWSTR what, void** value, UINT* length);

// ---- Console -------------------------------------------------------------------------------------------------------

using PHANDLER_ROUTINE = BOOL (*)(DWORD event);

constexpr DWORD CTRL_C_EVENT = 0;
constexpr DWORD CTRL_BREAK_EVENT = 1;
constexpr DWORD CTRL_SHUTDOWN_EVENT = 6;
constexpr UINT CP_UTF8 = 65001;

BOOL SetConsoleCtrlHandler(PHANDLER_ROUTINE routine, BOOL add);
UINT GetConsoleOutputCP();
BOOL SetConsoleOutputCP(UINT codePage);

// NOLINTEND(readability-identifier-naming)

} // namespace Vantor::Sentrix::Platform
