// D-Bus by sd-bus: the client, which both brokers share, and what they need to speak with it.
// An id is the well-known name bench.mID; a post is a method call without a reply, a request a method call, a
// publication a signal with a match.
#pragma once

#include "bench/compare/Bus.h"

#include <systemd/sd-bus.h>

namespace Vantor::Sentrix::Compare {

// Gives `result`. Throws std::system_error when it is one of sd-bus's negative error numbers.
int CheckDbus(int result, const char* what);

struct DbusMessageRelease {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using DbusMessage = std::unique_ptr<sd_bus_message, DbusMessageRelease>;

struct DbusRelease {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using DbusConnection = std::unique_ptr<sd_bus, DbusRelease>;

DbusConnection NewDbusConnection();

// Address: as D-Bus writes it, unix:path=...
std::unique_ptr<Client> MakeDbusClient(const std::string& address);

} // namespace Vantor::Sentrix::Compare
