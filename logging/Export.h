// Marks what the logging library offers.
#pragma once

#include "veyrasvc/platform/Export.h"

#if defined(LOGGING_BUILDING)
#define LOGGING_API VEYRASVC_EXPORT
#else
#define LOGGING_API VEYRASVC_IMPORT
#endif
