#include "json_report.h"

#include <sys/time.h>

#include <cmath>
#include <cstdlib>
#include <ctime>

using nlohmann::ordered_json;

namespace {

ordered_json text_or_null(const char* text) {
  return text != nullptr && *text != '\0' ? ordered_json(text) : ordered_json(nullptr);
}

}  // namespace

ordered_json field_json(const FieldValue& value) {
  switch (value.kind) {
    case FieldValue::kNumber:
      if (std::fabs(value.number) < 9007199254740992.0 && value.number == std::floor(value.number))
        return static_cast<int64_t>(value.number);
      return value.number;
    case FieldValue::kText: return value.text;
    case FieldValue::kBool: return value.flag;
    case FieldValue::kUnknown: break;
  }
  return nullptr;
}

ordered_json gpu_json(const GpuView& gpu) {
  ordered_json out = ordered_json::object();
  for (const GpuField& field : gpu_fields()) {
    if (field.json_key == nullptr) continue;
    std::string pointer = std::string("/") + field.json_key;
    for (char& c : pointer)
      if (c == '.') c = '/';
    out[ordered_json::json_pointer(pointer)] = field_json(field.read(gpu));
  }
  ordered_json fans = ordered_json::array();
  for (uint64_t i = 0; gpu.gpu->fans != nullptr && i < gpu.gpu->num_fans; ++i) {
    fans.push_back(
        {{"speed_percent", field_json(FieldValue::reading(gpu.gpu->fans[i].speed_percent))},
         {"speed_rpm", field_json(FieldValue::reading(gpu.gpu->fans[i].rpm))}});
  }
  out["fans"] = fans;
  // The processes using the GPU (NVML): their SM and memory controller usage.
  ordered_json processes = ordered_json::array();
  for (uint32_t i = 0;
       gpu.gpu->process_utilization != nullptr && i < gpu.gpu->num_process_utilization; ++i) {
    const zev::gpuProcessUtilization& p = gpu.gpu->process_utilization[i];
    processes.push_back({{"pid", p.pid},
                         {"name", text_or_null(p.process_name)},
                         {"sm_percent", p.sm_util},
                         {"memory_percent", p.mem_util}});
  }
  out["processes"] = processes;
  return out;
}

ordered_json render_json(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus,
                         const std::vector<TraceLine>& traces, const std::string& timestamp) {
  int major = 0, minor = 0, patch = 0;
  monitor->get_version(&major, &minor, &patch);
  ordered_json gpu_list = ordered_json::array();
  for (const GpuView& gpu : gpus) gpu_list.push_back(gpu_json(gpu));
  ordered_json trace_list = ordered_json::array();
  for (const TraceLine& t : traces) {
    trace_list.push_back({{"level", zev::trace_level_name(t.level)}, {"text", t.text}});
  }
  const unsigned long mhz = monitor->get_cpu_speed_mhz();
  return {
      {"schema_version", kJsonSchemaVersion},
      {"timestamp", timestamp},
      {"plugin",
       {{"name", monitor->get_name()},
        {"description", monitor->get_description()},
        {"author", monitor->get_author()},
        {"version",
         std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch)},
        {"type", static_cast<int>(monitor->get_type())},
        {"build", monitor->get_build_info()}}},
      {"machine", text_or_null(std::getenv("ZEV_MACHINE"))},
      {"system",
       {{"cpu_name", text_or_null(monitor->get_cpu_name())},
        {"cpu_speed_mhz", mhz != 0 ? ordered_json(mhz) : ordered_json(nullptr)},
        {"os_name", text_or_null(monitor->get_os_name())}}},
      {"gpus", gpu_list},
      {"traces", trace_list},
  };
}

std::string utc_timestamp() {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  struct tm utc {};
  gmtime_r(&now.tv_sec, &utc);
  char text[40];
  const size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(text + n, sizeof text - n, ".%03dZ", static_cast<int>(now.tv_usec / 1000));
  return text;
}
