// The processes of a measurement, all of them this program: the host of the bus, and members, which do what they are
// told.
#pragma once

#include "tools/veyra/bench/Settings.h"

#include <string>
#include <vector>

namespace Vantor::Sentrix::Growth {

// {role, NAME=NUMBER...}
//
//   host                 serves the bus
//   member first modules puts that many modules, numbered from `first`, on the bus
//
// It writes "ready" when that is done. Then it answers every line "ORDER NAME=NUMBER..." of its standard input with
// "result NAME=NUMBER...", and ends with its standard input. The orders of a member are in Member.h; both roles know
//
//   allocations          -> count: with operator new, since the start of the process
//
// Threads: called once, from main. Fails: by exception.
int RunRole(const std::vector<std::string>& arguments);

} // namespace Vantor::Sentrix::Growth
