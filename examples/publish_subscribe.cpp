// Publishes to whoever has subscribed, and subscribes.
//
//     c++ -std=c++17 publish_subscribe.cpp $(pkg-config --cflags --libs veyrasvc) -o publish_subscribe
//     veyra serve                             in one terminal
//     ./publish_subscribe subscribe           in others: prints what is published until Enter is pressed
//     ./publish_subscribe publish "It rains"  in one more
#include "veyrasvc/bus/IPCMessageExport.h"

#include <chrono>
#include <future>
#include <iostream>
#include <mutex>
#include <string>

using namespace Vantor::Sentrix;

namespace {

// Any numbers that no other module of the machine uses.
constexpr int kPaper = 0x900030;
constexpr int kReader = 0x900031;
constexpr int kNews = 1;
constexpr int kHandedOver = 2;
constexpr std::chrono::seconds kPatience{10};

int Fail(const char* what) {
    std::cerr << "publish_subscribe: " << what << '\n';
    return 1;
}

int Subscribe() {
    std::mutex mutex; // publications come on threads of the library, several at once
    IPCMessageClient reader(kReader, false, false);
    reader.RegisterPublishMessageCallback([&](TagIPCMessageItem& item) {
        const std::lock_guard<std::mutex> lock(mutex);
        std::cout << std::string(item.data, static_cast<std::size_t>(item.dataLen)) << std::endl;
    });
    reader.SubscribeIPCMessage(kPaper, kNews);
    std::cerr << "reading the news; Enter ends this\n";
    std::cin.get();
    return 0;
}

int Publish(std::string text) {
    std::promise<void> handedOver;
    IPCMessageClient paper(kPaper, false, true); // true: what it posts to itself takes the way through the host
    paper.RegisterMessageCallback(kHandedOver, [&](TagIPCMessageItem&) { handedOver.set_value(); });

    TagIPCMessageItem news;
    news.msgId = kNews;
    news.data = text.data();
    news.dataLen = static_cast<int>(text.size());
    paper.PublishIPCMessage(news);

    // Publishing does not wait, and what has not left when the process ends is lost. The host takes everything in
    // order: when this comes back, it has the news.
    TagIPCMessageItem last;
    last.toModuleId = kPaper;
    last.msgId = kHandedOver;
    paper.PostIPCMessage(last);
    const bool done = handedOver.get_future().wait_for(kPatience) == std::future_status::ready;
    return done ? 0 : Fail("the host does not take the news");
}

} // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const bool subscribes = verb == "subscribe" && argc == 2;
    if (!subscribes && !(verb == "publish" && argc == 3 && *argv[2] != '\0')) {
        std::cerr << "usage: publish_subscribe subscribe\n       publish_subscribe publish TEXT\n";
        return 2;
    }
    if (!IsIPCServerPresent(0)) {
        return Fail("nobody serves the bus; start `veyra serve`");
    }
    return subscribes ? Subscribe() : Publish(argv[2]);
}
