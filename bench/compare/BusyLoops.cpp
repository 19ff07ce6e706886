#include "bench/compare/BusyLoops.h"

#include "bench/compare/Sockets.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace Vantor::Sentrix::Compare {

BusyLoops::BusyLoops(int count) {
    for (int i = 0; i < count; ++i) {
        const pid_t child = fork();
        if (child < 0) {
            FailWithErrno("fork");
        }
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (volatile unsigned int turns = 0;;) {
                turns = turns + 1;
            }
        }
        m_processes.push_back(child);
    }
}

BusyLoops::~BusyLoops() {
    for (const pid_t process : m_processes) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
}

} // namespace Vantor::Sentrix::Compare
