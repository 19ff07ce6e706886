// The lock between processes. Children are this program in another role.
#include "tests/support/BusProgram.h"
#include "tests/support/LogCapture.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/util/Locks.h"

namespace Vantor::Sentrix {
namespace {

// The test's process names what belongs to it and its children.
std::wstring LockName(int process) {
    return L"Local\\veyra count/\u00e9 " + std::to_wstring(process);
}

bool TryElsewhere(NamedMutexLock& lock, DWORD limit = 0) {
    bool taken = false;
    std::thread([&] {
        taken = lock.TryLock(limit);
        if (taken) {
            lock.Unlock();
        }
    }).join();
    return taken;
}

const RoleDefinition kHolds("hold", [](int process) {
    NamedMutexLock lock(LockName(process).c_str());
    lock.Lock();
    SayReady();
    return SleepUntilKilled();
});

TEST(NamedMutexLockTest, AnotherProcessKeepsItUntilItDies) {
    LogCapture log;
    const int process = static_cast<int>(GetCurrentProcessId());
    NamedMutexLock lock(LockName(process).c_str());
    Role dying("hold", process);
    EXPECT_FALSE(lock.TryLock(1));
    dying.Kill();
    lock.Lock();
    EXPECT_EQ(log.Errors("NamedMutexLock Lock Failed!"), 1) << "the owner did not unlock";
    EXPECT_FALSE(TryElsewhere(lock)) << "owned, in spite of the line";
    lock.Unlock();
    EXPECT_TRUE(TryElsewhere(lock));
    EXPECT_EQ(log.Take().size(), 1U);
}

TEST(NamedMutexLockTest, TimeLimitsPassAndAnEndedThreadLeavesIt) {
    LogCapture log;
    const std::wstring name = L"veyra limits " + std::to_wstring(GetCurrentProcessId());
    NamedMutexLock lock(name.c_str());
    lock.Lock();
    EXPECT_TRUE(lock.TryLock() && lock.TryLock(0)) << "again, for its owner";
    for (const DWORD limit : {0, 1, 20}) {
        EXPECT_FALSE(TryElsewhere(lock, limit));
        lock.Unlock();
    }
    EXPECT_TRUE(TryElsewhere(lock, INFINITE));

    std::thread([&lock] { lock.Lock(); }).join();
    EXPECT_FALSE(lock.TryLock()) << "abandoned";
    EXPECT_TRUE(TryElsewhere(lock)) << "and left free by that";
    std::make_unique<NamedMutexLock>(name.c_str())->Lock();
    EXPECT_TRUE(TryElsewhere(lock)) << "the destructor unlocks";
    EXPECT_TRUE(log.Take().empty());
}

TEST(NamedMutexLockTest, AMutexThatCannotBeHadLocksNothing) {
    LogCapture log;
    NamedMutexLock lock(L"no\\such\\folder");
    EXPECT_EQ(log.Errors("NamedMutexLock Init Failed!"), 1);
    lock.Lock();
    EXPECT_EQ(log.Errors("NamedMutexLock Lock Failed!"), 1);
    lock.Unlock();
    EXPECT_FALSE(lock.TryLock());
    EXPECT_EQ(log.Take().size(), 2U);
}

TEST(NamedMutexLockTest, EveryNameIsALockOfItsOwn) {
    LogCapture log;
    std::vector<std::wstring> names{
        L"veyra",       L"Veyra", L"veyra/name", L"/veyra/../name", L"%76eyra",         L"..",
        L"veyra*?\"<>", L"#",     L"veyra:n",    L"Local\\veyra/l", L"Global\\veyra/g", L"\u00e9\u4e2d\U0001f512"};
    for (const wchar_t last : {L'\u4e2d', L'\u4e2e'}) { // longer than a file's name may be
        names.push_back(std::wstring(200, L'\u4e2d') + last);
    }
    const std::wstring ours = std::to_wstring(GetCurrentProcessId());
    for (const std::wstring& held : names) {
        NamedMutexLock lock((held + ours).c_str());
        const AutoLock guard(&lock);
        for (const std::wstring& name : names) {
            NamedMutexLock other((name + ours).c_str());
            EXPECT_EQ(TryElsewhere(other), name != held)
                << Support::Utf8FromWide(held) << " and " << Support::Utf8FromWide(name);
        }
    }
    EXPECT_TRUE(log.Take().empty());
}

} // namespace
} // namespace Vantor::Sentrix
