#include "veyrasvc/diagnosis/DFSClientC.h"

#include "veyrasvc/diagnosis/DFSClient.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <new>
#include <string_view>

using Vantor::Sentrix::DFSClient;
using Vantor::Sentrix::DiagnosisDeviceInfo;

namespace {

// Final, so that it may be deleted although its base has no virtual destructor.
struct Client final : DFSClient {
    using DFSClient::DFSClient;
    ~Client() { EndHooks(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
};

} // namespace

struct DFSClientCell {
    Client* client;
};

namespace {

constexpr int kMissingArgument = -1;
constexpr std::size_t kItemSize = 199; // of the bytes that are written into a DFS_TEXT_SIZE field

static_assert(offsetof(CDiagnosisDeviceInfo, operationType) == 200);
static_assert(offsetof(CDiagnosisDeviceInfo, deviceId) == 204);
static_assert(offsetof(CDiagnosisDeviceInfo, trelixVersion) == 804);
static_assert(offsetof(CStringList, count) == 10000);

// What `use` makes of the client; kMissingArgument, and nothing is called, when that or a required pointer is null.
template <class Use>
int WithClient(DFSClientHandle handle, std::initializer_list<const void*> required, const Use& use) {
    const bool isThere = handle != nullptr && handle->client != nullptr;
    return isThere && std::count(required.begin(), required.end(), nullptr) == 0 ? use(*handle->client)
                                                                                 : kMissingArgument;
}

template <std::size_t Size> std::string TextOf(const char (&field)[Size]) {
    return {field, strnlen(field, Size)};
}

std::shared_ptr<DiagnosisDeviceInfo> DeviceOf(const CDiagnosisDeviceInfo& info) {
    auto device = std::make_shared<DiagnosisDeviceInfo>(TextOf(info.deviceType), info.operationType);
    device->SetRemoteDeviceInfo(TextOf(info.deviceId), TextOf(info.packageName), TextOf(info.authTag),
                                info.trelixVersion);
    return device;
}

std::list<std::string> ItemsOf(const CStringList& list) {
    std::list<std::string> items;
    const auto count = std::min<std::int32_t>(list.count, DFS_MAX_ITEMS);
    for (std::int32_t i = 0; i < count; ++i) {
        items.push_back(TextOf(list.items[i]));
    }
    return items;
}

// The longest front of the text that takes at most `most` bytes and ends with a whole character.
std::string_view FrontOf(std::string_view text, std::size_t most) {
    const auto continues = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; };
    std::size_t end = std::min(text.size(), most);
    while (end > 0 && end < text.size() && continues(text[end])) {
        --end;
    }
    return text.substr(0, end);
}

// Nothing stays behind the text of what was there before.
void CopyOut(const std::string& text, char* out, std::size_t size) {
    const std::string_view front = FrontOf(text, size - 1);
    std::memcpy(out, front.data(), front.size());
    std::memset(out + front.size(), 0, size - front.size());
}

void CopyOut(const std::list<std::string>& texts, CStringList& out) {
    out.count = 0;
    for (const std::string& text : texts) {
        if (out.count == DFS_MAX_ITEMS) {
            return;
        }
        char(&item)[DFS_TEXT_SIZE] = out.items[out.count];
        item[kItemSize] = '\0';
        CopyOut(text, item, kItemSize);
        ++out.count;
    }
}

} // namespace

DFSClientHandle DFSClientCreate(int moduleId) {
    std::unique_ptr<DFSClientCell> cell(new (std::nothrow) DFSClientCell{nullptr});
    if (!cell) {
        return nullptr;
    }
    cell->client = new (std::nothrow) Client(moduleId);
    return cell->client == nullptr ? nullptr : cell.release();
}

void DFSClientDestroy(DFSClientHandle handle) {
    if (handle != nullptr) {
        delete handle->client;
        delete handle;
    }
}

int CGetSdkVersion(DFSClientHandle handle, char* version) {
    return WithClient(handle, {version}, [&](DFSClient& client) {
        CopyOut(client.GetSdkVersion(), version, DFS_VERSION_SIZE);
        return 0;
    });
}

int CGetDetectCapability(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo, CStringList* capability) {
    return WithClient(handle, {deviceInfo, capability}, [&](DFSClient& client) {
        CopyOut(client.GetDetectCapability(DeviceOf(*deviceInfo)), *capability);
        return 0;
    });
}

int CGetRepairCapability(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo, CStringList* capability) {
    return WithClient(handle, {deviceInfo, capability}, [&](DFSClient& client) {
        CopyOut(client.GetRepairCapability(DeviceOf(*deviceInfo)), *capability);
        return 0;
    });
}

int CGetFaultInfobyId(DFSClientHandle handle, int eventId, std::int64_t startTime, std::int64_t endTime,
                      const char* eventType, const char* eventProvider, char* faultInfo) {
    return WithClient(handle, {eventType, eventProvider, faultInfo}, [&](DFSClient& client) {
        CopyOut(client.GetFaultInfobyId(eventId, startTime, endTime, eventType, eventProvider), faultInfo,
                DFS_FAULT_INFO_SIZE);
        return 0;
    });
}

int CStartDetection(DFSClientHandle handle, const CStringList* operationItems, int operationScene,
                    const CDiagnosisDeviceInfo* deviceInfo) {
    return WithClient(handle, {operationItems, deviceInfo}, [&](DFSClient& client) {
        return client.StartDetection(ItemsOf(*operationItems), operationScene, DeviceOf(*deviceInfo));
    });
}

int CCancelDetection(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo) {
    return WithClient(handle, {deviceInfo},
                      [&](DFSClient& client) { return client.CancelDetection(DeviceOf(*deviceInfo)); });
}

int CStartRepair(DFSClientHandle handle, const CStringList* operationItems, int operationScene,
                 const CDiagnosisDeviceInfo* deviceInfo) {
    return WithClient(handle, {operationItems, deviceInfo}, [&](DFSClient& client) {
        return client.StartRepair(ItemsOf(*operationItems), operationScene, DeviceOf(*deviceInfo));
    });
}

int CCancelRepair(DFSClientHandle handle, const CDiagnosisDeviceInfo* deviceInfo) {
    return WithClient(handle, {deviceInfo},
                      [&](DFSClient& client) { return client.CancelRepair(DeviceOf(*deviceInfo)); });
}

int CCancelNotify(DFSClientHandle handle, const char* text) {
    return WithClient(handle, {}, [&](DFSClient& client) { return client.CancelNotify(text); });
}
