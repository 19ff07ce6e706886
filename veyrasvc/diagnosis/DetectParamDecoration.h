// What a start of a detection or a repair carries: a device, a scene and the items to work on.
#pragma once

#include "veyrasvc/diagnosis/DiagnosisDeviceInfo.h"
#include "veyrasvc/platform/Export.h"

#include <list>
#include <memory>
#include <string>

namespace Vantor::Sentrix {

// As JSON: one object with DeviceInfo (an object), OperationScene (a number) and, unless there are none, OperationItems
// (an array of strings).
// Owns: the device info together with everybody who has the pointer; copies share it.
// Threads: none of its own; guard an object that one thread changes while others use it.
class VEYRASVC_API DetectParamDecoration {
public:
    DetectParamDecoration();
    DetectParamDecoration(int operationScene, std::list<std::string> operationItems,
                          std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);
    DetectParamDecoration(const DetectParamDecoration& other);
    DetectParamDecoration& operator=(const DetectParamDecoration& other);
    ~DetectParamDecoration();

    int GetOperationScene() const { return m_operationScene; }
    void SetOperationScene(int operationScene) { m_operationScene = operationScene; }
    std::list<std::string> GetOperationItems() const { return m_operationItems; }
    void SetOperationItems(std::list<std::string> operationItems) { m_operationItems = std::move(operationItems); }
    std::shared_ptr<DiagnosisDeviceInfo> GetDeviceInfo() const { return m_deviceInfo; }
    void SetDeviceInfo(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo) { m_deviceInfo = std::move(deviceInfo); }

    // Loads scene and items, and a new device info: the one before stays as it was for those who share it. A missing
    // device info gives one with default fields.
    // Fails: as DiagnosisDeviceInfo::FromJsonStr.
    bool FromJsonStr(const std::string& jsonStr);

    // One line of JSON.
    // Fails: empty, and one log line, when there is no device info.
    std::string ToJsonStr() const;

private:
    int m_operationScene = 0;
    std::list<std::string> m_operationItems;
    std::shared_ptr<DiagnosisDeviceInfo> m_deviceInfo;
};

} // namespace Vantor::Sentrix
