// The router's log of packets: one line at DEBUG for each that it reads or sends.
#pragma once

#include <cstdint>
#include <string>

namespace Vantor::Sentrix {

// Makes the names of the reserved modules known, once more or for the first time. Fails: std::bad_alloc.
void NameReservedModules();

// Logs one packet at DEBUG, with the display names of the two modules.
// Threads: any.
void WritePacketLog(const std::string& title, unsigned long packetIndex, unsigned long from, unsigned long to,
                    unsigned long msg);

// The same. While DEBUG is disabled not even the title becomes a string. Never fails.
void LogPacket(const char* title, std::uint32_t packetIndex, std::uint32_t from, std::uint32_t to, std::uint32_t msg);

} // namespace Vantor::Sentrix
