// dbus-daemon and dbus-broker, their quotas raised.
//
// dbus-broker only mediates: a controller hands it the listening socket and a policy over a D-Bus connection of their
// own. Its usual launcher insists on a journal; so this program is the controller.
#include "bench/compare/Dbus.h"
#include "bench/compare/Processes.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-id128.h>

#include <cstdint>

namespace Vantor::Sentrix::Compare {

namespace {

class DbusDaemon : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_path = folder + "/dbus.socket";
        const std::string configuration = folder + "/bus.conf";
        WriteTextFile(configuration, Configuration());
        m_process =
            StartProcess({{"dbus-daemon", "--config-file=" + configuration, "--nofork", "--nopidfile", "--nosyslog"},
                          folder + "/broker.log"});
        AwaitUnix(m_path, m_process);
    }
    std::string Address() const override { return "unix:path=" + m_path; }

private:
    std::string Configuration() const {
        return "<busconfig><listen>unix:path=" + m_path + R"(</listen><auth>EXTERNAL</auth>
            <policy context="default">
              <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
            </policy>
            <limit name="max_incoming_bytes">1000000000</limit>
            <limit name="max_outgoing_bytes">1000000000</limit>
            <limit name="max_message_size">1000000000</limit>
            <limit name="max_completed_connections">100000</limit>
            <limit name="max_connections_per_user">100000</limit>
            <limit name="max_replies_per_connection">50000</limit>
            </busconfig>)";
    }

    std::string m_path;
};

// The policy that AddListener wants, "may everybody do everything: yes". Its levels: the variant; one batch for the
// users, none for groups, no security contexts, no Apparmor; of the batch: may connect, own names, send, receive.
void AppendPolicy(sd_bus_message* message) {
    static const std::string kBatch = "bta(btbs)a(btssssuutt)a(btssssuutt)";
    static const std::string kUser = "(u(" + kBatch + "))";
    static const std::string kGroup = "(buu(" + kBatch + "))";
    static const std::string kPolicy = "a" + kUser + "a" + kGroup + "a(ss)bs";
    constexpr std::uint64_t kPriority = 1;
    constexpr std::uint64_t kNoFileLimit = UINT64_MAX;
    const auto open = [message](char type, const std::string& contents) {
        CheckDbus(sd_bus_message_open_container(message, type, contents.c_str()), "policy, open");
    };
    const auto append = [message](const std::string& types, auto... values) {
        CheckDbus(sd_bus_message_append(message, types.c_str(), values...), "policy, append");
    };
    const auto close = [message](int levels) {
        for (; levels > 0; --levels) {
            CheckDbus(sd_bus_message_close_container(message), "policy, close");
        }
    };
    open('v', '(' + kPolicy + ')');
    open('r', kPolicy);
    open('a', kUser);
    open('r', "u(" + kBatch + ')');
    append("u", UINT32_MAX); // users that nothing else is said about
    open('r', kBatch);
    append("bt", 1, kPriority);
    append("a(btbs)", 1, 1, kPriority, 1, ""); // names that begin with nothing
    for (int direction = 0; direction < 2; ++direction) {
        append("a(btssssuutt)", 1, 1, kPriority, "", "", "", "", 0U, 0U, std::uint64_t{0}, kNoFileLimit);
    }
    close(3);
    append("a" + kGroup, 0);
    append("a(ss)", 0);
    append("bs", 0, "session");
    close(2);
}

class DbusBroker : public ProcessBroker {
public:
    void Start(const std::string& folder) override {
        m_path = folder + "/dbus.socket";
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) {
            FailWithErrno("socketpair");
        }
        Descriptor ours(ends[0]);
        const Descriptor theirs(ends[1]);
        fcntl(theirs.Get(), F_SETFD, 0); // the one that the broker inherits
        m_process = StartProcess(
            {{"dbus-broker", "--controller", std::to_string(theirs.Get()), "--machine-id", MachineId(), "--max-bytes",
              "1000000000", "--max-fds", "100000", "--max-matches", "100000", "--max-objects", "1000000"},
             folder + "/broker.log"});
        m_controller = NewDbusConnection();
        CheckDbus(sd_bus_set_fd(m_controller.get(), ours.Get(), ours.Get()), "set_fd");
        static_cast<void>(ours.Release());
        CheckDbus(sd_bus_start(m_controller.get()), "starting the controller");
        AddListener();
        AwaitUnix(m_path, m_process);
    }
    std::string Address() const override { return "unix:path=" + m_path; }

private:
    static std::string MachineId() {
        sd_id128_t id{};
        if (sd_id128_get_machine(&id) < 0) {
            CheckDbus(sd_id128_randomize(&id), "randomize");
        }
        char text[SD_ID128_STRING_MAX];
        return sd_id128_to_string(id, text);
    }

    void AddListener() const {
        const Descriptor listener = ListenUnix(m_path);
        fcntl(listener.Get(), F_SETFL, O_NONBLOCK); // the broker refuses one that blocks
        sd_bus_message* made = nullptr;
        CheckDbus(sd_bus_message_new_method_call(m_controller.get(), &made, nullptr, "/org/bus1/DBus/Broker",
                                                 "org.bus1.DBus.Broker", "AddListener"),
                  "new_method_call");
        const DbusMessage call(made);
        CheckDbus(sd_bus_message_append(call.get(), "oh", "/org/bus1/DBus/Listener/0", listener.Get()), "append");
        AppendPolicy(call.get());
        constexpr std::uint64_t kPatienceUs = 5'000'000;
        sd_bus_message* answer = nullptr;
        CheckDbus(sd_bus_call(m_controller.get(), call.get(), kPatienceUs, nullptr, &answer), "AddListener");
        sd_bus_message_unref(answer);
    }

    std::string m_path;
    DbusConnection m_controller; // lives as long as the broker should
};

template <class BrokerType> Backend Make(const char* name, const char* note) {
    Backend backend;
    backend.name = backend.program = name;
    backend.note = note;
    backend.makeBroker = [] { return std::make_unique<BrokerType>(); };
    backend.makeClient = MakeDbusClient;
    return backend;
}

const Registration
    kRegistration({Make<DbusDaemon>("dbus-daemon", "sd-bus, one write a message; native method calls and signals"),
                   Make<DbusBroker>("dbus-broker", "sd-bus, one write a message; native method calls and signals")});

} // namespace

} // namespace Vantor::Sentrix::Compare
