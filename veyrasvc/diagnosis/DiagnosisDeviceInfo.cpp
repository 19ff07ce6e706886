#include "veyrasvc/diagnosis/DiagnosisDeviceInfo.h"

#include "veyrasvc/diagnosis/JsonText.h"
#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

DiagnosisDeviceInfo::DiagnosisDeviceInfo() = default;

DiagnosisDeviceInfo::DiagnosisDeviceInfo(const std::string& deviceType, int operationType)
    : m_deviceType(deviceType), m_operationType(operationType) {}

DiagnosisDeviceInfo::DiagnosisDeviceInfo(const DiagnosisDeviceInfo& other) = default;
DiagnosisDeviceInfo& DiagnosisDeviceInfo::operator=(const DiagnosisDeviceInfo& other) = default;
DiagnosisDeviceInfo::~DiagnosisDeviceInfo() = default;

void DiagnosisDeviceInfo::SetRemoteDeviceInfo(const std::string& deviceId, const std::string& packageName,
                                              const std::string& authTag, int trelixVersion) {
    m_deviceId = deviceId;
    m_packageName = packageName;
    m_authTag = authTag;
    m_trelixVersion = trelixVersion;
}

bool DiagnosisDeviceInfo::FromJsonStr(const std::string& jsonStr) {
    const std::optional<Json::Value> read = ReadRecord(jsonStr, SENTRIX_HERE);
    if (!read) {
        return false;
    }
    const Json::Value& root = *read;
    m_deviceType = root["DeviceType"].asString();
    m_operationType = root["OperationType"].asInt();
    m_deviceId = root["DeviceId"].asString();
    m_packageName = root["PackageName"].asString();
    m_authTag = root["AuthTag"].asString();
    m_trelixVersion = root["TrelixVersion"].asInt();
    return true;
}

std::string DiagnosisDeviceInfo::ToJsonStr() const {
    Json::Value root;
    root["DeviceType"] = m_deviceType;
    root["OperationType"] = m_operationType;
    root["DeviceId"] = m_deviceId;
    root["PackageName"] = m_packageName;
    root["AuthTag"] = m_authTag;
    root["TrelixVersion"] = m_trelixVersion;
    std::string text = WriteJsonLine(root);
    if (text.empty()) {
        LOG_WARN("empty jsonStr.");
    }
    return text;
}

} // namespace Vantor::Sentrix
