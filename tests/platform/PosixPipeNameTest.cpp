// What only the stand-in promises of pipes: the socket behind a name, and who may have it. Children are this program
// in another role.
#include "tests/platform/Pipes.h"
#include "tools/support/ChildProcess.h"

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace Vantor::Sentrix {
namespace {

using Support::ChildProcess;

std::string Narrow(const std::wstring& name) {
    return {name.begin(), name.end()};
}

void Start(ChildProcess& child, const std::vector<std::string>& arguments) {
    ASSERT_TRUE(child.Start(Support::OwnProgramPath(), arguments, ChildProcess::Output::Pipe)) << GetLastError();
}

int Say(const char* text) {
    std::puts(text);
    return std::fflush(stdout);
}

// ---- The children --------------------------------------------------------------------------------------------------

void Serve(const std::string& name) {
    const Owned port = NewPort();
    OVERLAPPED accept;
    const Owned pipe = NewInstance({name.begin(), name.end()}, port, accept);
    Say("serving");
    Next(port, INFINITE);
    Sleep(INFINITE);
}

// Reads a byte as somebody else.
void Connect(const std::string& name, const std::string& account) {
    const bool changed = setuid(static_cast<uid_t>(std::stoul(account))) == 0;
    const Owned client = OpenClient({name.begin(), name.end()});
    EventIo io;
    char byte = 0;
    const bool read = Begun(io.Read(client, &byte, 1)) && io.Await() == NO_ERROR;
    Say(!changed ? "is not that account" : read ? "admitted" : "refused");
}

int ConnectSocket(int peer, const std::wstring& pipe, const std::string& space) {
    const std::string folder = "\\\\.\\pipe\\Veyra Test";
    const std::string path =
        Narrow(pipe).replace(0, folder.size(), std::string(1, '\0') + "veyrasvc/" + space + "/veyra test");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    return connect(peer, reinterpret_cast<const sockaddr*>(&address), length);
}

// ---- The tests -----------------------------------------------------------------------------------------------------

TEST(PosixPipeNameTest, APipeIsASocketOfItsNamespaceWithNothingButItsBytes) {
    const std::wstring name = UniquePipeName();
    const Owned port = NewPort();
    OVERLAPPED accept;
    SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", L"elsewhere");
    const Owned pipe = NewInstance(name, port, accept);
    SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", nullptr);
    EXPECT_FALSE(WaitNamedPipeW(name.c_str(), 1));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);

    const int peer = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(ConnectSocket(peer, name, "elsewhere"), 0);
    EXPECT_EQ(Next(port).overlapped, &accept);
    char buffer[8];
    OVERLAPPED transfers[2]{};
    EXPECT_EQ(send(peer, "abc", 3, 0), 3);
    EXPECT_TRUE(Begun(ReadFile(pipe, buffer, sizeof buffer, nullptr, &transfers[0])));
    EXPECT_EQ(Next(port).bytes, 3U);
    EXPECT_EQ(std::string(buffer, 3), "abc");
    EXPECT_TRUE(Begun(WriteFile(pipe, "wxyz", 4, nullptr, &transfers[1])));
    EXPECT_EQ(Next(port).bytes, 4U);
    EXPECT_EQ(recv(peer, buffer, sizeof buffer, 0), 4);
    EXPECT_EQ(std::string(buffer, 4), "wxyz");
    close(peer);
}

TEST(PosixPipeNameTest, WithoutDescriptorsAClientIsTurnedAwayAtOnce) {
    const std::wstring name = UniquePipeName();
    const Owned port = NewPort();
    OVERLAPPED accepts[2];
    const Owned pipes[] = {NewInstance(name, port, accepts[0]), NewInstance(name, port, accepts[1])};
    const int peers[] = {socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0),
                         socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    rlimit plenty{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &plenty), 0);
    const int lowestFree = dup(peers[0]);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), plenty.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_EQ(ConnectSocket(peers[0], name, "local"), 0);
    const Completion refused = Next(port);
    EXPECT_TRUE(refused.overlapped == &accepts[0] && refused.error == ERROR_TOO_MANY_OPEN_FILES) << refused.error;
    char byte = 0;
    EXPECT_EQ(recv(peers[0], &byte, 1, 0), 0) << "it learns that at once";
    setrlimit(RLIMIT_NOFILE, &plenty);
    EXPECT_EQ(ConnectSocket(peers[1], name, "local"), 0);
    const Completion served = Next(port);
    EXPECT_TRUE(served.succeeded && served.overlapped == &accepts[1]);
    close(peers[0]);
    close(peers[1]);
}

TEST(PosixPipeNameTest, ANameBelongsToOneProcessAndGoesWithIt) {
    const std::wstring name = UniquePipeName();
    ChildProcess server;
    Start(server, {"--serve", Narrow(name)});
    ASSERT_EQ(server.ReadLine(), "serving");
    EXPECT_EQ(CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE,
                               PIPE_UNLIMITED_INSTANCES, 0, 0, 0, nullptr),
              INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    const Owned client = OpenClient(name);
    EventIo io;
    char byte = 0;
    ASSERT_TRUE(Begun(io.Read(client, &byte, 1)));
    server.Kill();
    EXPECT_EQ(io.Await(), ERROR_BROKEN_PIPE);
    server.WaitForExit();
    EXPECT_FALSE(WaitNamedPipeW(name.c_str(), 1));
    EXPECT_EQ(GetLastError(), ERROR_FILE_NOT_FOUND);
    const Owned port = NewPort();
    const Connection own{name, port, 0};
}

TEST(PosixPipeNameTest, AnInstanceAdmitsWhomItsSecurityAdmits) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become somebody else";
    }
    alignas(void*) char descriptor[SECURITY_DESCRIPTOR_MIN_LENGTH];
    InitializeSecurityDescriptor(descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(descriptor, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES everyone{sizeof(SECURITY_ATTRIBUTES), descriptor, FALSE};
    for (SECURITY_ATTRIBUTES* attributes : {static_cast<SECURITY_ATTRIBUTES*>(nullptr), &everyone}) {
        const std::wstring name = UniquePipeName();
        const Owned port = NewPort();
        OVERLAPPED accept;
        const Owned pipe = NewInstance(name, port, accept, 0, attributes);
        Thread serving([&] {
            EXPECT_EQ(Next(port).overlapped, &accept);
            OVERLAPPED write{};
            EXPECT_TRUE(Begun(WriteFile(pipe, "x", 1, nullptr, &write)));
            EXPECT_EQ(Next(port).overlapped, &write);
        });
        ChildProcess nobody;
        Start(nobody, {"--connect", Narrow(name), "65534"});
        EXPECT_EQ(nobody.ReadLine(), attributes == nullptr ? "refused" : "admitted");
        if (attributes == nullptr) { // the instance still waits for somebody who may have it
            ChildProcess own;
            Start(own, {"--connect", Narrow(name), "0"});
            EXPECT_EQ(own.ReadLine(), "admitted");
        }
    }
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) {
        Serve(argv[2]);
    }
    if (argc == 4 && std::strcmp(argv[1], "--connect") == 0) {
        Connect(argv[2], argv[3]);
        _exit(0);
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
