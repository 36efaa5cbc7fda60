#include "report.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "gpu_fields.h"

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
    const size_t name = std::max<size_t>(width[1] - (total - limit), 8);
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
  std::vector<std::string> header = {"GPU", "Name", "PCI", "Temp C", "Mem C", "Core %",
                                     "Mem %", "Core MHz", "Mem MHz", "Power W", "Fans"};
  if (wide) {
    header.insert(header.begin() + 3, {"ID", "Rev", "Bus", "Chip", "Shaders/TMUs/ROPs", "TDP W"});
  }
  std::vector<std::vector<std::string>> rows = {header};
  for (const GpuView& view : gpus) {
    const zev::GPU* gpu = view.gpu;
    std::vector<std::string> row = {
        std::to_string(view.slot),
        display_name(*gpu)[0] ? display_name(*gpu) : "-",
        view.pci_address.empty() ? "-" : view.pci_address,
        wide ? with_range(gpu->temperatures[0].current, gpu->temperatures[0].min,
                          gpu->temperatures[0].max)
             : format_value(gpu->temperatures[0].current, 0),
        format_value(gpu->temperatures[2].current, 0),
        format_value(gpu->core_usage[0], 0),
        format_value(gpu->memory_usage[0], 0),
        format_value(gpu->core_clock.current, 0),
        format_value(gpu->memory_clock.current, 0),
        format_value(gpu->power.watts, 0),
        fans_text(gpu),
    };
    if (wide) {
      const bool pci = gpu->vendor_id != 0 || gpu->device_id != 0;
      row.insert(row.begin() + 3,
                 {pci ? hex4(gpu->vendor_id) + ":" + hex4(gpu->device_id) : "-",
                  field_text("pci.revision", view), field_text("pci.bus", view),
                  gpu->codename[0] ? gpu->codename : "-", units_text(gpu), count_text(gpu->tdp_w)});
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
