// How the programs of this folder measure: a part of the library beside the least that anybody would have to do for
// the same result, which is its bound. The benchmarks are named PART/BYTES and PART_bound/WHAT/BYTES;
// scripts/bench-parts sets the two side by side.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Vantor::Sentrix {

using Measurement = void (*)(benchmark::State& state);

struct Bound {
    std::string what;
    Measurement measure;
};

struct Part {
    std::string name;
    Measurement measure;
    std::vector<Bound> bounds;
    std::vector<std::int64_t> sizes = {64, 4096, 65536, 1048576};
};

// What main() does. Returns its exit code.
int RunParts(int argc, char** argv, const std::vector<Part>& parts);

inline std::size_t Size(const benchmark::State& state) {
    return static_cast<std::size_t>(state.range(0));
}

// Bytes of no pattern, the same at every run.
std::string Bytes(std::size_t size);

// Runs `step` as often as the library asks. A step says whether it worked; the first that did not ends the
// measurement with an error, so that no failure is ever reported as fast.
template <class Step> void Measure(benchmark::State& state, Step&& step) {
    for ([[maybe_unused]] auto round : state) {
        if (!step()) {
            state.SkipWithError("the measured step failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// std::memcpy from one buffer to another, both in use again and again.
void MeasureCopy(benchmark::State& state);

} // namespace Vantor::Sentrix
