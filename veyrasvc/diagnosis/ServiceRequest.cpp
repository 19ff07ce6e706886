#include "veyrasvc/diagnosis/ServiceRequest.h"

#include "veyrasvc/platform/Win32.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace Vantor::Sentrix {

namespace {

constexpr unsigned int kAnswerTimeoutMs = 60000;

struct OperatorDelete {
    void operator()(char* block) const { ::operator delete(block); }
};

// The record does not own the text, and the bus only reads it.
TagIPCMessageItem RecordOf(const ServiceRequest& request, const std::string& text) {
    TagIPCMessageItem item;
    item.toModuleId = request.service;
    item.msgId = request.requestId;
    item.replyMsgId = request.answerId;
    item.dataLen = static_cast<std::int32_t>(text.size() + 1);
    item.data = const_cast<char*>(text.c_str());
    return item;
}

// A correlation id: the tick at which the request is sent, or one more than the last id when that has reached the tick.
// Never the same twice: requests of two threads, or one that follows another that was answered twice, would take each
// other's answers.
std::int32_t NextId() {
    static std::atomic<DWORD> last{GetTickCount() - 1};
    const DWORD now = GetTickCount();
    DWORD before = last;
    DWORD next = 0;
    do {
        const bool isLater = static_cast<std::int32_t>(now - before) > 0; // the tick begins again every 49.7 days
        next = isLater ? now : before + 1;
    } while (!last.compare_exchange_weak(before, next));
    return static_cast<std::int32_t>(next);
}

} // namespace

bool PostRequest(const IPCMessageClient& client, const ServiceRequest& request, const std::string& text) {
    return client.PostIPCMessage(RecordOf(request, text));
}

std::optional<std::string> Ask(const IPCMessageClient& client, const ServiceRequest& request, const std::string& text,
                               const char* resultLabel, const CallSite& where) {
    TagIPCMessageItem item = RecordOf(request, text);
    item.uniqMsgId = NextId();
    TagIPCMessageItem answer;
    const bool sent = client.SendIPCMessage(item, answer, kAnswerTimeoutMs);
    const std::unique_ptr<char, OperatorDelete> owned(answer.data);
    if (!sent || !owned) {
        LOG_ERROR_AT(where, "SendIPCMessage fail.");
        return std::nullopt;
    }
    // Up to its NUL, which a foreign service may have forgotten.
    std::string result(owned.get(), strnlen(owned.get(), static_cast<std::size_t>(answer.dataLen)));
    LOG_DEBUG_AT(where, resultLabel << result);
    return result;
}

int ResultOf(const std::string& answer) {
    try {
        return std::stoi(answer) == 0 ? 0 : -1;
    } catch (const std::invalid_argument&) {
        throw std::invalid_argument("invalid stoi argument");
    } catch (const std::out_of_range&) {
        throw std::out_of_range("stoi argument out of range");
    }
}

} // namespace Vantor::Sentrix
