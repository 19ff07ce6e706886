// What a diagnosis request is about: one device, and what is to be done with it.
#pragma once

#include "veyrasvc/platform/Export.h"

#include <string>

namespace Vantor::Sentrix {

// A plain value: copying it copies every field. Strings are opaque bytes; nothing is validated.
// As JSON: one object with the members DeviceType, OperationType, DeviceId, PackageName, AuthTag and TrelixVersion.
// Threads: none of its own; guard an object that one thread changes while others use it.
class VEYRASVC_API DiagnosisDeviceInfo {
public:
    DiagnosisDeviceInfo();
    DiagnosisDeviceInfo(const std::string& deviceType, int operationType);
    DiagnosisDeviceInfo(const DiagnosisDeviceInfo& other);
    DiagnosisDeviceInfo& operator=(const DiagnosisDeviceInfo& other);
    ~DiagnosisDeviceInfo();

    std::string GetDeviceType() const { return m_deviceType; }
    void SetDeviceType(const std::string& deviceType) { m_deviceType = deviceType; }
    int GetOperationType() const { return m_operationType; }
    void SetOperationType(int operationType) { m_operationType = operationType; }
    std::string GetDeviceId() const { return m_deviceId; }
    void SetDeviceId(const std::string& deviceId) { m_deviceId = deviceId; }
    std::string GetPackageName() const { return m_packageName; }
    void SetPackageName(const std::string& packageName) { m_packageName = packageName; }
    std::string GetAuthTag() const { return m_authTag; }
    void SetAuthTag(const std::string& authTag) { m_authTag = authTag; }
    int GetTrelixVersion() const { return m_trelixVersion; }
    void SetTrelixVersion(int trelixVersion) { m_trelixVersion = trelixVersion; }

    // The remote part in one call; device type and operation type stay.
    void SetRemoteDeviceInfo(const std::string& deviceId, const std::string& packageName, const std::string& authTag,
                             int trelixVersion);

    // Loads all six fields; a missing member reads as empty or 0.
    // Fails: false, one log line and nothing changed for a text that is empty, no JSON, or null. A member that cannot
    // be read as its field's type throws Json::LogicError; fields before it are loaded then.
    bool FromJsonStr(const std::string& jsonStr);

    // One line of JSON.
    std::string ToJsonStr() const;

private:
    std::string m_deviceType;
    int m_operationType = 0;
    std::string m_deviceId;
    std::string m_packageName;
    std::string m_authTag;
    int m_trelixVersion = 0;
};

} // namespace Vantor::Sentrix
