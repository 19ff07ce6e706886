// veyra listen: a module that shows what it gets.
#include "tools/support/ModuleStatus.h"
#include "tools/support/StandardIo.h"
#include "tools/support/Stop.h"
#include "tools/veyra/Arrival.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/Options.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"
#include "veyrasvc/bus/ModuleId.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

namespace Vantor::Sentrix::Tool {

namespace {

// Without --msg: small ids, and those that begin at the module's own, as modules like to number their messages.
constexpr std::uint32_t kUsualIds = 0x1000;
constexpr std::uint32_t kMostIds = 0x100000; // each costs a callback

struct ListenOptions {
    std::uint32_t id = 0;
    std::vector<std::string> messages;
    std::vector<std::string> subscriptions;
    std::string reply;
    bool replies = false;
    bool json = false;
    std::string outFolder;
    std::uint64_t count = 0; // 0: without limit
};

// ---- Usage ---------------------------------------------------------------------------------------------------------

std::string CheckMessages(const std::string& text) {
    const auto range = ParseIdRange(text);
    if (!range || !IsDeliverable(range->first) || !IsDeliverable(range->last)) {
        return "'" + text + "' is no message id and no range FIRST-LAST; 0 and 0xffffffff are never delivered";
    }
    return range->last - range->first >= kMostIds ? "'" + text + "' are more than 1048576 ids" : "";
}

struct Subscription {
    std::uint32_t module;
    std::uint32_t message; // 0: all
};

std::optional<Subscription> ParseSubscription(const std::string& text) {
    const std::size_t colon = text.find(':');
    const auto module = ParseId(std::string_view(text).substr(0, colon));
    const auto message = colon == std::string::npos ? 0 : ParseId(std::string_view(text).substr(colon + 1));
    return module && message ? std::optional(Subscription{*module, *message}) : std::nullopt;
}

std::string CheckSubscription(const std::string& text) {
    return ParseSubscription(text) ? "" : "'" + text + "' is no subscription: MODULE or MODULE:MSG";
}

std::vector<IdRange> MessageRanges(const ListenOptions& options) {
    std::vector<IdRange> ranges;
    for (const std::string& text : options.messages) {
        ranges.push_back(*ParseIdRange(text));
    }
    if (ranges.empty()) {
        constexpr std::uint32_t kLast = 0xFFFFFFFE;
        ranges.push_back({1, kUsualIds - 1});
        ranges.push_back({options.id, std::min(options.id, kLast - kUsualIds) + kUsualIds - 1});
    }
    return ranges;
}

// ---- What arrives --------------------------------------------------------------------------------------------------

class Listener {
public:
    explicit Listener(const ListenOptions& options)
        : m_options(options), m_limit(options.count == 0 ? std::numeric_limits<std::uint64_t>::max() : options.count),
          m_client(static_cast<int>(options.id), false, false), m_query(m_client) {
        RegisterMessages();
        RegisterSubscriptions();
    }

    int Run() {
        if (!AwaitConnection()) {
            return kDone; // the user has lost patience
        }
        AwaitEnd();
        const bool left =
            !m_options.replies || Support::StopAsked() || m_query.Flush(); // the last answer, before we go
        const std::lock_guard guard(m_mutex);
        return left && !m_failed ? kDone : kFailed;
    }

private:
    void RegisterMessages() {
        for (const IdRange& range : MessageRanges(m_options)) {
            for (std::uint32_t id = range.first; id <= range.last; ++id) {
                // The status notices are the query's; it needs them, and here they would only say who has gone.
                if (IsDeliverable(id) && id != ControlMessage::kModuleOnline && id != ControlMessage::kModuleOffline) {
                    m_client.RegisterMessageCallback(
                        static_cast<int>(id), [this](TagIPCMessageItem& item) { Take(ArrivalKind::Message, item); });
                }
            }
        }
    }

    void RegisterSubscriptions() {
        for (const std::string& text : m_options.subscriptions) {
            const Subscription subscription = *ParseSubscription(text);
            m_client.SubscribeIPCMessage(subscription.module, subscription.message);
        }
        if (!m_options.subscriptions.empty()) {
            m_client.RegisterPublishMessageCallback(
                [this](TagIPCMessageItem& item) { Take(ArrivalKind::Publication, item); });
        }
    }

    bool AwaitConnection() {
        if (!IsIPCServerPresent(0)) {
            Say("nobody serves the bus yet; waiting");
        }
        constexpr std::chrono::hours kAlways{24 * 365};
        if (m_query.Await(m_options.id, kAlways) != Support::ModuleStatus::Online) {
            return false;
        }
        Say("listening as " + HexId(m_options.id));
        return true;
    }

