// Churn: clients come, register, send, ask and go, and some are killed at any moment. Those that live are answered.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr double kLifeSeconds = 3 * kPatienceSeconds; // of a visitor, at most

struct Visitor {
    pid_t process;
    double dies;   // when it is killed
    bool isVictim; // it is killed whatever it does, else only when it does not end
};

class Churn : public Scenario {
public:
    explicit Churn(Stage& stage) : Scenario("churn", stage) {}

    void Lap() override {
        constexpr std::size_t kTogether = 6;
        std::vector<Visitor> visitors;
        for (const double end = Now() + 6; Now() < end || !visitors.empty();) {
            while (visitors.size() < kTogether && Now() < end) {
                visitors.push_back(Start());
            }
            std::erase_if(visitors, [&](const Visitor& visitor) { return HasGone(visitor); });
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

private:
    Visitor Start() {
        const int module = kFirstVisitorModule + 2 * m_visitors++;
        const pid_t process = MainBus().Start("visitor", Settings().Set("module", module).Set("stops", Random(0, 1)));
        const bool isVictim = Random(0, 2) == 0;
        return {process, Now() + (isVictim ? Random(0, 60) / 1000.0 : kLifeSeconds), isVictim};
    }

    bool HasGone(const Visitor& visitor) const {
        int status = 0;
        if (waitpid(visitor.process, &status, WNOHANG) != visitor.process) {
            if (Now() > visitor.dies) {
                kill(visitor.process, SIGKILL);
            }
            return false;
        }
        const bool wasKilled = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        Add("visitors", 1);
        Add("killed", wasKilled ? 1 : 0);
        if (wasKilled ? !visitor.isVictim : status != 0) {
            AddFault("a visitor %s", wasKilled ? "did not end" : WIFEXITED(status) ? "was not answered" : "crashed");
        }
        return true;
    }

    int m_visitors = 0;
};

} // namespace

void PlayVisitor(const Settings& settings) {
    const int module = settings.Get<int>("module");
    IPCMessageClient client(module, false, false);
    const IPCMessageClient other(module + 1, false, false);
    client.SubscribeIPCMessage(kPublisherModule, 0);
    client.RegisterPublishMessageCallback([](TagIPCMessageItem&) {});
    for (std::uint32_t i = 0; i < 5; ++i) {
        const std::string body = Body(i, 20'000 * i);
        TagIPCMessageItem news = Item(0, kPlain, i, body);
        other.PublishIPCMessage(news);
        other.PostIPCMessage(Item(kEchoModule, kPlain, i, body));
        if (!AskEcho(client, i, body.size())) {
            throw std::runtime_error("an answer was missing or wrong");
        }
    }
    if (settings.Get<int>("stops") != 0) {
        StopIPCClient();
    }
}

std::unique_ptr<Scenario> MakeChurn(Stage& stage) {
    return std::make_unique<Churn>(stage);
}

} // namespace Vantor::Sentrix::Soak
