// gpumon's JSON document: the plug-in, the system, the GPUs and the trace
// lines. Its layout is versioned (kJsonSchemaVersion) and described in the
// README: a key keeps its meaning and unit within a version.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "gpu_fields.h"
#include "zev/gpu_monitor.h"
#include "zev/trace.h"

constexpr int kJsonSchemaVersion = 1;

struct TraceLine {
  zev::TraceLevel level;
  std::string text;
};

// A field's value as JSON: null when unknown, whole numbers as integers.
nlohmann::ordered_json field_json(const FieldValue& value);

// One GPU: every field with a JSON key, then its fans and processes.
nlohmann::ordered_json gpu_json(const GpuView& gpu);

// The document at `timestamp` with the given GPUs and the trace lines since
// the previous document.
nlohmann::ordered_json render_json(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus,
                                   const std::vector<TraceLine>& traces,
                                   const std::string& timestamp);

// The time now as an ISO 8601 UTC text with milliseconds.
std::string utc_timestamp();

// Serialises a document; text that is not valid UTF-8 is replaced, so the
// output is valid JSON whatever the names contain.
template <typename Json>
std::string dump_json(const Json& document, bool pretty) {
  return document.dump(pretty ? 2 : -1, ' ', false, Json::error_handler_t::replace);
}
