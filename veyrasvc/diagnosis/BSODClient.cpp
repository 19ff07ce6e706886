#include "veyrasvc/diagnosis/BSODClient.h"

#include "veyrasvc/diagnosis/ServiceRequest.h"
#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

namespace {

constexpr std::int32_t kService = 0x830000;
constexpr ServiceRequest kGetBsodHistory{kService, 0x82000c, 0x82000c};
constexpr ServiceRequest kStartBsodAnalysis{kService, 0x82000d, 0x82000e};
constexpr ServiceRequest kCancelAnalysis{kService, 0x82000f, 0x82000f};

} // namespace

BSODClient::BSODClient(int moduleId) : m_client(moduleId, true, false) {
    m_client.RegisterMessageCallback(kStartBsodAnalysis.answerId,
                                     [this](TagIPCMessageItem& item) { OnRecvBsodAnalysis(item); });
}

BSODClient::~BSODClient() {
    EndHooks();
}

void BSODClient::EndHooks() {
    m_client.EndCallbacks();
}

void BSODClient::OnRecvBsodAnalysis(TagIPCMessageItem& /*item*/) {}

void BSODClient::GetBsodHistory(std::list<std::string>& dumps, double& status) {
    LOG_DEBUG("GetBsodHistory enter.");
    const auto answer = Ask(m_client, kGetBsodHistory, "", "GetBsodHistory result: ", SENTRIX_HERE);
    const std::optional<Json::Value> root = answer ? ReadJson(*answer, SENTRIX_HERE) : std::nullopt;
    if (!root) {
        return;
    }
    const Json::Value& history = *root;
    status = history["result_status"].asDouble();
    const Json::Value& entries = history["minidump"];
    for (Json::ArrayIndex i = 0; i < entries.size(); ++i) {
        dumps.push_back(entries[i].asString());
    }
}

int BSODClient::StartBsodAnalysis() {
    LOG_DEBUG("StartBsodAnalysis enter.");
    if (!PostRequest(m_client, kStartBsodAnalysis, "")) {
        LOG_ERROR("PostIPCMessage fail.");
        return -1;
    }
    return 0;
}

int BSODClient::CancelAnalysis() {
    LOG_DEBUG("CancelAnalysis enter.");
    const auto answer = Ask(m_client, kCancelAnalysis, "", "CancelAnalysis result:", SENTRIX_HERE);
    return answer ? ResultOf(*answer) : -1;
}

} // namespace Vantor::Sentrix
