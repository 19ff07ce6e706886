// The process's memory counters in the log.
#pragma once

namespace Vantor::Sentrix {

// Logs working set, paged pool, non-paged pool and page file use in bytes, at DEBUG, under the name of the occasion.
// Costs a level check while DEBUG is disabled. Characters of the name beyond ASCII are logged as '?'.
// Threads: any.
// Fails: logs nothing when the counters cannot be had.
void ShowMemory(const wchar_t* tag);

} // namespace Vantor::Sentrix
