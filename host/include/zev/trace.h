// Where the framework's trace lines go. The embedding program chooses a sink;
// without one, lines go to stderr prefixed with their level.
#pragma once

#include <cstdarg>

namespace zev {

enum TraceLevel { TRACE_INFO = 0, TRACE_WARNING = 1, TRACE_ERROR = 2, TRACE_DEBUG = 3 };

// Receives one formatted line, without a trailing newline.
using TraceSink = void (*)(TraceLevel level, const char* line, void* user);

// Installs a sink for every plug-in of the process; a null sink restores stderr.
void set_trace_sink(TraceSink sink, void* user);

// Formats and delivers one line to the current sink.
void trace_vprintf(TraceLevel level, const char* format, va_list args);

// "info", "warning", "error" or "debug".
const char* trace_level_name(TraceLevel level);

}  // namespace zev
