// Says hello over the bus: a module posts a message to itself, which takes the way through the host and comes back.
//
//     c++ -std=c++17 hello.cpp $(pkg-config --cflags --libs veyrasvc) -o hello
//     veyra serve     in one terminal
//     ./hello         in another: prints "Hello, bus"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <chrono>
#include <future>
#include <iostream>
#include <string>

using namespace Vantor::Sentrix;

namespace {

// Any numbers that no other module of the machine uses. Messages are numbered by the module that gets them, from 1.
constexpr int kHello = 0x900010;
constexpr int kGreeting = 1;
constexpr std::chrono::seconds kPatience{10};

} // namespace

int main(int argc, char**) {
    if (argc != 1) {
        std::cerr << "usage: hello\n";
        return 2;
    }
    if (!IsIPCServerPresent(0)) {
        std::cerr << "hello: nobody serves the bus; start `veyra serve`\n";
        return 1;
    }
    std::promise<std::string> heard; // outlives the client, whose callback fills it
    std::future<std::string> greeting = heard.get_future();

    IPCMessageClient hello(kHello, false, true); // true: what it posts to itself does not stay within the process
    hello.RegisterMessageCallback(kGreeting, [&](TagIPCMessageItem& item) { // on a thread of the library
        heard.set_value(std::string(item.data, static_cast<std::size_t>(item.dataLen)));
    });

    std::string text = "Hello, bus";
    TagIPCMessageItem item;
    item.toModuleId = kHello;
    item.msgId = kGreeting;
    item.data = text.data();
    item.dataLen = static_cast<int>(text.size());
    hello.PostIPCMessage(item);

    if (greeting.wait_for(kPatience) != std::future_status::ready) {
        std::cerr << "hello: the message has not come back\n";
        return 1;
    }
    std::cout << greeting.get() << '\n';
    return 0;
}
