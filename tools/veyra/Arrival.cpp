#include "tools/veyra/Arrival.h"

#include "tools/veyra/Ids.h"
#include "tools/veyra/Text.h"
#include "veyrasvc/bus/ModuleId.h"

#include <string_view>

namespace Vantor::Sentrix::Tool {

namespace {

std::string_view BodyOf(const TagIPCMessageItem& item) {
    return item.data == nullptr ? std::string_view()
                                : std::string_view(item.data, static_cast<std::size_t>(item.dataLen));
}

// A notice about a module that was subscribed to: it comes in that module's name and carries its id. The notices are
// the server's, so a module's own publication with one of their ids is not mistaken unless it repeats the body too.
bool IsPresence(ArrivalKind kind, const TagIPCMessageItem& item) {
    const auto msgId = static_cast<std::uint32_t>(item.msgId);
    if (kind != ArrivalKind::Publication ||
        (msgId != ControlMessage::kModuleOnline && msgId != ControlMessage::kModuleOffline) || item.dataLen != 4) {
        return false;
    }
    auto from = static_cast<std::uint32_t>(item.fromModuleId);
    for (const char byte : BodyOf(item)) {
        if (static_cast<unsigned char>(byte) != (from & 0xFF)) {
            return false;
        }
        from >>= 8;
    }
    return true;
}

bool IsOnline(const TagIPCMessageItem& item) {
    return static_cast<std::uint32_t>(item.msgId) == ControlMessage::kModuleOnline;
}

std::string Number(std::int32_t id) {
    return std::to_string(static_cast<std::uint32_t>(id));
}

std::string NumberOrNull(std::int32_t id) {
    return id == -1 ? "null" : Number(id);
}

std::string JsonBody(std::string_view body, const std::string& file) {
    if (!file.empty()) {
        return R"("file":)" + (IsUtf8(file) ? JsonString(file) : "null");
    }
    return IsUtf8(body) ? R"("body":)" + JsonString(body) : R"("bodyBase64":")" + Base64(body) + '"';
}

} // namespace

std::string DescribeArrival(ArrivalKind kind, const TagIPCMessageItem& item, const std::string& file) {
    if (IsPresence(kind, item)) {
        return "presence: module " + HexId(item.fromModuleId) + (IsOnline(item) ? " is online\n" : " is offline\n");
    }
    std::string line = kind == ArrivalKind::Message ? "message" : "publication";
    line += " from " + HexId(item.fromModuleId) + ", id " + HexId(item.msgId);
    if (item.replyMsgId != -1) {
        line += ", reply id " + HexId(item.replyMsgId);
    }
    line += ", " + std::to_string(item.dataLen) + " bytes";
    return line + (file.empty() ? ": " + Quoted(BodyOf(item)) : " in " + file) + '\n';
}

std::string DescribeArrivalAsJson(ArrivalKind kind, const TagIPCMessageItem& item, const std::string& file) {
    if (IsPresence(kind, item)) {
        return R"({"kind":"presence","module":)" + Number(item.fromModuleId) + R"(,"online":)" +
               (IsOnline(item) ? "true}\n" : "false}\n");
    }
    std::string line =
        kind == ArrivalKind::Message ? R"({"kind":"message","from":)" : R"({"kind":"publication","from":)";
    line += Number(item.fromModuleId) + R"(,"to":)" + NumberOrNull(item.toModuleId);
    line += R"(,"msg":)" + Number(item.msgId) + R"(,"replyMsg":)" + NumberOrNull(item.replyMsgId);
    line += R"(,"uniq":)" + Number(item.uniqMsgId) + R"(,"size":)" + std::to_string(item.dataLen);
    return line + ',' + JsonBody(BodyOf(item), file) + "}\n";
}

} // namespace Vantor::Sentrix::Tool
