#include "veyrasvc/bus/PacketLog.h"

#include "veyrasvc/bus/ModuleId.h"
#include "veyrasvc/util/LockedContainers.h"
#include "veyrasvc/util/LogStatement.h"

#include <new>

namespace Vantor::Sentrix {

namespace {

// Display names; shared by the whole process and never destroyed, because the worker may log while the process exits.
LockMap<int, std::string>& Names() {
    static auto* const table = new LockMap<int, std::string>;
    return *table;
}

std::string NameOf(unsigned long moduleId) {
    auto& table = Names();
    const AutoLock lock(&table);
    const auto found = table.m_items.find(static_cast<int>(moduleId));
    return found == table.m_items.end() ? "UnKnow" : found->second;
}

} // namespace

void NameReservedModules() {
    auto& table = Names();
    const AutoLock lock(&table);
    table.m_items[ModuleId::kBroadcast] = "BROADCAST";
    table.m_items[ModuleId::kMsgServer] = "MSGSERVER";
    table.m_items[ModuleId::kMainFrame] = "MAINFRAME";
    table.m_items[ModuleId::kMainService] = "MAINSERVICE";
    table.m_items[ModuleId::kMsgCenter] = "MSGCENTER";
}

void WritePacketLog(const std::string& title, unsigned long packetIndex, unsigned long from, unsigned long to,
                    unsigned long msg) {
    LOG_DEBUG("title=" << title << ", PacketIndex=" << packetIndex << ", From=[" << NameOf(from) << ":" << from
                       << "], To=[" << NameOf(to) << ":" << to << "], Msg=" << msg << "(+" << (msg & 0xFFFF) << ")");
}

void LogPacket(const char* title, std::uint32_t packetIndex, std::uint32_t from, std::uint32_t to, std::uint32_t msg) {
    if (!IsLogEnabled(LogLevel::Debug)) {
        return;
    }
    try {
        WritePacketLog(title, packetIndex, from, to, msg);
    } catch (const std::bad_alloc&) { // NOLINT(bugprone-empty-catch): a line is lost, and no more
    }
}

} // namespace Vantor::Sentrix
