#include "bench/growth/Roles.h"

#include "bench/growth/Member.h"
#include "bench/parts/Allocations.h"
#include "veyrasvc/bus/IPCMessageExport.h"

#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace Vantor::Sentrix::Growth {

namespace {

using Orders = std::function<Settings(const std::string& what, const Settings& order)>;

void ObeyOrders(const Orders& orders) {
    std::cout << Tool::kReadyLine << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string what;
        words >> what;
        const Settings order({std::istream_iterator<std::string>(words), std::istream_iterator<std::string>()});
        const Settings result =
            what == "allocations" ? Settings().Set("count", static_cast<double>(Allocations())) : orders(what, order);
        std::cout << Tool::ResultLine(result) << std::endl;
    }
}

void RunHost() {
    constexpr unsigned int kReachableWithinMs = 2000;
    IPCMessageServer server;
    if (!server.Start() || !IsIPCServerPresent(kReachableWithinMs)) {
        throw std::runtime_error("the host could not be started");
    }
    ObeyOrders([](const std::string& what, const Settings& /*order*/) -> Settings {
        throw std::invalid_argument("a host does not know " + what);
    });
    server.Stop();
}

} // namespace

int RunRole(const std::vector<std::string>& arguments) {
    const std::string& role = arguments.at(0);
    if (role == "host") {
        RunHost();
    } else if (role == "member") {
        Member member(Settings({arguments.begin() + 1, arguments.end()}));
        ObeyOrders([&](const std::string& what, const Settings& order) { return member.Obey(what, order); });
    } else {
        throw std::invalid_argument("there is no role " + role);
    }
    return 0;
}

} // namespace Vantor::Sentrix::Growth
