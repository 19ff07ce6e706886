// This project's bus: the host is a `veyra serve` with a name of its own, which the roles inherit by the environment.
// The client is in VeyrasvcClient.cpp.
#include "bench/compare/Bus.h"
#include "bench/compare/Processes.h"
#include "tools/support/Utf8.h"
#include "veyrasvc/platform/Win32.h"

#include <unistd.h>

namespace Vantor::Sentrix::Compare {

namespace {

class VeyraServe : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        static int number = 0;
        m_name = "compare-" + std::to_string(getpid()) + '-' + std::to_string(++number);
        SetEnvironmentVariableW(L"VEYRASVC_PIPE_NAMESPACE", Support::WideFromUtf8(m_name).c_str());
        const std::string log = folder + "/broker.log";
        m_process = StartProcess({{ProgramBeside("veyra"), "serve"}, log});
        AwaitBroker(m_process, "the bus " + m_name,
                    [&] { return ReadTextFile(log).find("veyra: serving") != std::string::npos; });
    }
    std::string Address() const override { return m_name; }

private:
    std::string m_name;
};

Backend Make() {
    Backend backend;
    backend.name = "veyrasvc";
    backend.kind = Kind::Own;
    backend.program = ProgramBeside("veyra");
    backend.note = "callbacks on pool threads, watched so that a slow one holds up nobody; any thread may "
                   "send, and connections renew themselves; CRC-32 of every header and payload; native request";
    backend.makeBroker = [] { return std::make_unique<VeyraServe>(); };
    backend.roleProgram = ProgramBeside("veyra-compare-veyrasvc");
    backend.connectionPerProcess = true;
    return backend;
}

const Registration kRegistration({Make()});

} // namespace

} // namespace Vantor::Sentrix::Compare
