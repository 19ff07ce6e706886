#include "services/crashdump/Outcome.h"

#include "tools/support/Utf8.h"

#include <cinttypes>
#include <cstdio>

namespace Vantor::Sentrix::CrashDump {

namespace {

constexpr int kCodeDigits = 8;
constexpr int kParameterDigits = 16;

std::string Hex(std::uint64_t value, int digits) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%0*" PRIx64, digits, value);
    return text;
}

int Percent(const Progress& progress) {
    const std::size_t done = progress.analysed + progress.unreadable;
    return progress.all == 0 ? 0 : static_cast<int>(done * 100 / progress.all);
}

std::string TextOf(const DumpHeader& header) {
    if (!header.error.empty()) {
        return header.error;
    }
    if (header.type == DumpType::ElfCore) {
        const std::string process = header.process.empty() ? "a program" : header.process;
        return header.signal.value_or(0) == 0 ? process + " was dumped without a signal"
                                              : process + " ended by signal " + std::to_string(*header.signal);
    }
    if (header.stop) {
        return "the system stopped with code " + Hex(header.stop->code, kCodeDigits);
    }
    return header.exceptionCode ? "a program ended by exception " + Hex(*header.exceptionCode, kCodeDigits)
                                : "a program was dumped without an exception";
}

void AddFindings(const DumpHeader& header, Json::Value& message) {
    if (!header.process.empty()) {
        message["Process"] = header.process;
    }
    if (header.signal) {
        message["Signal"] = *header.signal;
    }
    if (header.stop) {
        message["StopCode"] = Hex(header.stop->code, kCodeDigits);
        for (const std::uint64_t parameter : header.stop->parameters) {
            message["Parameters"].append(Hex(parameter, kParameterDigits));
        }
    }
    if (header.exceptionCode) {
        message["ExceptionCode"] = Hex(*header.exceptionCode, kCodeDigits);
    }
    if (!header.error.empty()) {
        message["Error"] = header.error;
    }
}

} // namespace

Json::Value DescribeDump(const DumpFile& file, const DumpHeader& header, const Progress& progress) {
    Json::Value message;
    message["State"] = "running";
    message["Percent"] = Percent(progress);
    message["File"] = Support::Utf8FromPath(file.path);
    message["Type"] = NameOf(header.type);
    message["Time"] = Json::Int64{header.time.value_or(file.time)};
    message["Size"] = Json::UInt64{file.size};
    message["Text"] = TextOf(header);
    AddFindings(header, message);
    return message;
}

Json::Value DescribeEnd(bool cancelled, const Progress& progress, const std::vector<std::filesystem::path>& unread) {
    Json::Value message;
    message["State"] = cancelled ? "cancelled" : "finished";
    message["Percent"] = cancelled ? Percent(progress) : 100;
    message["Analysed"] = Json::UInt64{progress.analysed};
    message["Unreadable"] = Json::UInt64{progress.unreadable};
    if (!unread.empty()) {
        message["Error"] = "cannot read " + Support::Utf8FromPath(unread.front());
    }
    return message;
}

Json::Value DescribeRefusal(const std::string& why) {
    Json::Value message;
    message["State"] = "refused";
    message["Percent"] = 0;
    message["Text"] = why;
    return message;
}

} // namespace Vantor::Sentrix::CrashDump
