// What the shared library does to a program that only uses the bus: no threads, a log in whole lines, a fork that ends.
#include "veyrasvc/diagnosis/DiagnosisDeviceInfo.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

namespace Vantor::Sentrix {
namespace {

// The process that started the tests; death tests are new processes.
constexpr char kOwner[] = "VEYRA_GUEST_TEST_OWNER";

void Warn() {
    DiagnosisDeviceInfo().FromJsonStr("");
}

int Threads() {
    int count = 0;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = readdir(tasks)) {
        count += task->d_name[0] != '.' ? 1 : 0;
    }
    closedir(tasks);
    return count;
}

// A thread that has ended and was joined is listed for a moment longer.
bool HasOneThread() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (Threads() != 1 && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    return Threads() == 1;
}

// Ends the process with 0 when the library is a good guest.
[[noreturn]] void BeAHost() {
    int status = HasOneThread() ? 0 : 1;
    Warn();
    status |= HasOneThread() ? 0 : 2;
    const pid_t child = fork();
    if (child == 0) {
        std::exit(0);
    }
    alarm(60); // a child that hangs is the fault that is looked for
    int ended = -1;
    waitpid(child, &ended, 0);
    std::exit(status | (ended == 0 ? 0 : 4));
}

// In a process of its own, because the environment is read once.
TEST(GuestDeathTest, NoThreadIsMadeAndAForkedChildEndsWhateverTheLogIsSetTo) {
    const std::string configuration = testing::TempDir() + "/veyra-guest-" + std::getenv(kOwner);
    std::ofstream(configuration) << "log4cplus.logger.veyrasvc=WARN, E\n"
                                    "log4cplus.appender.E=log4cplus::ConsoleAppender\n"
                                    "log4cplus.appender.E.logToStdErr=true\n"
                                    "log4cplus.appender.E.layout=log4cplus::PatternLayout\n"
                                    "log4cplus.appender.E.layout.ConversionPattern=configured: %m%n\n";
    constexpr char kLine[] = "^[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} WARN  input jsonStr is empty\\. "
                             "\\[[A-Za-z]+\\.cpp:[0-9]+\\]\n$";
    struct {
        std::string level;
        std::string configuration;
        std::string output;
    } const kCases[] = {
        {"", "", kLine},
        {"info", "", kLine},
        {"ERROR", "", "^$"},
        {"LOUD", "", "^veyrasvc: VEYRA_LOG_LEVEL names no level: LOUD\n[^\n]*\n$"},
        {"", configuration, "^configured: input jsonStr is empty\\.\n$"},
        {"", configuration + "-none", "^veyrasvc: VEYRA_LOG_CONFIG cannot be read: [^\n]*-none\n[^\n]*\n$"},
    };
    for (const auto& [level, file, output] : kCases) {
        setenv("VEYRA_LOG_LEVEL", level.c_str(), 1);
        setenv("VEYRA_LOG_CONFIG", file.c_str(), 1);
        EXPECT_EXIT(BeAHost(), testing::ExitedWithCode(0), output) << level << file;
    }
    unlink(configuration.c_str());
}

// Ends the process with 0 when the log came in whole lines but for those of the time without room.
[[noreturn]] void WriteWithAndWithoutRoom() {
    int ends[2];
    const int full = open("/dev/full", O_WRONLY);
    if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) != 0 || full < 0) {
        std::exit(1);
    }
    const int outputs[] = {ends[1], full, ends[1]};
    for (const int output : outputs) {
        dup2(output, STDERR_FILENO);
        Warn();
    }
    int packets = 0;
    char packet[256];
    for (ssize_t length = 0; (length = recv(ends[0], packet, sizeof packet, MSG_DONTWAIT)) > 0;) {
        packets += packet[length - 1] == '\n' ? 1 : 100;
    }
    std::exit(packets == 2 ? 0 : 2);
}

TEST(GuestDeathTest, ALineIsOneWriteAndAFullDiskCostsOnlyThoseOfItsTime) {
    unsetenv("VEYRA_LOG_LEVEL");
    unsetenv("VEYRA_LOG_CONFIG");
    EXPECT_EXIT(WriteWithAndWithoutRoom(), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    setenv(Vantor::Sentrix::kOwner, std::to_string(getpid()).c_str(), 0);
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // each in a new process
    return RUN_ALL_TESTS();
}
