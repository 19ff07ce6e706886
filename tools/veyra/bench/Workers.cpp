// The hidden verb, and the roles that take a few lines.
#include "tools/veyra/bench/Workers.h"

#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/veyra/Verbs.h"

#include <CLI/CLI.hpp>

#include <map>
#include <thread>

namespace Vantor::Sentrix::Tool {

void SayReady(IPCMessageClient& client, std::uint32_t moduleId) {
    if (Support::StatusQuery(client).Await(moduleId, std::chrono::seconds(20)) != Support::ModuleStatus::Online) {
        throw BenchFailure("a worker found no bus");
    }
    Support::WriteOutput(std::string(kReadyLine) + '\n');
}

void Linger() {
    std::this_thread::sleep_for(kWorkerLife);
}

namespace {

void RunHost(const Settings& /*settings*/) {
    IPCMessageServer server;
    if (!server.Start() || !IsIPCServerPresent(1000)) {
        throw BenchFailure("the host could not be started");
    }
    Support::WriteOutput(std::string(kReadyLine) + '\n');
    Linger();
    server.Stop();
}

void RunEcho(const Settings& settings) {
    const auto id = settings.Get<std::uint32_t>("id");
    IPCMessageClient client(static_cast<int>(id), false, false);
    client.RegisterMessageCallback(BenchMessage::kRequest, [&client](TagIPCMessageItem& item) {
        TagIPCMessageItem reply = item;
        reply.toModuleId = item.fromModuleId;
        reply.msgId = BenchMessage::kReply;
        client.PostIPCMessage(reply);
    });
    SayReady(client, id);
    Linger();
}

void RunIdle(const Settings& settings) {
    const auto id = settings.Get<std::uint32_t>("id");
    IPCMessageClient client(static_cast<int>(id), false, false);
    SayReady(client, id);
    Linger();
}

int RunRole(const std::string& role, const std::vector<std::string>& words) {
    static const std::map<std::string, void (*)(const Settings&)> kRoles = {{"host", RunHost}, {"echo", RunEcho},
                                                                            {"idle", RunIdle}, {"caller", RunCaller},
                                                                            {"sink", RunSink}, {"source", RunSource}};
    kRoles.at(role)(Settings(words));
    return kDone;
}

} // namespace

Verb AddBenchWorker(CLI::App& program) {
    struct Options {
        std::string role;
        std::vector<std::string> settings;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = program.add_subcommand("bench-worker", "");
    command->group(""); // not in the help
    command->add_option("role", options->role)->required();
    command->add_option("settings", options->settings);
    return {command, [options] { return RunRole(options->role, options->settings); }};
}

} // namespace Vantor::Sentrix::Tool
