// A message's whole road inside one process: a body becomes a packet and a frame, the bytes are read as from a pipe
// (the copy that a read is), cut and decoded. The column "allocs" counts the allocations of one message.
#include "bench/parts/Allocations.h"
#include "bench/parts/EvpCipher.h"
#include "bench/parts/Part.h"
#include "veyrasvc/bus/BasePacket.h"
#include "veyrasvc/bus/Crc32.h"
#include "veyrasvc/bus/NamedPipeIOCP.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace Vantor::Sentrix {
namespace {

// Both ends of the pipe. A read fills the buffer, or goes to where the cutter wants the bytes of a long
// frame.
class Road {
public:
    explicit Road(bool encrypted) : m_encrypted(encrypted) {}

    bool Travel(const std::string& body) {
        m_arrived = 0;
        Read(Compose(body).ToFrame().bytes);
        return m_arrived == body.size();
    }

private:
    BasePacket Compose(const std::string& body) const {
        BasePacket packet;
        packet.SetTo(0x900001);
        packet.SetFrom(0x900002);
        if (!m_encrypted) {
            packet.SetBody(body);
            return packet;
        }
        std::string ciphertext;
        std::string iv;
        BasePacket::EncryptData(body.data(), body.size(), ciphertext, iv);
        packet.SetEncrypted(true);
        packet.SetBody(ciphertext);
        packet.SetIv(std::move(iv));
        return packet;
    }

    void Read(std::string_view sent) {
        const auto arrive = [this](const SharedBytes& frame) { Decode(frame); };
        while (!sent.empty()) {
            const std::span<char> room = m_cutter.Room(sizeof m_buffer);
            const std::size_t length = std::min(sent.size(), room.empty() ? sizeof m_buffer : room.size());
            std::memcpy(room.empty() ? m_buffer : room.data(), sent.data(), length);
            sent.remove_prefix(length);
            if (room.empty()) {
                m_cutter.Feed({nullptr, {m_buffer, length}}, arrive);
            } else {
                m_cutter.Filled(length, arrive);
            }
        }
    }

    void Decode(const SharedBytes& frame) {
        const auto packet = std::make_shared<BasePacket>();
        packet->DeserializeFrame(frame);
        m_arrived = packet->GetBody().size();
        char* plain = nullptr;
        if (packet->GetEncrypted() && packet->DecryptBody(plain, m_arrived)) {
            ::operator delete(plain);
        }
    }

    const bool m_encrypted;
    FrameCutter m_cutter;
    char m_buffer[kPipeIoBytes];
    std::size_t m_arrived = 0;
};

void MeasureRoad(benchmark::State& state, bool encrypted) {
    const std::string body = Bytes(Size(state));
    Road road(encrypted);
    road.Travel(body); // what is allocated once, at the first message
    const std::size_t before = Allocations();
    Measure(state, [&] { return road.Travel(body); });
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(Allocations() - before), benchmark::Counter::kAvgIterations);
}

void Plain(benchmark::State& state) {
    MeasureRoad(state, false);
}

void Enciphered(benchmark::State& state) {
    MeasureRoad(state, true);
}

// The caller's bytes are copied once, checked once and read once.
class Least {
public:
    explicit Least(std::size_t size) : m_sent(size, '\0'), m_read(size, '\0') {}

    bool Travel(const std::string& body) {
        std::memcpy(m_sent.data(), body.data(), body.size());
        benchmark::DoNotOptimize(Crc32(m_sent.data(), body.size()));
        std::memcpy(m_read.data(), m_sent.data(), body.size());
        benchmark::DoNotOptimize(m_read.data());
        benchmark::ClobberMemory();
        return true;
    }

private:
    std::string m_sent;
    std::string m_read;
};

void TwoCopiesAndChecksum(benchmark::State& state) {
    const std::string body = Bytes(Size(state));
    Least least(body.size());
    Measure(state, [&] { return least.Travel(body); });
}

// Ciphertext is made where it is sent from, and read once.
void CipherCopyAndChecksum(benchmark::State& state) {
    const std::string body = Bytes(Size(state));
    std::string sent(body.size() + EvpCipher::kBlock, '\0');
    std::string read = sent;
    std::string plain(sent.size() + EvpCipher::kBlock, '\0');
    EvpCipher encipher(EvpCipher::kEncrypt);
    EvpCipher decipher(EvpCipher::kDecrypt);
    Measure(state, [&] {
        encipher.Run(body, body.size(), sent);
        benchmark::DoNotOptimize(Crc32(sent.data(), sent.size()));
        std::memcpy(read.data(), sent.data(), sent.size());
        return decipher.Run(read, read.size(), plain) == body.size();
    });
}

} // namespace
} // namespace Vantor::Sentrix

int main(int argc, char** argv) {
    using namespace Vantor::Sentrix;
    return RunParts(argc, argv,
                    {{"Road", Plain, {{"2_memcpy+crc32", TwoCopiesAndChecksum}}},
                     {"RoadEnciphered", Enciphered, {{"EVP+memcpy+crc32", CipherCopyAndChecksum}}}});
}
