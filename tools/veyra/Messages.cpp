// veyra send, post and publish: one message from the command line.
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/Options.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/bus/ModuleId.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <limits>
#include <optional>

namespace Vantor::Sentrix::Tool {

namespace {

constexpr std::size_t kLongestBody = std::numeric_limits<std::int32_t>::max();

struct MessageOptions {
    std::uint32_t to = 0;
    std::uint32_t from = PassingModuleId();
    std::uint32_t msg = 0;
    std::uint32_t replyMsg = 0; // 0: none was given
    unsigned int timeoutMs = 5000;
    bool encrypt = false;
    std::string body;
    std::string bodyFile;
};

using Options = std::shared_ptr<MessageOptions>;

std::optional<std::string> LoadBody(const MessageOptions& options) {
    std::optional<std::string> body;
    if (!options.bodyFile.empty()) {
        body = Support::ReadFileBytes(options.bodyFile, kLongestBody);
    } else if (options.body == "-") {
        body = Support::ReadInput(kLongestBody);
    } else {
        body = options.body;
    }
    if (!body) {
        Say((options.bodyFile.empty() ? "standard input" : "'" + options.bodyFile + "'") +
            " cannot be read or is longer than a body can be (2147483647 bytes)");
    }
    return body;
}

// The item points into `body`.
TagIPCMessageItem MakeItem(const MessageOptions& options, std::string& body) {
    TagIPCMessageItem item;
    item.toModuleId = static_cast<std::int32_t>(options.to);
    item.msgId = static_cast<std::int32_t>(options.msg);
    item.replyMsgId = options.replyMsg == 0 ? -1 : static_cast<std::int32_t>(options.replyMsg);
    item.uniqMsgId = static_cast<std::int32_t>(PassingModuleId());
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = body.data();
    item.encrypt = options.encrypt;
    return item;
}

bool IsHostPresent() {
    if (IsIPCServerPresent(0)) {
        return true;
    }
    Say("nobody serves the bus; start `veyra serve`");
    return false;
}

// When it gave no answer.
std::string WhatServerDoes() {
    return IsIPCServerPresent(0) ? "the bus server does not answer" : "the bus server went away";
}

// ---- send ----------------------------------------------------------------------------------------------------------

// `waited`: the whole time was waited for an answer.
std::string WhyNoAnswer(Support::StatusQuery& query, const MessageOptions& options, bool waited) {
    const std::string module = "module " + HexId(options.to);
    switch (query.Ask(options.to)) {
    case Support::ModuleStatus::Online:
        return waited ? module + " is online but gave no answer in time (" + std::to_string(options.timeoutMs) + " ms)"
                      : "the message could not be sent, or its answer cannot be read";
    case Support::ModuleStatus::Offline:
        return module + " is offline";
    default:
        return WhatServerDoes();
    }
}

int Send(const MessageOptions& options) {
    auto body = LoadBody(options);
    if (!body || !IsHostPresent()) {
        return kFailed;
    }
    IPCMessageClient client(static_cast<int>(options.from), false, false);
    Support::StatusQuery query(client);
    if (!query.Flush()) { // once connected, a server that goes ends the wait for the answer
        Say(WhatServerDoes());
        return kFailed;
    }
    TagIPCMessageItem request = MakeItem(options, *body);
    bool written = true;
    const auto print = [&written](TagIPCMessageItem& answer) {
        written = Support::WriteOutput({answer.data, static_cast<std::size_t>(answer.dataLen)});
    };
    const int awaited = request.replyMsgId == -1 ? request.msgId : request.replyMsgId;
    constexpr std::chrono::milliseconds kClockStep{16}; // waits are measured by a coarser clock
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeoutMs) - kClockStep;
    if (!client.SendIPCMessage(request, awaited, options.timeoutMs, print)) {
        Say(WhyNoAnswer(query, options, std::chrono::steady_clock::now() >= end));
        return kFailed;
    }
    return written ? kDone : kFailed;
}

// ---- post and publish ----------------------------------------------------------------------------------------------

int Post(const MessageOptions& options) {
    auto body = LoadBody(options);
    if (!body || !IsHostPresent()) {
        return kFailed;
    }
    IPCMessageClient client(static_cast<int>(options.from), false, false);
    Support::StatusQuery query(client);
    // Asked before: a module may well leave as soon as it has the message.
    const bool toEverybody = options.to == ModuleId::kBroadcast;
    const Support::ModuleStatus status = query.Ask(toEverybody ? ModuleId::kMsgServer : options.to);
    if (status != Support::ModuleStatus::Online) {
        Say(status == Support::ModuleStatus::Offline
                ? "module " + HexId(options.to) + " is offline; nobody has received the message"
                : WhatServerDoes() + "; nobody has received the message");
        return kFailed;
    }
    if (!client.PostIPCMessage(MakeItem(options, *body))) {
        Say("the message could not be made");
        return kFailed;
    }
    if (!query.Flush()) {
        Say(WhatServerDoes() + "; the message may not have left");
        return kFailed;
    }
    return kDone;
}

int Publish(const MessageOptions& options) {
    auto body = LoadBody(options);
    if (!body || !IsHostPresent()) {
        return kFailed;
    }
    IPCMessageClient client(static_cast<int>(options.from), false, false);
    Support::StatusQuery query(client);
    TagIPCMessageItem item = MakeItem(options, *body);
    item.toModuleId = -1;
    if (!client.PublishIPCMessage(item)) {
        Say("the message could not be made");
        return kFailed;
    }
    if (!query.Flush()) {
        Say(WhatServerDoes() + "; the message may not have left");
        return kFailed;
    }
    return kDone;
}

// ---- Options -------------------------------------------------------------------------------------------------------

void AddMessage(CLI::App& command, const Options& options) {
    AddMessageId(command, "--msg", options->msg, "Message id")->required();
    command.add_flag("--encrypt", options->encrypt, "Encipher the body on its way");
    CLI::Option* body = command.add_option("body", options->body, "The body; -: standard input, whole");
    command.add_option("--body-file", options->bodyFile, "Take the body from this file")
        ->check(ExistingFile())
        ->type_name("FILE")
        ->excludes(body);
}

void AddDestination(CLI::App& command, const Options& options) {
    AddModuleId(command, "--to", options->to, "The module that gets it (0: every module)")->required();
    AddModuleId(command, "--from", options->from, "Act as this module; by default an id made from the process id");
    AddMessageId(command, "--reply-msg", options->replyMsg, "Message id that the answer shall have");
}

} // namespace

Verb AddSend(CLI::App& program) {
    auto options = std::make_shared<MessageOptions>();
    CLI::App* command = program.add_subcommand("send", "Send a message and print the body of its answer");
    AddDestination(*command, options);
    AddMessage(*command, options);
    command->add_option("--timeout", options->timeoutMs, "How long to wait for the answer, in milliseconds")
        ->capture_default_str()
        ->type_name("MS");
    command->footer("Without --reply-msg the answer is awaited with the message's own id.");
    return {command, [options] { return Send(*options); }};
}

Verb AddPost(CLI::App& program) {
    auto options = std::make_shared<MessageOptions>();
    CLI::App* command = program.add_subcommand("post", "Post a message, which needs no answer");
    AddDestination(*command, options);
    AddMessage(*command, options);
    return {command, [options] { return Post(*options); }};
}

Verb AddPublish(CLI::App& program) {
    auto options = std::make_shared<MessageOptions>();
    CLI::App* command = program.add_subcommand("publish", "Publish a message to everyone who subscribed to a module");
    AddModuleId(*command, "--from", options->from, "The module that publishes")->required();
    AddMessage(*command, options);
    return {command, [options] { return Publish(*options); }};
}

} // namespace Vantor::Sentrix::Tool
