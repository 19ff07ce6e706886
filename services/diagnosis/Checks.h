// The checks of a detection: each reads the machine and has the reading judged (Judgement.h).
// Threads: any.
#pragma once

#include "services/diagnosis/Finding.h"

#include <span>

namespace Vantor::Sentrix::Diagnosis {

struct Check {
    const char* item;
    Finding (*work)(const std::stop_token& stop); // a Work
};

// In the order in which a detection of everything goes.
std::span<const Check> AllChecks();

} // namespace Vantor::Sentrix::Diagnosis
