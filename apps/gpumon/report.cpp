#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "gpu_fields.h"
#include "record/record_slots.h"

namespace {

// The widest the default table gets.
constexpr size_t kTableWidth = 120;

bool known(float v) { return v != -1.0f; }

std::string hex4(uint64_t v) {
  char text[32];
  std::snprintf(text, sizeof text, "%04llX", static_cast<unsigned long long>(v));
  return text;
}

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

// Every fan's speed: "1320,1315,0 rpm", "30,31%", or "-"; a fan known only
// in the other unit, or not at all, shows as such ("1320 rpm,40%,-").
std::string fans_text(const zev::GPU* gpu) {
  if (gpu->fans == nullptr || gpu->num_fans == 0) return "-";
  std::vector<std::string> values;
  std::vector<std::string> units;
  for (uint64_t i = 0; i < gpu->num_fans; ++i) {
    const zev::gpuFanSpeed& fan = gpu->fans[i];
    const bool rpm = known(fan.rpm);
    values.push_back(rpm                        ? format_value(fan.rpm, 0)
                     : known(fan.speed_percent) ? format_value(fan.speed_percent, 0)
                                                : "-");
    units.push_back(rpm ? " rpm" : known(fan.speed_percent) ? "%" : "");
  }
  const bool one_unit =
      std::all_of(units.begin(), units.end(), [&](const std::string& u) { return u == units[0]; });
  std::string text;
  for (size_t i = 0; i < values.size(); ++i) {
    if (i != 0) text += ",";
    text += values[i] + (one_unit ? "" : units[i]);
  }
  return one_unit ? text + units[0] : text;
}

// The kernel driver's name; NVIDIA's back-ends know only its version.
std::string driver_text(const zev::GPU* gpu) {
  if (gpu->driver_name[0] != '\0') return gpu->driver_name;
  return gpu->driver_version[0] != '\0' ? gpu->driver_version : "-";
}

// Video memory in MiB: "used/total", the total alone, or "-".
std::string vram_text(const zev::GPU* gpu) {
  const std::string total = gpu->vram_size_mb > 0 ? std::to_string(gpu->vram_size_mb) : "-";
  if (gpu->vram_used_mb < 0) return total;
  return std::to_string(gpu->vram_used_mb) + "/" + total;
}

// A field's text as --query shows it ("-" when unknown).
std::string field_text(const char* name, const GpuView& view) {
  const GpuField* field = find_query_field(name);
  const FieldValue value = field != nullptr ? field->read(view) : FieldValue::unknown();
  return value.kind == FieldValue::kText ? value.text : "-";
}

// The rows as columns two blanks apart; with a `limit`, the names (column 1)
// are cut short so that no line is wider.
std::string columns(std::vector<std::vector<std::string>> rows, size_t limit) {
  std::vector<size_t> width;
  for (const auto& row : rows) {
    if (width.size() < row.size()) width.resize(row.size(), 0);
    for (size_t c = 0; c < row.size(); ++c) width[c] = std::max(width[c], row[c].size());
  }
  size_t total = 0;
  for (size_t w : width) total += w + 2;
  total -= 2;
  if (limit != 0 && total > limit && width.size() > 1) {
    // Names are cut to 8 characters at the shortest; the rest of a row that
    // is still too wide stays as it is.
    const size_t over = total - limit;
    const size_t name = width[1] > over + 8 ? width[1] - over : std::min<size_t>(width[1], 8);
    for (auto& row : rows)
      if (row[1].size() > name) row[1] = row[1].substr(0, name - 1) + "~";
    width[1] = name;
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

std::string render_table(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus, bool wide) {
  std::vector<std::string> header = {"GPU",    "Name",  "PCI",      "Driver",  "Temp C",  "Mem C",
                                     "Core %", "Mem %", "Core MHz", "Mem MHz", "Power W", "Fans"};
  if (wide) {
    header.insert(header.begin() + 4, {"ID", "Rev", "Bus", "Chip", "Shaders/TMUs/ROPs", "TDP W"});
    header.insert(header.begin() + 14, "VRAM MiB");
  }
  std::vector<std::vector<std::string>> rows = {header};
  for (const GpuView& view : gpus) {
    const zev::GPU* gpu = view.gpu;
    std::vector<std::string> row = {
        std::to_string(view.slot),
        display_name(*gpu)[0] ? display_name(*gpu) : "-",
        view.pci_address.empty() ? "-" : view.pci_address,
        driver_text(gpu),
        wide ? with_range(gpu->temperatures[gpu_record::kCoreTemperature].current,
                          gpu->temperatures[gpu_record::kCoreTemperature].min,
                          gpu->temperatures[gpu_record::kCoreTemperature].max)
             : format_value(gpu->temperatures[gpu_record::kCoreTemperature].current, 0),
        format_value(gpu->temperatures[gpu_record::kMemoryTemperature].current, 0),
        format_value(gpu->core_usage[0], 0),
        format_value(gpu->memory_usage[0], 0),
        format_value(gpu->core_clock.current, 0),
        format_value(gpu->memory_clock.current, 0),
        format_value(gpu->power.watts, 0),
        fans_text(gpu),
    };
    if (wide) {
      const bool pci = gpu->vendor_id != 0 || gpu->device_id != 0;
      row.insert(row.begin() + 4,
                 {pci ? hex4(gpu->vendor_id) + ":" + hex4(gpu->device_id) : "-",
                  field_text("pci.revision", view), field_text("pci.bus", view),
                  gpu->codename[0] ? gpu->codename : "-", units_text(gpu), count_text(gpu->tdp_w)});
      row.insert(row.begin() + 14, vram_text(gpu));
    }
    rows.push_back(row);
  }
  std::string out;
  if (monitor->get_num_gpus() == 0) {
    out += "No GPU found.\n";
  } else {
    out += columns(rows, wide ? 0 : kTableWidth);
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
