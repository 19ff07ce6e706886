// Processes that take all the processor time they can get, as a machine has that does other work.
// Lifetime: they end with the object, and with the thread that made it.
#pragma once

#include <sys/types.h>

#include <vector>

namespace Vantor::Sentrix::Compare {

class BusyLoops {
public:
    explicit BusyLoops(int count);
    ~BusyLoops();
    BusyLoops(const BusyLoops&) = delete;
    BusyLoops& operator=(const BusyLoops&) = delete;

private:
    std::vector<pid_t> m_processes;
};

} // namespace Vantor::Sentrix::Compare
