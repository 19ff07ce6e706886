// Bursts: a raw connection pours frames over the host. A newcomer is served at once, and afterwards the host holds no
// more than before.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"
#include "tools/support/ModuleStatus.h"

#include <isa-l/crc.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr double kBurstSeconds = 2;
constexpr double kServedSeconds = 3;     // a newcomer, on a machine that does other work as well
constexpr double kGivenBackSeconds = 15; // the pool lets idle threads end after ten
constexpr Holdings kKept = {64, 8, 8};   // what allocators and pools may keep
constexpr int kFlooderModule = 0x900090;

std::string Words(std::initializer_list<std::uint32_t> words) {
    std::string bytes(4 * words.size(), '\0');
    char* at = bytes.data();
    for (const std::uint32_t word : words) {
        Compare::Put32(at, word);
        at += 4;
    }
    return bytes;
}

std::uint32_t Checksum(const std::string& bytes) {
    return crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

std::string Frame(const std::string& payload) {
    const std::string front = Words({static_cast<std::uint32_t>(payload.size()), 0, Checksum(payload)});
    return front + Words({Checksum(front)}) + payload;
}

std::string Packet(std::uint32_t to, std::uint32_t from, std::uint32_t message, const std::string& body) {
    constexpr std::uint32_t kNone = 0xFFFFFFFF;
    return Frame(Words({to, from, message, kNone, kNone, 0, 0, 0, static_cast<std::uint32_t>(body.size())}) + body);
}

struct Kind {
    const char* name;
    std::string frame;
};

const std::vector<Kind>& Kinds() {
    static const std::string text(64, 'x');
    static const std::string echoId("\x00\x00\x90\x00", 4); // little-endian
    static const std::vector<Kind> kinds = {
        {"status queries", Packet(ModuleId::kMsgServer, kFlooderModule, ControlMessage::kStatusQuery, echoId)},
        {"messages to the host", Packet(ModuleId::kMsgServer, kFlooderModule, kPlain, text)},
        {"broadcasts", Packet(ModuleId::kBroadcast, kFlooderModule, kPlain, text)},
        {"empty frames", Frame("")}};
    return kinds;
}

Compare::Descriptor ConnectRaw() {
    const std::string space = std::getenv("VEYRASVC_PIPE_NAMESPACE"); // NOLINT(concurrency-mt-unsafe): one thread
    const std::string name = '\0' + ("veyrasvc/" + space + "/iveyraservice");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    Compare::Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    if (connect(made.Get(), reinterpret_cast<const sockaddr*>(&address), size) != 0) {
        Compare::FailWithErrno("connecting to the host");
    }
    fcntl(made.Get(), F_SETFL, O_NONBLOCK);
    return made;
}

// Writes as fast as the host reads, and reads what comes back.
void Flood(const std::string& frame, double seconds, Tally& tally) {
    constexpr int kTogether = 64;
    std::string batch;
    for (int i = 0; i < kTogether; ++i) {
        batch += frame;
    }
    const Compare::Descriptor host = ConnectRaw();
    std::string unwritten = Packet(ModuleId::kMsgServer, static_cast<std::uint32_t>(getpid()),
                                   ControlMessage::kRegistration, std::to_string(kFlooderModule) + ' ');
    std::array<char, 65536> scrap{};
    for (const double end = Now() + seconds; Now() < end;) {
        pollfd either{host.Get(), POLLIN | POLLOUT, 0};
        poll(&either, 1, 10);
        if ((either.revents & POLLIN) != 0 && read(host.Get(), scrap.data(), scrap.size()) == 0) {
            throw std::runtime_error("the host has closed the connection");
        }
        if ((either.revents & POLLOUT) != 0) {
            const ssize_t taken = send(host.Get(), unwritten.data(), unwritten.size(), MSG_NOSIGNAL);
            unwritten.erase(0, taken > 0 ? static_cast<std::size_t>(taken) : 0);
        }
        if (unwritten.empty()) {
            unwritten = batch;
            tally.Add("frames", kTogether);
        }
    }
}

class Bursts : public Scenario {
public:
    explicit Bursts(Stage& stage) : Scenario("bursts", stage) {}

    void Lap() override {
        for (std::size_t kind = 0; kind < Kinds().size(); ++kind) {
            const Holdings before = HoldingsOf(MainBus().Host());
            Burst(kind);
            AwaitCalm(Kinds()[kind].name, before);
        }
    }

private:
    void Burst(std::size_t kind) {
        const auto flooder = MainBus().Join("flooder");
        const auto amid = MainBus().Join("newcomer", Settings().Set("module", kFlooderModule + 1));
        const auto after = MainBus().Join("newcomer", Settings().Set("module", kFlooderModule + 2));
        flooder->Begin("flood", Settings().Set("kind", static_cast<double>(kind)));
        std::this_thread::sleep_for(std::chrono::duration<double>(kBurstSeconds / 2));
        amid->Begin("join");
        Add(flooder->AwaitResult());
        after->Begin("join");
        for (Member* newcomer : {amid.get(), after.get()}) {
            const double seconds = newcomer->AwaitResult().Number("seconds");
            Add("most-newcomer-ms", seconds * 1000);
            if (seconds > kServedSeconds) {
                AddFault("%s: a newcomer %s the burst waited %.1f s", Kinds()[kind].name,
                         newcomer == amid.get() ? "amid" : "after", seconds);
            }
        }
    }

    void AwaitCalm(const char* kind, const Holdings& before) const {
        Holdings now;
        const bool calm = AwaitThat(kGivenBackSeconds, [&] {
            now = HoldingsOf(MainBus().Host());
            Add("most-host-MiB", now.memoryMiB);
            Add("most-host-threads", now.threads);
            return now.IsWithin(before, kKept);
        });
        if (!calm) {
            AddFault("%s: %.0f s later the host holds %s, before it was %s", kind, kGivenBackSeconds,
                     now.Text().c_str(), before.Text().c_str());
        }
    }
};

} // namespace

void PlayFlooder(const Settings& /*settings*/) {
    Tally tally;
    Obey(tally, {{"flood", [&](const Settings& order) {
                      Flood(Kinds().at(order.Get<std::size_t>("kind")).frame, kBurstSeconds, tally);
                  }}});
}

// Joins the bus, is known there and gets an answer.
void PlayNewcomer(const Settings& settings) {
    Tally tally;
    const auto join = [&](const Settings& /*order*/) {
        const double begin = Now();
        const int module = settings.Get<int>("module");
        IPCMessageClient client(module, false, false);
        Support::StatusQuery(client).Await(static_cast<std::uint32_t>(module), std::chrono::seconds(10));
        tally.Add("unanswered", AskEcho(client, 1, 64) ? 0 : 1);
        tally.Add("seconds", Now() - begin);
    };
    Obey(tally, {{"join", join}});
}

std::unique_ptr<Scenario> MakeBursts(Stage& stage) {
    return std::make_unique<Bursts>(stage);
}

} // namespace Vantor::Sentrix::Soak
