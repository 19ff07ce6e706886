#include "veyrasvc/platform/posix/PutOff.h"

#include "veyrasvc/platform/posix/Pipe.h"
#include "veyrasvc/platform/posix/WorkPool.h"

#include <vector>

namespace Vantor::Sentrix::Platform {

namespace {

struct PutOff {
    ~PutOff() { Settle(); }
    void Settle() {
        WakeForDeferredWork();
        for (const auto& one : pipes) {
            if (const auto pipe = one.lock()) {
                pipe->SendGathered();
            }
        }
        pipes.clear();
    }
    std::vector<std::weak_ptr<Pipe>> pipes;
};

thread_local PutOff putOff;

} // namespace

void PutOffWrites(const std::shared_ptr<Pipe>& pipe) {
    if (putOff.pipes.empty() || putOff.pipes.back().owner_before(pipe) || pipe.owner_before(putOff.pipes.back())) {
        putOff.pipes.push_back(pipe);
    }
}

void BeforeBlocking() {
    putOff.Settle();
}

} // namespace Vantor::Sentrix::Platform
