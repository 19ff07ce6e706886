#include "bench/growth/Member.h"

#include "tools/support/ModuleStatus.h"
#include "tools/veyra/bench/Latencies.h"

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace Vantor::Sentrix::Growth {

namespace {

using Clock = Tool::Latencies::Clock;

constexpr std::uint32_t kAtOnce = 64; // work in a volley, news in a flood between two looks
constexpr unsigned int kPatienceMs = 20000;
constexpr std::size_t kNewsBytes = 64;
constexpr double kWarmUpSeconds = 0.05;

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double Microseconds(Clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

// Of the clock that all processes of the machine share.
double Now() {
    return Microseconds(Clock::now().time_since_epoch());
}

template <class Number> Number NumberIn(const TagIPCMessageItem& item) {
    Number number{};
    if (item.data != nullptr && static_cast<std::size_t>(item.dataLen) >= sizeof number) {
        std::memcpy(&number, item.data, sizeof number);
    }
    return number;
}

TagIPCMessageItem MessageOf(int msgId, std::string& body) {
    TagIPCMessageItem item;
    item.msgId = msgId;
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = body.data();
    return item;
}

void Answer(const IPCMessageClient& module, const TagIPCMessageItem& request, int msgId, bool withBody) {
    TagIPCMessageItem answer;
    answer.toModuleId = request.fromModuleId;
    answer.msgId = msgId;
    answer.uniqMsgId = request.uniqMsgId;
    if (withBody) {
        answer.dataLen = request.dataLen;
        answer.data = request.data;
    }
    module.PostIPCMessage(answer);
}

} // namespace

Member::Member(const Settings& settings) {
    const auto first = settings.Get<int>("first");
    const auto count = settings.Get<int>("modules");
    m_modules.reserve(static_cast<std::size_t>(count));
    const double begin = Now();
    for (int i = 0; i < count; ++i) {
        m_modules.push_back(std::make_unique<IPCMessageClient>(first + i, false, false));
    }
    const double made = Now();
    const auto last = static_cast<std::uint32_t>(first + count - 1);
    if (Support::StatusQuery(First()).Ask(last) != Support::ModuleStatus::Online) {
        throw std::runtime_error("the bus does not know this module");
    }
    m_joined.Set("make", (made - begin) / count).Set("known", (Now() - begin) / count);
    for (const auto& module : m_modules) {
        Serve(*module);
    }
}

void Member::Serve(IPCMessageClient& module) {
    module.RegisterMessageCallback(
        Message::kEcho, [&module](TagIPCMessageItem& item) { Answer(module, item, Message::kAnswer, true); });
    module.RegisterMessageCallback(
        Message::kSwallow, [&module](TagIPCMessageItem& item) { Answer(module, item, Message::kAnswer, false); });
    module.RegisterMessageCallback(Message::kWork, [&module](TagIPCMessageItem& item) {
        if (const auto us = NumberIn<std::uint32_t>(item); us > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(us));
        }
        Answer(module, item, Message::kDone, false);
    });
    module.RegisterMessageCallback(Message::kDone, [this](TagIPCMessageItem& /*item*/) {
        ++m_done;
        m_done.notify_one();
    });
}

Settings Member::Obey(const std::string& what, const Settings& order) {
    static const std::map<std::string, Settings (Member::*)(const Settings&)> kOrders = {
        {"ask", &Member::Ask},
        {"volley", &Member::SendVolleys},
        {"publish", &Member::PublishNews},
        {"listen", &Member::Listen},
        {"flood", &Member::Flood}};
    if (what == "joined") {
        return m_joined;
    }
    if (what == "heard") {
        return Heard();
    }
    const auto found = kOrders.find(what);
    if (found == kOrders.end()) {
        throw std::invalid_argument("a member does not know " + what);
    }
    return (this->*found->second)(order);
}

// ---- Requests ------------------------------------------------------------------------------------------------------

void Member::Request(TagIPCMessageItem& request, std::int32_t answerLength) {
    std::int32_t length = -1;
    request.uniqMsgId = ++m_requests;
    const auto take = [&length](TagIPCMessageItem& answer) { length = answer.dataLen; };
    if (!First().SendIPCMessage(request, Message::kAnswer, kPatienceMs, take) || length != answerLength) {
        throw std::runtime_error("a request was not answered as it should be");
    }
}

Settings Member::Ask(const Settings& order) {
    std::string body(order.Get<std::size_t>("bytes"), 'x');
    TagIPCMessageItem request = MessageOf(order.Get<int>("message"), body);
    request.toModuleId = order.Get<int>("to");
    const std::int32_t answerLength = request.msgId == Message::kEcho ? request.dataLen : 0;
    const std::int32_t before = m_requests;
    const Clock::time_point warm = Clock::now() + Seconds(kWarmUpSeconds);
    do {
        Request(request, answerLength);
    } while (Clock::now() < warm);
    Tool::Latencies latencies;
    const Clock::time_point end = Clock::now() + Seconds(order.Number("seconds"));
    for (Clock::time_point last = Clock::now(); last < end;) {
        Request(request, answerLength);
        const Clock::time_point now = Clock::now();
        latencies.Add(now - last);
        last = now;
    }
    return Settings()
        .Set("p50", latencies.Microseconds(0.50))
        .Set("p99", latencies.Microseconds(0.99))
        .Set("total", m_requests - before);
}

void Member::SendVolley(TagIPCMessageItem work) {
    const std::uint32_t all = m_done + kAtOnce;
    for (std::uint32_t i = 0; i < kAtOnce; ++i) {
        First().PostIPCMessage(work);
    }
    for (std::uint32_t done = m_done; done != all; done = m_done) {
        m_done.wait(done);
    }
}

Settings Member::SendVolleys(const Settings& order) {
    const auto us = order.Get<std::uint32_t>("us");
    std::string body(reinterpret_cast<const char*>(&us), sizeof us);
    TagIPCMessageItem work = MessageOf(Message::kWork, body);
    work.toModuleId = order.Get<int>("to");
    Tool::Latencies latencies;
    SendVolley(work); // the pool of the other side grows
    for (const Clock::time_point end = Clock::now() + Seconds(order.Number("seconds")); Clock::now() < end;) {
        const Clock::time_point begin = Clock::now();
        SendVolley(work);
        latencies.Add(Clock::now() - begin);
    }
    return Settings().Set("p50", latencies.Microseconds(0.50));
}

// ---- Publications --------------------------------------------------------------------------------------------------

void Member::Publish(std::uint32_t number) {
    std::string body(kNewsBytes, 'x');
    std::memcpy(body.data(), &number, sizeof number);
    TagIPCMessageItem item = MessageOf(Message::kNews, body);
    First().PublishIPCMessage(item);
}

Settings Member::PublishNews(const Settings& order) {
    Settings times;
    for (std::uint32_t i = 0; i < order.Get<std::uint32_t>("count"); ++i) {
        std::this_thread::sleep_for(Seconds(order.Number("pause")));
        times.Set(std::to_string(i), Now());
        Publish(i);
    }
    std::this_thread::sleep_for(Seconds(order.Number("pause")));
    return times;
}

Settings Member::Listen(const Settings& order) {
    enum { kNone, kFirst, kLast };
    const auto publisher = order.Get<unsigned int>("to");
    const auto count = order.Get<unsigned int>("subscriptions");
    const int place = order.Get<int>("place");
    const unsigned int matching = place == kFirst ? 0 : place == kLast ? count - 1 : count;
    First().UnRegisterMessageCallbackAll();
    Serve(First());
    const double begin = Now();
    for (unsigned int i = 0; i < count; ++i) {
        // The others are to the same module, whose other messages nobody sends.
        First().SubscribeIPCMessage(publisher, i == matching ? Message::kNews : Message::kNews + 1 + i);
    }
    const double each = (Now() - begin) / count;
    {
        const std::lock_guard guard(m_mutex);
        m_count = 0;
        m_heard.clear();
    }
    First().RegisterPublishMessageCallback([this](TagIPCMessageItem& item) {
        const double now = Now();
        const std::lock_guard guard(m_mutex);
        if (++m_count <= kAtOnce) {
            m_heard[NumberIn<std::uint32_t>(item)] = now;
        }
    });
    return Settings().Set("each", each);
}

Settings Member::Heard() {
    const std::lock_guard guard(m_mutex);
    Settings heard;
    heard.Set("count", m_count);
    for (const auto& [number, when] : m_heard) {
        heard.Set(std::to_string(number), when);
    }
    return heard;
}

Settings Member::Flood(const Settings& order) {
    std::string nothing;
    TagIPCMessageItem look = MessageOf(Message::kSwallow, nothing);
    look.toModuleId = order.Get<int>("to");
    std::uint32_t count = 0;
    for (const Clock::time_point end = Clock::now() + Seconds(order.Number("seconds")); Clock::now() < end;) {
        for (std::uint32_t i = 0; i < kAtOnce; ++i) {
            Publish(count++);
        }
        Request(look, 0);
    }
    return Settings().Set("count", count);
}

} // namespace Vantor::Sentrix::Growth
