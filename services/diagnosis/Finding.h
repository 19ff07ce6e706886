// What came of one item of a run.
#pragma once

#include <functional>
#include <stop_token>
#include <string>

namespace Vantor::Sentrix::Diagnosis {

// Would and Done are of repairs: what a dry run would have done, and what was done.
enum class Outcome { Ok, Warning, Fault, Unknown, Would, Done };

struct Finding {
    Outcome outcome;
    std::string text; // a statement for people
};

// Works until it is through or the stop is asked for; what it returns then is not told to anybody.
using Work = std::function<Finding(const std::stop_token& stop)>;

} // namespace Vantor::Sentrix::Diagnosis
