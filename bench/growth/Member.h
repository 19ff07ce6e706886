// A process on the bus, as a program that uses it would be: over the installed headers, checksums and log as they come.
#pragma once

#include "tools/veyra/bench/Settings.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Vantor::Sentrix::Growth {

using Tool::Settings;

// What a module does with a message.
namespace Message {
inline constexpr int kEcho = 1;    // answers with what came
inline constexpr int kSwallow = 2; // answers with nothing
inline constexpr int kWork = 3;    // sleeps for the microseconds that are its body, then says kDone
inline constexpr int kAnswer = 4;
inline constexpr int kDone = 5;
inline constexpr int kNews = 6; // what is published: its number comes first
} // namespace Message

// Threads: one at a time; callbacks run beside it.
// Fails: by exception, which ends the process and with it the measurement.
class Member {
public:
    // Returns when the server knows all of its modules.
    explicit Member(const Settings& settings);

    //   joined                         -> make, known: us for each module, until its constructor returned and until
    //                                     the server knew it
    //   ask to message bytes seconds   one request at a time, after a warm-up -> p50 p99 in us, count of the measured,
    //                                     total of all
    //   volley to us seconds           64 kWork at once, again and again -> p50: us until all were done
    //   publish count pause            that many kNews, so many seconds apart -> 0, 1, ...: when, in us
    //   listen to subscriptions place  has that many subscriptions; the one to the news of module `to` is the first
    //                                     (1), the last (2) or none of them (0) -> each: us for a subscription
    //   heard                          -> count of news, and 0, 1, ...: when the first 64 came
    //   flood to seconds               publishes news; after 64 it waits until module `to` has answered -> count
    Settings Obey(const std::string& what, const Settings& order);

private:
    Settings Ask(const Settings& order);
    Settings SendVolleys(const Settings& order);
    Settings PublishNews(const Settings& order);
    Settings Listen(const Settings& order);
    Settings Heard();
    Settings Flood(const Settings& order);

    IPCMessageClient& First() { return *m_modules.front(); }
    void Serve(IPCMessageClient& module);
    void Request(TagIPCMessageItem& request, std::int32_t answerLength);
    void SendVolley(TagIPCMessageItem work);
    void Publish(std::uint32_t number);

    Settings m_joined;
    std::int32_t m_requests = 0;
    std::atomic<std::uint32_t> m_done{0}; // kDone that came

    std::mutex m_mutex; // guards what is heard
    std::uint32_t m_count = 0;
    std::map<std::uint32_t, double> m_heard;

    std::vector<std::unique_ptr<IPCMessageClient>> m_modules; // last: their callbacks use the others
};

} // namespace Vantor::Sentrix::Growth
