#include "zev/trace.h"

#include <cstdio>
#include <mutex>
#include <vector>

namespace zev {

namespace {

// A plug-in may trace from its update thread while the host thread traces
// too, so delivery is serialised.
std::mutex g_sink_mutex;
TraceSink g_sink = nullptr;
void* g_sink_user = nullptr;

}  // namespace

const char* trace_level_name(TraceLevel level) {
  switch (level) {
    case TRACE_INFO: return "info";
    case TRACE_WARNING: return "warning";
    case TRACE_ERROR: return "error";
    case TRACE_DEBUG: return "debug";
  }
  return "info";
}

void set_trace_sink(TraceSink sink, void* user) {
  std::lock_guard<std::mutex> lock(g_sink_mutex);
  g_sink = sink;
  g_sink_user = user;
}

void trace_vprintf(TraceLevel level, const char* format, va_list args) {
  if (format == nullptr) return;
  va_list measure;
  va_copy(measure, args);
  int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) return;
  std::vector<char> line(static_cast<size_t>(length) + 1);
  std::vsnprintf(line.data(), line.size(), format, args);

  std::lock_guard<std::mutex> lock(g_sink_mutex);
  if (g_sink != nullptr) {
    g_sink(level, line.data(), g_sink_user);
  } else {
    std::fprintf(stderr, "[%s] %s\n", trace_level_name(level), line.data());
  }
}

}  // namespace zev
