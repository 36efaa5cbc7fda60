#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "gpu_fields.h"

namespace {

bool known(float v) { return v != -1.0f; }

std::string hex4(uint64_t v) {
  char text[32];
  std::snprintf(text, sizeof text, "%04llX", static_cast<unsigned long long>(v));
  return text;
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

// Video memory in MiB: "used/total", the total alone, or "-".
std::string vram_text(const zev::GPU* gpu) {
  const std::string total = gpu->vram_size_mb > 0 ? std::to_string(gpu->vram_size_mb) : "-";
  if (gpu->vram_used_mb < 0) return total;
  return std::to_string(gpu->vram_used_mb) + "/" + total;
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

}  // namespace

std::string format_value(float value, int decimals) {
  if (!known(value)) return "-";
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, static_cast<double>(value));
  return text;
}

std::string render_table(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus) {
  std::vector<std::vector<std::string>> rows = {
      {"GPU", "Name", "Chip", "Driver", "Shaders/TMUs/ROPs", "TDP W", "PCI", "Bus", "Temp C",
       "Mem C", "Core %", "Mem %", "VRAM MiB", "Core MHz", "Mem MHz", "Power W", "Fans"}};
  for (const GpuView& view : gpus) {
    const zev::GPU* gpu = view.gpu;
    const bool pci = gpu->vendor_id != 0 || gpu->device_id != 0;
    rows.push_back({
        std::to_string(view.slot),
        display_name(*gpu)[0] ? display_name(*gpu) : "-",
        gpu->codename[0] ? gpu->codename : "-",
        gpu->driver_name[0] ? gpu->driver_name : "-",
        units_text(gpu),
        count_text(gpu->tdp_w),
        pci ? hex4(gpu->vendor_id) + ":" + hex4(gpu->device_id) : "-",
        bus_known(gpu) ? std::to_string(gpu->bus_id) : "-",
        with_range(gpu->temperatures[0].current, gpu->temperatures[0].min,
                   gpu->temperatures[0].max),
        format_value(gpu->temperatures[2].current, 0),
        format_value(gpu->core_usage[0], 0),
        format_value(gpu->memory_usage[0], 0),
        vram_text(gpu),
        format_value(gpu->core_clock.current, 0),
        format_value(gpu->memory_clock.current, 0),
        format_value(gpu->power.watts, 0),
        fans_text(gpu),
    });
  }
  std::string out;
  if (monitor->get_num_gpus() == 0) {
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
