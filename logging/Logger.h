// The suite's shared logger: one log4cplus logger for the whole process, "veyrasvc".
//
// Configured once, by the first GetLogger(), from the environment:
//   VEYRA_LOG_CONFIG  a log4cplus properties file; it decides everything (appenders, layouts, levels)
//   VEYRA_LOG_LEVEL   a level name (TRACE, DEBUG, INFO, WARN, ERROR, FATAL, OFF) for this logger
// With neither, WARN and above go to standard error, each line in one piece; one that cannot be written is lost. What a
// healthy bus says at these levels is left out unless a level is named. A file that cannot be read or a level that does
// not exist is reported there too, and the default holds.
//
// A program that links this library has log4cplus's threads from its start. The bus does not need it: without it the
// library writes the same default output by itself, and loads this library only where VEYRA_LOG_CONFIG asks for it.
#pragma once

#include "logging/Export.h"

#include <log4cplus/logger.h>

namespace Vantor::Sentrix {

// The process's logger; the reference stays valid until the process ends.
// Threads: any; the first calls may race.
// Lifetime: also usable while the process exits. Once log4cplus begins to shut down, statements are dropped.
LOGGING_API log4cplus::Logger& GetLogger();

} // namespace Vantor::Sentrix
