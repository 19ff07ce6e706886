// Streams in memory: raw bytes, and a list of strings through the writer and the reader.
#include "bench/parts/Part.h"
#include "veyrasvc/stream/SimpleStream.h"

using namespace Vantor::Sentrix;

namespace {

constexpr std::size_t kTextBytes = 60; // and 4 for its length

void WriteRaw(benchmark::State& state) {
    const std::string bytes = Bytes(Size(state));
    const auto size = static_cast<unsigned int>(bytes.size());
    MemoryrStream stream(state.range(0));
    Measure(state, [&] {
        stream.SetPosition(0);
        return stream.Write(bytes.data(), size) == size;
    });
}

void ReadRaw(benchmark::State& state) {
    std::string bytes = Bytes(Size(state));
    const auto size = static_cast<unsigned int>(bytes.size());
    MemoryrStream stream(state.range(0));
    Measure(state, [&] {
        stream.SetPosition(0);
        return stream.Read(bytes.data(), size) == size;
    });
}

// Into a stream that is empty at first, beside a string that is.
void Grow(benchmark::State& state) {
    const std::string piece = Bytes(kTextBytes + 4);
    const auto size = static_cast<unsigned int>(piece.size());
    Measure(state, [&] {
        MemoryrStream stream;
        for (auto left = state.range(0); left > 0; left -= size) {
            stream.Write(piece.data(), size);
        }
        return stream.GetSize() == state.range(0);
    });
}

void GrowString(benchmark::State& state) {
    const std::string piece = Bytes(kTextBytes + 4);
    Measure(state, [&] {
        std::string text;
        while (text.size() < Size(state)) {
            text.append(piece);
        }
        return text.size() == Size(state);
    });
}

std::vector<std::string> Texts(const benchmark::State& state) {
    return std::vector<std::string>(Size(state) / (kTextBytes + 4), Bytes(kTextBytes));
}

void Serialize(benchmark::State& state) {
    const std::vector<std::string> texts = Texts(state);
    MemoryrStream stream(state.range(0) + 4);
    Measure(state, [&] {
        stream.SetPosition(0);
        StreamWriter(&stream).Write(texts);
        return stream.GetPosition() == state.range(0) + 4;
    });
}

void Deserialize(benchmark::State& state) {
    MemoryrStream stream;
    StreamWriter(&stream).Write(Texts(state));
    Measure(state, [&] {
        stream.SetPosition(0);
        std::vector<std::string> texts;
        StreamReader(&stream).Read(texts);
        return texts.size() * (kTextBytes + 4) == Size(state);
    });
}

// What a reader cannot do without: the strings.
void CopyTexts(benchmark::State& state) {
    const std::vector<std::string> texts = Texts(state);
    Measure(state, [&] {
        std::vector<std::string> copy = texts;
        benchmark::DoNotOptimize(copy.data());
        return copy.size() == texts.size();
    });
}

} // namespace

int main(int argc, char** argv) {
    return RunParts(argc, argv,
                    {{"StreamWrite", WriteRaw, {{"memcpy", MeasureCopy}}},
                     {"StreamRead", ReadRaw, {{"memcpy", MeasureCopy}}},
                     {"StreamGrow", Grow, {{"std_string_append", GrowString}}},
                     {"Serialize", Serialize, {{"memcpy", MeasureCopy}}},
                     {"Deserialize", Deserialize, {{"copy_of_strings", CopyTexts}}}});
}
