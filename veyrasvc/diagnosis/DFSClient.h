// The client of the diagnosis service, module 0x820000.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"
#include "veyrasvc/diagnosis/DiagnosisDeviceInfo.h"
#include "veyrasvc/platform/Export.h"

#include <list>
#include <memory>
#include <string>

namespace Vantor::Sentrix {

// Queries and cancellations wait for the answer, up to a minute. Starts only post; their outcome comes later, to a
// hook.
//
// Threads: any. Hooks run on pool threads, several at a time and beside any operation; the item's data is valid during
// the hook. They may run as soon as the base is made, before the subclass's own members are: only what a start has
// asked for comes then, so start nothing before the object is whole.
// Lifetime: a subclass calls EndHooks() first in its destructor, else a hook may use members that are gone. The
// destructor is not virtual: delete a subclass as what it is, never through a pointer to this class.
// Fails: no answer or no bus is an empty text or list, or -1, and a log line; nothing is tried again. An answer of the
// wrong shape may throw, see each operation.
// Requires: every deviceInfo is non-null.
class VEYRASVC_API DFSClient {
public:
    // `moduleId`: the caller's own.
    explicit DFSClient(int moduleId);
    ~DFSClient();
    DFSClient(const DFSClient&) = delete;
    DFSClient& operator=(const DFSClient&) = delete;

    // The outcome of a detection, of a repair, and a notification of the service. They do nothing here.
    virtual void OnRecvStartDetection(TagIPCMessageItem& item);
    virtual void OnRecvStartRepair(TagIPCMessageItem& item);
    virtual void OnRecvStartNotify(TagIPCMessageItem& item);

    // The service's version.
    std::string GetSdkVersion();

    // What the service can detect or repair on the device.
    // Fails: an answer that is no JSON, or null, gives the empty list and a log line; one of another shape throws
    // Json::LogicError.
    std::list<std::string> GetDetectCapability(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);
    std::list<std::string> GetRepairCapability(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);

    // 0 when the request was posted, else -1.
    int StartDetection(const std::list<std::string>& operationItems, int operationScene,
                       std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);
    int StartRepair(const std::list<std::string>& operationItems, int operationScene,
                    std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);

    // 0 when the service answered 0, else -1.
    // Fails: std::invalid_argument for an answer that begins with no number, std::out_of_range for one beyond 32 bits.
    int CancelDetection(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);
    int CancelRepair(std::shared_ptr<DiagnosisDeviceInfo> deviceInfo);

    // 0 when the text was posted, else -1.
    int CancelNotify(const std::string& text);

    // The service's record of a fault event. The service defines the unit of the times.
    std::string GetFaultInfobyId(int eventId, long long startTime, long long endTime, const std::string& eventType,
                                 const std::string& eventProvider);

protected:
    // From now on no hook begins; returns when none runs but those that the calling thread is inside of. Operations
    // still work. Calling it again does nothing.
    void EndHooks();

private:
    IPCMessageClient m_client;
};

} // namespace Vantor::Sentrix
