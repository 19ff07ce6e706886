#include "tools/veyra/ServiceCall.h"

#include "tools/support/ServiceText.h"
#include "tools/support/Stop.h"
#include "tools/support/Utf8.h"
#include "tools/veyra/Ids.h"
#include "tools/veyra/Say.h"
#include "tools/veyra/Verbs.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace Vantor::Sentrix::Tool {

namespace {

using Support::ModuleStatus;

// The client of the service may be any module, most often PassingModuleId(); this one is never the same.
int WatchingModuleId() {
    constexpr std::uint32_t kOtherRange = 0x01000000;
    return static_cast<int>(PassingModuleId() ^ kOtherRange);
}

int WrongShape(const Service& service, const char* what) {
    Say(std::string(service.name) + " sent what cannot be understood: " + Printable(what));
    return kFailed;
}

// Tells now and then, while it lives, that the program waits.
class WaitTalk {
public:
    explicit WaitTalk(const Service& service) {
        try {
            m_thread = std::thread([this, &service] { Talk(service); });
        } catch (const std::system_error&) { // waits in silence
        }
    }
    ~WaitTalk() {
        {
            const std::lock_guard guard(m_mutex);
            m_over = true;
        }
        m_changed.notify_all();
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    WaitTalk(const WaitTalk&) = delete;
    WaitTalk& operator=(const WaitTalk&) = delete;

private:
    void Talk(const Service& service) {
        std::unique_lock guard(m_mutex);
        auto waited = kTalkInterval;
        while (!m_changed.wait_for(guard, kTalkInterval, [this] { return m_over; })) {
            Say("waiting for " + std::string(service.name) + " (" + std::to_string(waited.count()) + " s)");
            waited += kTalkInterval;
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_over = false; // guarded by m_mutex
    std::thread m_thread;
};

} // namespace

// ---- The service ---------------------------------------------------------------------------------------------------

ServiceWatch::ServiceWatch(const Service& service)
    : m_service(service), m_client(WatchingModuleId(), false, false), m_query(m_client) {}

bool ServiceWatch::IsThere() {
    const ModuleStatus status = Status();
    if (status == ModuleStatus::Offline) {
        Say(std::string(m_service.name) + " (module " + HexId(m_service.module) + ") is not on the bus; start `" +
            m_service.program + "`");
    } else if (status == ModuleStatus::NoAnswer && !Support::StopAsked()) { // to ask is cut short by the wish to stop
        Say("the bus server does not answer");
    }
    return status == ModuleStatus::Online;
}

int ServiceWatch::NoAnswer() {
    if (IsThere()) {
        Say(std::string(m_service.name) + " gave no answer, or none that can be used");
    }
    return kFailed;
}

int WithService(const Service& service, const std::function<int(ServiceWatch&)>& use) {
    if (!IsIPCServerPresent(0)) {
        Say("nobody serves the bus; start `veyra serve`");
        return kFailed;
    }
    ServiceWatch watch(service);
    if (!watch.IsThere()) {
        return kFailed;
    }
    try {
        return use(watch);
    } catch (const Json::Exception& error) {
        return WrongShape(service, error.what());
    } catch (const std::logic_error& error) { // of a number that is none or too large
        return WrongShape(service, error.what());
    }
}

int AskService(const Service& service, const std::function<int(ServiceWatch&)>& ask) {
    return WithService(service, [&](ServiceWatch& watch) {
        const WaitTalk talk(service);
        return ask(watch);
    });
}

// ---- Texts ---------------------------------------------------------------------------------------------------------

std::string JsonLine(const Json::Value& value) {
    return Support::OneLine(value) + '\n';
}

std::string Printable(std::string_view text) {
    constexpr wchar_t kReplacement = 0xFFFD;
    const auto controls = [](wchar_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); };
    std::wstring wide = Support::WideFromUtf8(text);
    std::replace_if(wide.begin(), wide.end(), controls, kReplacement);
    return Support::Utf8FromWide(wide);
}

std::string UtcTime(std::int64_t seconds) {
    constexpr std::int64_t kYear10000 = 253402300800;
    if (seconds < 0 || seconds >= kYear10000) {
        return std::to_string(seconds);
    }
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text;
}

std::string Padded(std::string text, std::size_t width) {
    const auto begins = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
    const auto characters = static_cast<std::size_t>(std::count_if(text.begin(), text.end(), begins));
    return text.append(width > characters ? width - characters : 0, ' ');
}

} // namespace Vantor::Sentrix::Tool
