// What gpumon shows of a monitor: a text table or a JSON document.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "zev/gpu_monitor.h"
#include "zev/trace.h"

struct TraceLine {
  zev::TraceLevel level;
  std::string text;
};

// A GPU sensor value as shown: "-" when unknown (-1).
std::string format_value(float value, int decimals);

// The GPU table and the CPU/OS lines.
std::string render_table(zev::GpuMonitor* monitor);

// One JSON document with the plug-in, the traces, the GPUs and the system.
nlohmann::json render_json(zev::GpuMonitor* monitor, const std::vector<TraceLine>& traces);

// Serialises a document; text that is not valid UTF-8 is replaced, so the
// output is valid JSON whatever the names contain.
std::string dump_json(const nlohmann::json& document, bool pretty);
