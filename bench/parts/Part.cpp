#include "bench/parts/Part.h"

#include <algorithm>
#include <cstring>
#include <random>

namespace Vantor::Sentrix {

int RunParts(int argc, char** argv, const std::vector<Part>& parts) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    for (const Part& part : parts) {
        for (const std::int64_t size : part.sizes) {
            benchmark::RegisterBenchmark(part.name.c_str(), part.measure)->Arg(size);
            for (const Bound& bound : part.bounds) {
                benchmark::RegisterBenchmark((part.name + "_bound/" + bound.what).c_str(), bound.measure)->Arg(size);
            }
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

std::string Bytes(std::size_t size) {
    std::mt19937 random(1);
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
    return bytes;
}

void MeasureCopy(benchmark::State& state) {
    const std::string from = Bytes(Size(state));
    std::string to(from.size(), '\0');
    Measure(state, [&] {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
        return true;
    });
}

} // namespace Vantor::Sentrix