    void AwaitEnd() {
        std::unique_lock guard(m_mutex);
        while (m_finished < m_limit && !m_failed && !Support::StopAsked()) {
            m_changed.wait_for(guard, Support::kStopCheckInterval);
        }
    }

    // Runs on the library's pool, for several arrivals at once.
    void Take(ArrivalKind kind, const TagIPCMessageItem& item) {
        std::uint64_t number = 0;
        {
            const std::lock_guard guard(m_mutex);
            if (m_taken == m_limit) {
                return;
            }
            number = ++m_taken;
        }
        const std::string file = Store(number, item);
        const std::string line =
            m_options.json ? DescribeArrivalAsJson(kind, item, file) : DescribeArrival(kind, item, file);
        {
            const std::lock_guard guard(m_mutex);
            m_failed = m_failed || !Support::WriteOutput(line);
        }
        Reply(kind, item); // whoever has the answer finds the line written
        const std::lock_guard guard(m_mutex);
        ++m_finished;
        m_changed.notify_all();
    }

    // The name of the file that has the body; empty when none was wanted or it could not be written.
    std::string Store(std::uint64_t number, const TagIPCMessageItem& item) {
        if (m_options.outFolder.empty()) {
            return {};
        }
        char name[32];
        std::snprintf(name, sizeof name, "/%06llu", static_cast<unsigned long long>(number));
        std::string file = m_options.outFolder + name;
        if (!Support::WriteFileBytes(file, {item.data, static_cast<std::size_t>(item.dataLen)})) {
            Say("cannot write '" + file + "'");
            const std::lock_guard guard(m_mutex);
            m_failed = true;
            return {};
        }
        return file;
    }

    void Reply(ArrivalKind kind, const TagIPCMessageItem& item) {
        const bool hasSender = item.fromModuleId != -1 && item.fromModuleId != 0;
        if (!m_options.replies || kind != ArrivalKind::Message || !hasSender) {
            return;
        }
        TagIPCMessageItem answer;
        answer.toModuleId = item.fromModuleId;
        answer.msgId = item.replyMsgId == -1 ? item.msgId : item.replyMsgId;
        answer.uniqMsgId = item.uniqMsgId;
        std::string body = m_options.reply;
        answer.dataLen = static_cast<std::int32_t>(body.size());
        answer.data = body.data();
        m_client.PostIPCMessage(answer);
    }

    // Constant after construction.
    const ListenOptions& m_options;
    const std::uint64_t m_limit;

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex.
    std::uint64_t m_taken = 0;
    std::uint64_t m_finished = 0;
    bool m_failed = false;

    // Last, and so destroyed first: its callbacks use all of the above.
    IPCMessageClient m_client;
    Support::StatusQuery m_query;
};

int Listen(const ListenOptions& options) {
    Support::CatchStopSignals();
    return Listener(options).Run();
}

constexpr char kListenFooter[] =
    "The library delivers only the message ids that were asked for and warns about others. Without --msg these are\n"
    "0x1-0xfff and the 0x1000 ids from the module's own on. Subscriptions need no --msg. A subscription to all\n"
    "messages of a module also tells when the module comes and goes. Messages that arrive together may be shown in\n"
    "another order than they came in.";

} // namespace

Verb AddListen(CLI::App& program) {
    auto options = std::make_shared<ListenOptions>();
    CLI::App* command = program.add_subcommand("listen", "Be a module and show what arrives, until Ctrl-C");
    AddModuleId(*command, "--id", options->id, "The module to be")->required();
    command->add_option("--msg", options->messages, "Message ids to receive: ID or FIRST-LAST; may be repeated")
        ->check(CLI::Validator(CheckMessages, ""))
        ->type_name("IDS");
    command->add_option("--subscribe", options->subscriptions, "Publications to receive; may be repeated")
        ->check(CLI::Validator(CheckSubscription, ""))
        ->type_name("MODULE[:MSG]");
    CLI::Option* reply = command->add_option("--reply", options->reply, "Answer every message with this body");
    reply->type_name("TEXT");
    command->add_flag("--json", options->json, "Print a JSON object for each arrival");
    command->add_option("--out", options->outFolder, "Store the bodies in this folder, as 000001, 000002, ...")
        ->check(ExistingFolder())
        ->type_name("FOLDER");
    command->add_option("--count", options->count, "End after so many arrivals")->type_name("N");
    command->footer(kListenFooter);
    return {command, [options, reply] {
                options->replies = reply->count() != 0;
                return Listen(*options);
            }};
}

} // namespace Vantor::Sentrix::Tool
