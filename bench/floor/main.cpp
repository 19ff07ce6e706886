// veyra-floor: two processes that talk through a minimal forwarder over plain Unix sockets. No bus that forwards
// messages can be much faster, so `veyra bench` shows its own numbers beside these.
#include "bench/floor/Roles.h"
#include "bench/floor/Wire.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <map>
#include <string>

namespace Vantor::Sentrix::Floor {

void Say(std::string_view line) {
    std::printf("%.*s\n", static_cast<int>(line.size()), line.data());
    std::fflush(stdout);
}

namespace {

using Role = void (*)(const Settings&);

Role FindRole(const std::string& name) {
    static const std::map<std::string, Role> kRoles = {{"forwarder", RunForwarder},
                                                       {"echo", RunEcho},
                                                       {"caller", RunCaller},
                                                       {"sink", RunSink},
                                                       {"source", RunSource}};
    const auto found = kRoles.find(name);
    return found == kRoles.end() ? nullptr : found->second;
}

} // namespace
} // namespace Vantor::Sentrix::Floor

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix::Floor;
    const Role role = argc > 1 ? FindRole(argv[1]) : nullptr;
    if (role == nullptr) {
        std::fputs("veyra-floor: started by `veyra bench`; it has no use of its own\n", stderr);
        return 2;
    }
    alarm(kLifeSeconds);
    try {
        role(Settings({argv + 2, argv + argc}));
        return 0;
    } catch (const Gone&) {
        return 1; // how an echo or a sink ends; whoever waits for a result misses it and says so
    } catch (const std::exception& error) {
        std::fprintf(stderr, "veyra-floor: %s: %s\n", argv[1], error.what());
        return 1;
    }
}
