// Kills: the host of a bus of its own is killed again and again under requests with and without a limit, to a module
// that is there and to one that is not. Every request has an outcome soon after the host is back.
#include "campaigns/soak/Member.h"
#include "campaigns/soak/Scenario.h"

#include <chrono>
#include <thread>

namespace Vantor::Sentrix::Soak {

namespace {

constexpr int kAskers = 3;
constexpr double kOutcomeSeconds = 3;    // after the host's return, for a request without a limit
constexpr double kReconnectSeconds = 10; // until everybody is answered again

void Sleep(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

class Kills : public Scenario {
public:
    explicit Kills(Stage& stage) : Scenario("kills", stage) {
        Join(m_bus, "echo");
        for (int i = 0; i < kAskers; ++i) {
            m_askers.push_back(&Join(m_bus, "asker", Settings().Set("number", i)));
        }
    }

    void Lap() override {
        constexpr double kSeconds = 14;
        constexpr int kKillsBetweenLooks = 20;
        for (Member* asker : m_askers) {
            asker->Order("begin");
            asker->Order("start", Settings().Set("away", 1).Set("edits", 0));
        }
        AwaitAnswers();
        for (const double end = Now() + kSeconds; Now() < end;) {
            for (int i = 0; i < kKillsBetweenLooks; ++i) {
                Kill();
            }
            AwaitOutcomes();
            AwaitAnswers();
        }
        for (Member* asker : m_askers) {
            Add(asker->Order("stop"));
        }
    }

private:
    // Mostly it is back soon and for a short time; clients, which look for it once a second, meet it at any moment.
    void Kill() {
        m_bus.KillHost();
        Sleep(Random(0, 9) == 0 ? Random(100, 1200) : Random(0, 30));
        m_bus.StartHost();
        m_back = Now();
        Sleep(Random(0, 3) == 0 ? Random(200, 700) : Random(0, 200));
        Add("host-kills", 1);
    }

    void AwaitOutcomes() const {
        double pending = 0;
        const bool allHaveEnded = AwaitThat(m_back + kOutcomeSeconds - Now(), [&] {
            pending = 0;
            for (Member* asker : m_askers) {
                pending += asker->Order("pending", Settings().Set("before", m_back)).Number("pending");
            }
            return pending == 0;
        });
        Add("most-outcome-ms", 1000 * (Now() - m_back));
        if (!allHaveEnded) {
            AddFault("%.0f requests without a limit have no outcome %.0f s after the host's return", pending,
                     kOutcomeSeconds);
        }
    }

    void AwaitAnswers() const {
        for (Member* asker : m_askers) {
            const double before = asker->Figure("answered");
            if (!AwaitThat(kReconnectSeconds, [&] { return asker->Figure("answered") > before; })) {
                AddFault("an asker is not answered %.0f s after the host's return", kReconnectSeconds);
            }
        }
    }

    Bus m_bus{"soak-kills"};
    double m_back = 0; // when the host was back
    std::vector<Member*> m_askers;
};

} // namespace

std::unique_ptr<Scenario> MakeKills(Stage& stage) {
    return std::make_unique<Kills>(stage);
}

} // namespace Vantor::Sentrix::Soak
