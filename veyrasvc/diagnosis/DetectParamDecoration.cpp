#include "veyrasvc/diagnosis/DetectParamDecoration.h"

#include "veyrasvc/diagnosis/JsonText.h"
#include "veyrasvc/util/LogStatement.h"

namespace Vantor::Sentrix {

DetectParamDecoration::DetectParamDecoration() = default;

DetectParamDecoration::DetectParamDecoration(int operationScene, std::list<std::string> operationItems,
                                             std::shared_ptr<DiagnosisDeviceInfo> deviceInfo)
    : m_operationScene(operationScene), m_operationItems(std::move(operationItems)),
      m_deviceInfo(std::move(deviceInfo)) {}

DetectParamDecoration::DetectParamDecoration(const DetectParamDecoration& other) = default;
DetectParamDecoration& DetectParamDecoration::operator=(const DetectParamDecoration& other) = default;
DetectParamDecoration::~DetectParamDecoration() = default;

bool DetectParamDecoration::FromJsonStr(const std::string& jsonStr) {
    const std::optional<Json::Value> read = ReadRecord(jsonStr, SENTRIX_HERE);
    if (!read) {
        return false;
    }
    const Json::Value& root = *read;
    const std::string deviceText = WriteJsonLine(root["DeviceInfo"]);
    if (deviceText.empty()) {
        LOG_WARN("empty jsonStr.");
        return false;
    }
    const auto deviceInfo = std::make_shared<DiagnosisDeviceInfo>();
    deviceInfo->FromJsonStr(deviceText); // it keeps its defaults when there is none
    m_deviceInfo = deviceInfo;
    m_operationScene = root["OperationScene"].asInt();
    const Json::Value& items = root["OperationItems"];
    const Json::ArrayIndex count = items.size();
    m_operationItems.clear();
    for (Json::ArrayIndex i = 0; i < count; ++i) {
        m_operationItems.push_back(items[i].asString());
    }
    return true;
}

std::string DetectParamDecoration::ToJsonStr() const {
    const std::string deviceText = m_deviceInfo ? m_deviceInfo->ToJsonStr() : "null";
    const ParsedJson device = ParseJson(deviceText);
    if (!device.valid) {
        LOG_ERROR("jsonStr[" << deviceText << "] err. " << device.errors);
        return {};
    }
    if (device.root.isNull()) {
        LOG_WARN("Null Device JsonValue.");
        return {};
    }
    Json::Value root;
    root["DeviceInfo"] = device.root;
    root["OperationScene"] = m_operationScene;
    for (const std::string& item : m_operationItems) {
        root["OperationItems"].append(item);
    }
    std::string text = WriteJsonLine(root);
    if (text.empty()) {
        LOG_WARN("empty jsonStr.");
    }
    return text;
}

} // namespace Vantor::Sentrix
