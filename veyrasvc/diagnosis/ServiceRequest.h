// The exchange that the clients of the services share: requests and answers are texts that end with a NUL.
#pragma once

#include "veyrasvc/bus/IPCMessageExport.h"
#include "veyrasvc/diagnosis/JsonText.h"

#include <cstdint>
#include <optional>
#include <string>

namespace Vantor::Sentrix {

struct ServiceRequest {
    std::int32_t service;
    std::int32_t requestId;
    std::int32_t answerId;
};

// Posts the text. False: the bus did not take it.
bool PostRequest(const IPCMessageClient& client, const ServiceRequest& request, const std::string& text);

// Sends the text and waits up to a minute for the answer, which is logged behind `resultLabel`. Nothing, and a log
// line: it could not be sent or no answer came.
std::optional<std::string> Ask(const IPCMessageClient& client, const ServiceRequest& request, const std::string& text,
                               const char* resultLabel, const CallSite& where);

// A cancel's answer: 0 when it begins with the number 0, else -1.
// Fails: throws std::invalid_argument when it begins with no number, std::out_of_range when that needs over 32 bits.
int ResultOf(const std::string& answer);

} // namespace Vantor::Sentrix
