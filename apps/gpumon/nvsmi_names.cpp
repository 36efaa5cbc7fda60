#include "nvsmi_names.h"

#include <algorithm>

namespace {

struct NvsmiName {
  const char* names[3];  // nvidia-smi's first name, then its aliases (nullptr ends)
  const char* field;     // the gpumon field that answers it
  const char* unit;
  int decimals;
  QueryColumn::Form form;
};

using F = QueryColumn::Form;

// As nvidia-smi 590 and 595 print them (captured --query-gpu answers):
// "2026/07/14 08:12:53.353", "00000000:0C:00.0", "0x0C", "38 %",
// "19818 MiB", "59" (no unit), "631.95 W", "1980 MHz", "[N/A]".
const NvsmiName kNames[] = {
    {{"timestamp"}, "timestamp", "", -1, F::kLocalTime},
    {{"count"}, "count", "", -1, F::kPlain},
    {{"name", "gpu_name"}, "name", "", -1, F::kPlain},
    {{"pci.bus_id", "gpu_bus_id"}, "pci.bus_id", "", -1, F::kBusId},
    {{"pci.domain"}, "pci.domain", "", -1, F::kPlain},
    {{"pci.bus"}, "pci.bus", "", -1, F::kPlain},
    {{"pci.device"}, "pci.device", "", -1, F::kPlain},
    {{"pci.device_id"}, "pci.device_id", "", -1, F::kPlain},
    {{"pci.sub_device_id"}, "pci.sub_device_id", "", -1, F::kPlain},
    {{"index"}, "index", "", -1, F::kPlain},
    {{"driver_version"}, "driver_version", "", -1, F::kPlain},
    {{"vbios_version"}, "vbios_version", "", -1, F::kPlain},
    {{"fan.speed"}, "fan.speed", "%", 0, F::kPlain},
    {{"clocks_event_reasons.active", "clocks_throttle_reasons.active"},
     "clocks_throttle_reasons.active",
     "",
     -1,
     F::kPlain},
    {{"memory.total"}, "memory.total", "MiB", 0, F::kPlain},
    {{"memory.used"}, "memory.used", "MiB", 0, F::kPlain},
    {{"memory.free"}, "memory.free", "MiB", 0, F::kPlain},
    {{"compute_cap"}, "compute_cap", "", -1, F::kPlain},
    {{"utilization.gpu"}, "utilization.gpu", "%", 0, F::kPlain},
    {{"utilization.memory"}, "utilization.memory", "%", 0, F::kPlain},
    {{"temperature.gpu"}, "temperature.gpu", "", 0, F::kPlain},
    {{"temperature.memory"}, "temperature.memory", "", 0, F::kPlain},
    {{"power.draw"}, "power.draw", "W", 2, F::kPlain},
    {{"power.limit", "gpu.power.requested_limit"}, "power.limit", "W", 2, F::kPlain},
    {{"enforced.power.limit", "gpu.power.current_limit"},
     "enforced.power.limit",
     "W",
     2,
     F::kPlain},
    {{"power.default_limit", "gpu.power.default_limit"}, "power.default_limit", "W", 2, F::kPlain},
    {{"power.min_limit", "gpu.power.min_limit"}, "power.min_limit", "W", 2, F::kPlain},
    {{"power.max_limit", "gpu.power.max_limit"}, "power.max_limit", "W", 2, F::kPlain},
    // The SM clock is the graphics clock's domain: the captures show the two equal.
    {{"clocks.current.graphics", "clocks.gr"}, "clocks.gr", "MHz", 0, F::kPlain},
    {{"clocks.current.sm", "clocks.sm"}, "clocks.gr", "MHz", 0, F::kPlain},
    {{"clocks.current.memory", "clocks.mem"}, "clocks.mem", "MHz", 0, F::kPlain},
    {{"clocks.max.graphics", "clocks.max.gr"}, "clocks.max.gr", "MHz", 0, F::kPlain},
    {{"clocks.max.sm"}, "clocks.max.gr", "MHz", 0, F::kPlain},
    {{"clocks.max.memory", "clocks.max.mem"}, "clocks.max.mem", "MHz", 0, F::kPlain},
};

bool named(const NvsmiName& entry, const std::string& name) {
  for (const char* n : entry.names)
    if (n != nullptr && name == n) return true;
  return false;
}

std::string padded(std::string text, size_t width) {
  text.resize(std::max(text.size() + 1, width), ' ');
  return text;
}

}  // namespace

bool find_query_column(const std::string& name, QueryColumn* column) {
  for (const NvsmiName& entry : kNames) {
    if (!named(entry, name)) continue;
    const GpuField* field = find_query_field(entry.field);
    if (field == nullptr) return false;
    *column = {field, entry.names[0], entry.unit, entry.decimals, entry.form};
    return true;
  }
  const GpuField* field = find_query_field(name);
  if (field == nullptr) return false;
  *column = {field, name, field->unit, -1, QueryColumn::kPlain};
  return true;
}

std::string query_help() {
  std::string out = "Fields of --query FIELD,... (an unknown value prints as [N/A]):\n";
  for (const GpuField& field : gpu_fields()) {
    if (field.query == nullptr) continue;
    std::string line = std::string("  ") + field.query;
    if (field.unit[0] != '\0') line += std::string(" [") + field.unit + "]";
    out += padded(line, 36) + field.description + "\n";
  }
  out +=
      "\nnvidia-smi --query-gpu names that mean the same (printed as nvidia-smi prints\n"
      "them, under its first name):\n";
  for (const NvsmiName& entry : kNames) {
    if (find_query_field(entry.field) == nullptr) continue;
    std::string names = std::string("  ") + entry.names[0];
    for (int i = 1; i < 3 && entry.names[i] != nullptr; ++i)
      names += std::string(", ") + entry.names[i];
    if (entry.unit[0] != '\0') names += std::string(" [") + entry.unit + "]";
    out += padded(names, 56) + "= " + entry.field + "\n";
  }
  return out;
}
