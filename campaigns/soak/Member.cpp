#include "campaigns/soak/Member.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr std::size_t kHeadBytes = 16;
constexpr std::size_t kLetters = 26;
constexpr std::size_t kLargestBody = 2 << 20;

std::string Head(std::uint32_t number, std::size_t size) {
    char head[kHeadBytes + 1];
    std::snprintf(head, sizeof head, "%08x%08x", number, static_cast<unsigned int>(size));
    return head;
}

std::string_view Tail(std::uint32_t number, std::size_t size) {
    static const std::string pattern = [] {
        std::string letters(kLargestBody + kLetters, ' ');
        for (std::size_t i = 0; i < letters.size(); ++i) {
            letters[i] = static_cast<char>('a' + i % kLetters);
        }
        return letters;
    }();
    return std::string_view(pattern).substr(number % kLetters, size - kHeadBytes);
}

} // namespace

std::string Body(std::uint32_t number, std::size_t size) {
    const std::size_t bytes = std::max(size, kHeadBytes);
    return Head(number, bytes).append(Tail(number, bytes));
}

bool IsIntact(const TagIPCMessageItem& item) {
    const auto number = static_cast<std::uint32_t>(item.uniqMsgId);
    const auto size = static_cast<std::size_t>(std::max(item.dataLen, 0));
    if (size < kHeadBytes || size > kLargestBody) {
        return false;
    }
    const std::string_view body(item.data, size);
    return body.substr(0, kHeadBytes) == Head(number, size) && body.substr(kHeadBytes) == Tail(number, size);
}

void Edit(TagIPCMessageItem& item) {
    std::transform(item.data, item.data + item.dataLen, item.data,
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
}

TagIPCMessageItem Item(int to, int message, std::uint32_t number, std::string_view body) {
    TagIPCMessageItem item;
    item.toModuleId = to;
    item.msgId = message;
    item.replyMsgId = message == kAsk ? kAnswer : -1;
    item.uniqMsgId = static_cast<std::int32_t>(number);
    item.dataLen = static_cast<std::int32_t>(body.size());
    item.data = const_cast<char*>(body.data()); // only read
    return item;
}

void Acknowledge(const IPCMessageClient& client, const TagIPCMessageItem& item) {
    client.PostIPCMessage(Item(item.fromModuleId, kTaken, static_cast<std::uint32_t>(item.uniqMsgId)));
}

bool AskEcho(const IPCMessageClient& client, std::uint32_t number, std::size_t bytes) {
    const std::string body = Body(number, bytes);
    TagIPCMessageItem request = Item(kEchoModule, kAsk, number, body);
    bool right = false;
    client.SendIPCMessage(request, kAnswer, static_cast<unsigned int>(1000 * kPatienceSeconds),
                          [&](TagIPCMessageItem& answer) { right = IsIntact(answer); });
    return right;
}

bool AwaitThat(double seconds, const std::function<bool()>& isTrue) {
    constexpr std::chrono::microseconds kLookAgain{500};
    for (const double end = Now() + seconds; !isTrue(); std::this_thread::sleep_for(kLookAgain)) {
        if (Now() > end) {
            return false;
        }
    }
    return true;
}

void Obey(Tally& tally, const Orders& orders) {
    std::cout << Tool::kReadyLine << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string what;
        words >> what;
        const Settings order({std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()});
        if (what == "begin") {
            tally.Clear();
        } else if (what != "look") {
            orders.at(what)(order);
        }
        Settings result;
        for (const auto& [name, value] : tally.Figures()) {
            result.Set(name, value);
        }
        std::cout << Tool::ResultLine(result) << std::endl;
    }
}

} // namespace Vantor::Sentrix::Soak
