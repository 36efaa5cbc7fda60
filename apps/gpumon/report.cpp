#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace {

using nlohmann::json;

bool known(float v) { return v != -1.0f; }

std::string hex4(uint64_t v) {
  char text[32];
  std::snprintf(text, sizeof text, "%04llX", static_cast<unsigned long long>(v));
  return text;
}

const char* display_name(const zev::GPU* gpu) {
  return gpu->use_marketing_name ? gpu->marketing_name : gpu->name;
}

// Bus numbers of 1000 and above are placeholders for "not read".
bool bus_known(const zev::GPU* gpu) { return gpu->bus_id >= 0 && gpu->bus_id <= 999; }

// Unit counts from the database: 0 is "not known", and so is -1 stored in an
// unsigned field.
bool count_known(uint32_t v) { return v != 0 && v != 0xFFFFFFFFu; }

std::string count_text(uint32_t v) { return count_known(v) ? std::to_string(v) : "-"; }

std::string units_text(const zev::GPU* gpu) {
  if (!count_known(gpu->num_shader_cores) && !count_known(gpu->num_texture_units) &&
      !count_known(gpu->num_rops))
    return "-";
  return count_text(gpu->num_shader_cores) + "/" + count_text(gpu->num_texture_units) + "/" +
         count_text(gpu->num_rops);
}

json count_or_null(uint32_t v) { return count_known(v) ? json(v) : json(nullptr); }

std::string with_range(float current, float min, float max) {
  std::string text = format_value(current, 0);
  if (known(current) && known(min) && known(max)) {
    text += " (" + format_value(min, 0) + "-" + format_value(max, 0) + ")";
  }
  return text;
}

std::string fans_text(const zev::GPU* gpu) {
  if (gpu->fans == nullptr || gpu->num_fans == 0) return "-";
  std::string text;
  for (uint64_t i = 0; i < gpu->num_fans; ++i) {
    const zev::gpuFanSpeed& fan = gpu->fans[i];
    if (!text.empty()) text += ", ";
    if (known(fan.rpm)) {
      text += format_value(fan.rpm, 0) + " rpm";
    } else if (known(fan.speed_percent)) {
      text += format_value(fan.speed_percent, 0) + "%";
    } else {
      text += "-";
    }
  }
  return text;
}

std::string columns(const std::vector<std::vector<std::string>>& rows) {
  std::vector<size_t> width;
  for (const auto& row : rows) {
    if (width.size() < row.size()) width.resize(row.size(), 0);
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  }
  std::string out;
  for (const auto& row : rows) {
    std::string line;
    for (size_t c = 0; c < row.size(); ++c) {
      line += row[c];
      if (c + 1 < row.size()) line += std::string(width[c] - row[c].size() + 2, ' ');
    }
    out += line + "\n";
  }
  return out;
}

json value_or_null(float v) { return known(v) ? json(v) : json(nullptr); }

json triple(float current, float min, float max) {
  return {{"current", value_or_null(current)}, {"min", value_or_null(min)},
          {"max", value_or_null(max)}};
}

json gpu_json(unsigned long slot, const zev::GPU* gpu) {
  json fans = json::array();
  for (uint64_t i = 0; gpu->fans != nullptr && i < gpu->num_fans; ++i) {
    fans.push_back({{"percent", value_or_null(gpu->fans[i].speed_percent)},
                    {"rpm", value_or_null(gpu->fans[i].rpm)}});
  }
  const zev::gpuTemperature& core_t = gpu->temperatures[0];
  const zev::gpuTemperature& mem_t = gpu->temperatures[2];
  return {
      {"slot", slot},
      {"index", gpu->index},
      {"name", gpu->name},
      {"marketing_name", gpu->marketing_name},
      {"use_marketing_name", gpu->use_marketing_name},
      {"display_name", display_name(gpu)},
      {"codename", gpu->codename},
      {"vendor_id", gpu->vendor_id},
      {"device_id", gpu->device_id},
      {"subvendor_id", gpu->subvendor_id},
      {"subdevice_id", gpu->subdevice_id},
      {"revision_id", gpu->revision_id},
      {"pci", hex4(gpu->vendor_id) + ":" + hex4(gpu->device_id)},
      {"bus_id", bus_known(gpu) ? json(gpu->bus_id) : json(nullptr)},
      {"vbios", gpu->vbios_version},
      {"driver_name", gpu->driver_name},
      {"driver_version", gpu->driver_version},
      {"monitorable", gpu->monitorable},
      {"temperature_c",
       {{"core", triple(core_t.current, core_t.min, core_t.max)},
        {"memory", triple(mem_t.current, mem_t.min, mem_t.max)}}},
      {"usage_percent",
       {{"core", triple(gpu->core_usage[0], gpu->core_usage[1], gpu->core_usage[2])},
        {"memory", triple(gpu->memory_usage[0], gpu->memory_usage[1], gpu->memory_usage[2])}}},
      {"clock_mhz",
       {{"core", triple(gpu->core_clock.current, gpu->core_clock.min, gpu->core_clock.max)},
        {"memory",
         triple(gpu->memory_clock.current, gpu->memory_clock.min, gpu->memory_clock.max)}}},
      {"power", {{"watts", value_or_null(gpu->power.watts)},
                 {"current", value_or_null(gpu->power.current)}}},
      {"units",
       {{"shaders", count_or_null(gpu->num_shader_cores)},
        {"texture_units", count_or_null(gpu->num_texture_units)},
        {"rops", count_or_null(gpu->num_rops)},
        {"tdp_w", count_or_null(gpu->tdp_w)}}},
      {"fans", fans},
  };
}

}  // namespace

