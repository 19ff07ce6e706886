// Asks a question and waits for the answer: one module gives back in capitals what another one sends it.
//
//     c++ -std=c++17 request_answer.cpp $(pkg-config --cflags --libs veyrasvc) -o request_answer
//     veyra serve                           in one terminal
//     ./request_answer answer               in a second: answers until Enter is pressed
//     ./request_answer ask "to be or not"   in a third: prints TO BE OR NOT
#include "veyrasvc/bus/IPCMessageExport.h"

#include <cctype>
#include <iostream>
#include <string>

using namespace Vantor::Sentrix;

namespace {

// Any numbers that no other module of the machine uses.
constexpr int kShouter = 0x900020;
constexpr int kAsker = 0x900021;
constexpr int kShout = 1;
constexpr int kShouted = 2;
constexpr unsigned int kPatienceMs = 10000;

int Fail(const char* what) {
    std::cerr << "request_answer: " << what << '\n';
    return 1;
}

int Answer() {
    IPCMessageClient shouter(kShouter, false, false);
    shouter.RegisterMessageCallback(kShout, [&](TagIPCMessageItem& request) { // on threads of the library
        std::string text(request.data, static_cast<std::size_t>(request.dataLen));
        for (char& c : text) {
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
        TagIPCMessageItem answer;
        answer.toModuleId = request.fromModuleId;
        answer.msgId = request.replyMsgId;
        answer.uniqMsgId = request.uniqMsgId; // which of the asker's questions this answers
        answer.data = text.data();
        answer.dataLen = static_cast<int>(text.size());
        shouter.PostIPCMessage(answer);
    });
    std::cerr << "shouting; Enter ends this\n";
    std::cin.get();
    return 0;
}

int Ask(std::string text) {
    const IPCMessageClient asker(kAsker, false, false);
    TagIPCMessageItem request;
    request.toModuleId = kShouter;
    request.msgId = kShout;
    request.replyMsgId = kShouted;
    request.uniqMsgId = 1; // a number of its own for every question that is still open
    request.data = text.data();
    request.dataLen = static_cast<int>(text.size());
    TagIPCMessageItemRecv answer;
    if (!asker.SendIPCMessage(request, kShouted, answer, kPatienceMs)) {
        return Fail("no answer; is `request_answer answer` running?");
    }
    std::cout << answer.data << '\n';
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string verb = argc > 1 ? argv[1] : "";
    const bool answers = verb == "answer" && argc == 2;
    if (!answers && !(verb == "ask" && argc == 3)) {
        std::cerr << "usage: request_answer answer\n       request_answer ask TEXT\n";
        return 2;
    }
    if (!IsIPCServerPresent(0)) {
        return Fail("nobody serves the bus; start `veyra serve`");
    }
    return answers ? Answer() : Ask(argv[2]);
}
