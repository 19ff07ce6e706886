// The ids that the bus reserves. Every other 32-bit id is free for modules and messages.
#pragma once

#include <cstdint>

namespace Vantor::Sentrix {

// Well-known modules. A module is addressed by its id wherever its process runs.
namespace ModuleId {
inline constexpr std::uint32_t kBroadcast = 0; // as a destination: every module
inline constexpr std::uint32_t kMsgServer = 0x10000;
inline constexpr std::uint32_t kMainFrame = 0x20000;
inline constexpr std::uint32_t kMainService = 0x30000;
inline constexpr std::uint32_t kMsgCenter = 0x40000;
} // namespace ModuleId

// Messages between the bus and its modules.
namespace ControlMessage {
inline constexpr std::uint32_t kRegistration = 0x10001;  // engine to router: the module ids of a process
inline constexpr std::uint32_t kModuleOffline = 0x10005; // router to modules; body: the id, 4 bytes, little-endian
inline constexpr std::uint32_t kModuleOnline = 0x10006;  // the same
inline constexpr std::uint32_t kStatusQuery = 0x10008;   // module to router; body as above, answered by one of the two
} // namespace ControlMessage

namespace MessageType {
inline constexpr std::uint32_t kPublished = 0x10004; // goes to every process; subscriptions decide who sees it
}

} // namespace Vantor::Sentrix
