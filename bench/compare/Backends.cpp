#include "bench/compare/Bus.h"
#include "bench/compare/Processes.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <tuple>

namespace Vantor::Sentrix::Compare {

namespace {

// Filled while static objects are made, in whatever order the files were linked.
std::vector<Backend>& Registered() {
    static std::vector<Backend> backends;
    return backends;
}

// The limits keep their own order: each adds something to the one before.
auto Rank(const Backend& backend) {
    return std::tuple(backend.kind, backend.kind == Kind::Peer ? backend.name : std::string());
}

} // namespace

Registration::Registration(std::vector<Backend> backends) {
    std::move(backends.begin(), backends.end(), std::back_inserter(Registered()));
    std::stable_sort(Registered().begin(), Registered().end(),
                     [](const Backend& a, const Backend& b) { return Rank(a) < Rank(b); });
}

const std::vector<Backend>& Backends() {
    return Registered();
}

const Backend& FindBackend(std::string_view name) {
    const auto found = std::find_if(Backends().begin(), Backends().end(),
                                    [&](const Backend& backend) { return backend.name == name; });
    if (found == Backends().end()) {
        throw std::invalid_argument("there is no bus '" + std::string(name) + "' to compare");
    }
    return *found;
}

void Broker::Stop() {
    for (const pid_t process : Processes()) {
        EndProcess(process);
    }
}

} // namespace Vantor::Sentrix::Compare
