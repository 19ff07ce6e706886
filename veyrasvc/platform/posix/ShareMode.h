// The share modes of CreateFileW: who may have a file open beside whom.
//
// Whoever has a file open marks it: that he reads, writes, denies reading, denies writing. A mark is a shared lock on
// one byte far behind the end of any file, held by the open file itself (an "open file description" lock of fcntl), so
// that it holds between handles and between processes and ends with the handle or the process. A look at the marks and
// the setting of new ones are one step under an exclusive flock of the file.
#pragma once

#include "veyrasvc/platform/posix/UniqueFd.h"
#include "veyrasvc/platform/posix/Win32Subset.h"

namespace Vantor::Sentrix::Platform {

// Takes a place among those who have the file open. File systems without such locks, and those of the network, share
// everything; so does a file that may only be written, because marks need a descriptor that reads.
// Owns: `marks` is left empty, or it holds the place and has to stay open as long as `descriptor`.
// Fails: false when somebody denies `access`, or uses what `share` denies; or when another program keeps the file
// locked with flock.
bool ClaimShare(int descriptor, DWORD access, DWORD share, UniqueFd& marks);

} // namespace Vantor::Sentrix::Platform
