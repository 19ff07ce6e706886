// The texts that go over the bus: docs/services.md has them all.
// Threads: any.
#pragma once

#include "services/diagnosis/Finding.h"

#include <json/value.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Vantor::Sentrix::Diagnosis {

// Throws Json::Exception for a text that is too long, no JSON or no object.
Json::Value ParseObject(std::string_view text);

// What a start asks for.
struct StartParameters {
    bool carryOut = false; // no dry run
    std::vector<std::string> items;
};
// Throws as ParseObject, and for members of the wrong type.
StartParameters ParseStart(const std::string& text);

// ---- Outcome messages ----------------------------------------------------------------------------------------------

enum class Kind { Detection, Repair };

const char* NameOf(Kind kind);
const char* NameOf(Outcome outcome);

// How far a run has come.
struct Progress {
    int runId = 0;
    Kind kind = Kind::Detection;
    std::size_t items = 0;
    std::size_t done = 0;
    std::array<int, 4> counts{}; // ok, warning, fault, unknown; what a repair did or would do is ok

    void Count(Outcome outcome);
};

Json::Value DescribeItem(const Progress& progress, const std::string& item, const Finding& finding, int eventId);
Json::Value DescribeEnd(const Progress& progress, bool cancelled);
Json::Value DescribeRefusal(Kind kind, const std::string& why);

} // namespace Vantor::Sentrix::Diagnosis
