// The client of the crash-dump analysis service, module 0x830000.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"
#include "veyrasvc/platform/Export.h"

#include <list>
#include <string>

namespace Vantor::Sentrix {

// Threads, hooks, lifetime and failures: as DFSClient.
class VEYRASVC_API BSODClient {
public:
    // `moduleId`: the caller's own.
    explicit BSODClient(int moduleId);
    ~BSODClient();
    BSODClient(const BSODClient&) = delete;
    BSODClient& operator=(const BSODClient&) = delete;

    // The outcome of an analysis. Does nothing here.
    virtual void OnRecvBsodAnalysis(TagIPCMessageItem& item);

    // Appends the known crash dumps and sets the status of the query.
    // Fails: both stay as they are, and a log line, when there is no answer or it is no JSON or null. An answer of
    // another shape throws Json::LogicError; what was read before it is kept.
    void GetBsodHistory(std::list<std::string>& dumps, double& status);

    // 0 when the request was posted, else -1.
    int StartBsodAnalysis();

    // As DFSClient::CancelDetection.
    int CancelAnalysis();

protected:
    // As DFSClient::EndHooks.
    void EndHooks();

private:
    IPCMessageClient m_client;
};

} // namespace Vantor::Sentrix
