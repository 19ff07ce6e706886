#include "veyrasvc/diagnosis/DFSClient.h"

#include "veyrasvc/diagnosis/DetectParamDecoration.h"
#include "veyrasvc/diagnosis/JsonText.h"
#include "veyrasvc/diagnosis/ServiceRequest.h"
#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

namespace {

constexpr std::int32_t kService = 0x820000;
constexpr ServiceRequest kGetSdkVersion{kService, 0x820001, 0x820001};
constexpr ServiceRequest kGetDetectCapability{kService, 0x820002, 0x820002};
constexpr ServiceRequest kGetRepairCapability{kService, 0x820003, 0x820003};
constexpr ServiceRequest kStartDetection{kService, 0x820004, 0x820005};
constexpr ServiceRequest kCancelDetection{kService, 0x820006, 0x820006};
constexpr ServiceRequest kStartRepair{kService, 0x820007, 0x820008};
constexpr ServiceRequest kCancelRepair{kService, 0x820009, 0x820009};
constexpr std::int32_t kStartNotify = 0x82000a;
constexpr ServiceRequest kCancelNotify{kService, 0x82000b, 0x82000b};
constexpr ServiceRequest kGetFaultInfobyId{kService, 0x820010, 0x820010};

std::list<std::string> Strings(const Json::Value& array) {
    std::list<std::string> strings;
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        strings.push_back(array[i].asString());
    }
    return strings;
}

std::string StartBody(const std::list<std::string>& items, int scene, std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    return DetectParamDecoration(scene, items, std::move(deviceInfo)).ToJsonStr();
}

} // namespace

DFSClient::DFSClient(int moduleId) : m_client(moduleId, true, false) {
    m_client.RegisterMessageCallback(kStartDetection.answerId,
                                     [this](TagIPCMessageItem& item) { OnRecvStartDetection(item); });
    m_client.RegisterMessageCallback(kStartRepair.answerId,
                                     [this](TagIPCMessageItem& item) { OnRecvStartRepair(item); });
    m_client.RegisterMessageCallback(kStartNotify, [this](TagIPCMessageItem& item) { OnRecvStartNotify(item); });
}

DFSClient::~DFSClient() {
    EndHooks();
}

void DFSClient::EndHooks() {
    m_client.EndCallbacks();
}

void DFSClient::OnRecvStartDetection(TagIPCMessageItem& /*item*/) {}
void DFSClient::OnRecvStartRepair(TagIPCMessageItem& /*item*/) {}
void DFSClient::OnRecvStartNotify(TagIPCMessageItem& /*item*/) {}

// ---- Queries -------------------------------------------------------------------------------------------------------

std::string DFSClient::GetSdkVersion() {
    LOG_DEBUG("GetSdkVersion enter.");
    return Ask(m_client, kGetSdkVersion, "", "GetSdkVersion result:", SENTRIX_HERE).value_or("");
}

std::list<std::string> DFSClient::GetDetectCapability(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("GetDetectCapability enter.");
    const auto answer =
        Ask(m_client, kGetDetectCapability, deviceInfo->ToJsonStr(), "GetDetectCapability result:", SENTRIX_HERE);
    const std::optional<Json::Value> root = answer ? ReadJson(*answer, SENTRIX_HERE) : std::nullopt;
    return root ? Strings((*root)["DetectCapability"]) : std::list<std::string>();
}

std::list<std::string> DFSClient::GetRepairCapability(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("GetRepairCapability enter.");
    const auto answer =
        Ask(m_client, kGetRepairCapability, deviceInfo->ToJsonStr(), "GetRepairCapability result:", SENTRIX_HERE);
    const std::optional<Json::Value> root = answer ? ReadJson(*answer, SENTRIX_HERE) : std::nullopt;
    return root ? Strings((*root)["RepairCapability"]) : std::list<std::string>();
}

std::string DFSClient::GetFaultInfobyId(int eventId, long long startTime, long long endTime,
                                        const std::string& eventType, const std::string& eventProvider) {
    LOG_DEBUG("GetFaultInfobyId enter.");
    Json::Value query;
    query["EventId"] = eventId;
    query["StartTime"] = Json::Int64{startTime};
    query["EndTime"] = Json::Int64{endTime};
    query["EventType"] = eventType;
    query["EventProvider"] = eventProvider;
    const std::string text = WriteJsonLine(query);
    if (text.empty()) {
        LOG_WARN("empty jsonStr.");
    }
    return Ask(m_client, kGetFaultInfobyId, text, "GetFaultInfobyId result:", SENTRIX_HERE).value_or("");
}

// ---- Starts and cancellations --------------------------------------------------------------------------------------

int DFSClient::StartDetection(const std::list<std::string>& operationItems, int operationScene,
                              std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("StartDetection enter.");
    if (!PostRequest(m_client, kStartDetection, StartBody(operationItems, operationScene, std::move(deviceInfo)))) {
        LOG_ERROR("PostIPCMessage fail.");
        return -1;
    }
    return 0;
}

int DFSClient::CancelDetection(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("CancelDetection enter.");
    const auto answer =
        Ask(m_client, kCancelDetection, deviceInfo->ToJsonStr(), "CancelDetection result:", SENTRIX_HERE);
    return answer ? ResultOf(*answer) : -1;
}

int DFSClient::StartRepair(const std::list<std::string>& operationItems, int operationScene,
                           std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("StartRepair enter.");
    const std::string body = StartBody(operationItems, operationScene, std::move(deviceInfo));
    return PostRequest(m_client, kStartRepair, body) ? 0 : -1;
}

int DFSClient::CancelRepair(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) {
    LOG_DEBUG("CancelRepair enter.");
    const auto answer = Ask(m_client, kCancelRepair, deviceInfo->ToJsonStr(), "CancelRepair result:", SENTRIX_HERE);
    return answer ? ResultOf(*answer) : -1;
}

int DFSClient::CancelNotify(const std::string& text) {
    LOG_DEBUG("CancelNotify enter.");
    return PostRequest(m_client, kCancelNotify, text) ? 0 : -1;
}

} // namespace Vantor::Sentrix