std::string format_value(float value, int decimals) {
  if (!known(value)) return "-";
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, static_cast<double>(value));
  return text;
}

std::string render_table(zev::GpuMonitor* monitor) {
  std::vector<std::vector<std::string>> rows = {
      {"GPU", "Name", "Chip", "Shaders/TMUs/ROPs", "TDP W", "PCI", "Bus", "Temp C", "Mem C",
       "Core %", "Mem %", "Core MHz", "Mem MHz", "Power W", "Fans"}};
  const unsigned long n = monitor->get_num_gpus();
  for (unsigned long i = 0; i < n; ++i) {
    const zev::GPU* gpu = monitor->get_gpu(i);
    if (gpu == nullptr) continue;
    const bool pci = gpu->vendor_id != 0 || gpu->device_id != 0;
    rows.push_back({
        std::to_string(i),
        display_name(gpu)[0] ? display_name(gpu) : "-",
        gpu->codename[0] ? gpu->codename : "-",
        units_text(gpu),
        count_text(gpu->tdp_w),
        pci ? hex4(gpu->vendor_id) + ":" + hex4(gpu->device_id) : "-",
        bus_known(gpu) ? std::to_string(gpu->bus_id) : "-",
        with_range(gpu->temperatures[0].current, gpu->temperatures[0].min,
                   gpu->temperatures[0].max),
        format_value(gpu->temperatures[2].current, 0),
        format_value(gpu->core_usage[0], 0),
        format_value(gpu->memory_usage[0], 0),
        format_value(gpu->core_clock.current, 0),
        format_value(gpu->memory_clock.current, 0),
        format_value(gpu->power.watts, 0),
        fans_text(gpu),
    });
  }
  std::string out;
  if (n == 0) {
    out += "No GPU found.\n";
  } else {
    out += columns(rows);
  }
  out += "\n";
  const char* cpu = monitor->get_cpu_name();
  out += std::string("CPU: ") + (cpu && *cpu ? cpu : "-");
  const unsigned long mhz = monitor->get_cpu_speed_mhz();
  out += mhz ? ", " + std::to_string(mhz) + " MHz\n" : std::string(", - MHz\n");
  const char* os = monitor->get_os_name();
  out += std::string("OS:  ") + (os && *os ? os : "-") + "\n";
  return out;
}

json render_json(zev::GpuMonitor* monitor, const std::vector<TraceLine>& traces) {
  int major = 0, minor = 0, patch = 0;
  monitor->get_version(&major, &minor, &patch);
  json trace_list = json::array();
  for (const TraceLine& t : traces) {
    trace_list.push_back({{"level", zev::trace_level_name(t.level)}, {"text", t.text}});
  }
  json gpus = json::array();
  for (unsigned long i = 0; i < monitor->get_num_gpus(); ++i) {
    if (const zev::GPU* gpu = monitor->get_gpu(i)) gpus.push_back(gpu_json(i, gpu));
  }
  return {
      {"plugin",
       {{"name", monitor->get_name()},
        {"description", monitor->get_description()},
        {"author", monitor->get_author()},
        {"version", std::to_string(major) + "." + std::to_string(minor) + "." +
                        std::to_string(patch)},
        {"type", static_cast<int>(monitor->get_type())},
        {"build", monitor->get_build_info()}}},
      {"machine", std::getenv("ZEV_MACHINE") ? json(std::getenv("ZEV_MACHINE")) : json(nullptr)},
      {"traces", trace_list},
      {"gpus", gpus},
      {"system",
       {{"cpu_name", monitor->get_cpu_name()},
        {"cpu_speed_mhz", monitor->get_cpu_speed_mhz()},
        {"os_name", monitor->get_os_name()}}},
  };
}

std::string dump_json(const json& document, bool pretty) {
  return document.dump(pretty ? 2 : -1, ' ', false, json::error_handler_t::replace);
}
