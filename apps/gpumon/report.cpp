#include "report.h"

#include <algorithm>
#include <cstdio>

#include "gpu_fields.h"

namespace {

// The widest the default table gets.
constexpr size_t kTableWidth = 120;

// Which tables show a column: both, the plain one or the --wide one.
enum class Shown { kBoth, kPlain, kWide };

// How a column shows its fields.
enum class Form {
  kFirstKnown,    // the first known of the fields
  kRange,         // "61 (40-82)": the value, and its lowest and highest when all are known
  kUsedOfTotal,   // "2048/8176", the total alone while the used is unknown
  kCounts,        // "3584/224/64", "-" when none is known
  kVendorDevice,  // "1002:744C" of pci.device_id's "0x744C1002"
  kEveryFan,      // every fan's speed, from the record (the fields hold the first fan's)
};

// A column of the table: the fields it shows, by their --query names (the
// field table reads them, as for JSON, CSV and the metrics).
struct Column {
  const char* header;
  Shown shown;
  Form form;
  const char* fields[3];
};

const Column kColumns[] = {
    {"GPU", Shown::kBoth, Form::kFirstKnown, {"index"}},
    {"Name", Shown::kBoth, Form::kFirstKnown, {"name"}},
    {"PCI", Shown::kBoth, Form::kFirstKnown, {"pci.bus_id"}},
    // The kernel driver's name; NVIDIA's back-ends know only its version.
    {"Driver", Shown::kBoth, Form::kFirstKnown, {"driver_name", "driver_version"}},
    {"ID", Shown::kWide, Form::kVendorDevice, {"pci.device_id"}},
    {"Rev", Shown::kWide, Form::kFirstKnown, {"pci.revision"}},
    {"Bus", Shown::kWide, Form::kFirstKnown, {"pci.bus"}},
    {"Chip", Shown::kWide, Form::kFirstKnown, {"codename"}},
    {"Shaders/TMUs/ROPs",
     Shown::kWide,
     Form::kCounts,
     {"units.shaders", "units.texture", "units.rops"}},
    {"TDP W", Shown::kWide, Form::kFirstKnown, {"power.tdp"}},
    {"Temp C", Shown::kPlain, Form::kFirstKnown, {"temperature.gpu"}},
    {"Temp C",
     Shown::kWide,
     Form::kRange,
     {"temperature.gpu", "temperature.gpu.lowest", "temperature.gpu.highest"}},
    {"Mem C", Shown::kBoth, Form::kFirstKnown, {"temperature.memory"}},
    {"Core %", Shown::kBoth, Form::kFirstKnown, {"utilization.gpu"}},
    {"Mem %", Shown::kBoth, Form::kFirstKnown, {"utilization.memory"}},
    {"VRAM MiB", Shown::kWide, Form::kUsedOfTotal, {"memory.used", "memory.total"}},
    {"Core MHz", Shown::kBoth, Form::kFirstKnown, {"clocks.gr"}},
    {"Mem MHz", Shown::kBoth, Form::kFirstKnown, {"clocks.mem"}},
    {"Power W", Shown::kBoth, Form::kFirstKnown, {"power.draw"}},
    {"Fans", Shown::kBoth, Form::kEveryFan, {}},
};

bool in_table(const Column& column, bool wide) {
  return column.shown == Shown::kBoth || column.shown == (wide ? Shown::kWide : Shown::kPlain);
}

// A value as the table shows it: numbers whole, "-" when unknown.
std::string shown(const FieldValue& value) {
  switch (value.kind) {
    case FieldValue::kNumber: {
      char text[64];
      std::snprintf(text, sizeof text, "%.0f", value.number);
      return text;
    }
    case FieldValue::kText: return value.text;
    case FieldValue::kBool: return value.flag ? "yes" : "no";
    case FieldValue::kUnknown: break;
  }
  return "-";
}

std::string field_text(const char* name, const GpuView& view) {
  const GpuField* field = name != nullptr ? find_query_field(name) : nullptr;
  return shown(field != nullptr ? field->read(view) : FieldValue::unknown());
}

// Every fan's speed: "1320,1315,0 rpm", "30,31%", or "-"; a fan known only
// in the other unit, or not at all, shows as such ("1320 rpm,40%,-").
std::string fans_text(const zev::GPU* gpu) {
  if (gpu->fans == nullptr || gpu->num_fans == 0) return "-";
  std::vector<std::string> values;
  std::vector<std::string> units;
  for (uint64_t i = 0; i < gpu->num_fans; ++i) {
    const FieldValue rpm = FieldValue::reading(gpu->fans[i].rpm);
    const FieldValue percent = FieldValue::reading(gpu->fans[i].speed_percent);
    values.push_back(shown(rpm.known() ? rpm : percent));
    units.push_back(rpm.known() ? " rpm" : percent.known() ? "%" : "");
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

std::string cell(const Column& column, const GpuView& view) {
  std::string shown[3];
  for (int i = 0; i < 3; ++i) shown[i] = field_text(column.fields[i], view);
  switch (column.form) {
    case Form::kFirstKnown:
      return shown[0] != "-" || column.fields[1] == nullptr ? shown[0] : shown[1];
    case Form::kRange:
      if (shown[0] == "-" || shown[1] == "-" || shown[2] == "-") return shown[0];
      return shown[0] + " (" + shown[1] + "-" + shown[2] + ")";
    case Form::kUsedOfTotal: return shown[0] == "-" ? shown[1] : shown[0] + "/" + shown[1];
    case Form::kCounts:
      if (shown[0] == "-" && shown[1] == "-" && shown[2] == "-") return "-";
      return shown[0] + "/" + shown[1] + "/" + shown[2];
    case Form::kVendorDevice:
      return shown[0] == "-" ? shown[0] : shown[0].substr(6, 4) + ":" + shown[0].substr(2, 4);
    case Form::kEveryFan: return fans_text(view.gpu);
  }
  return "-";
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

std::string render_table(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus, bool wide) {
  std::vector<std::vector<std::string>> rows(1);
  for (const Column& column : kColumns)
    if (in_table(column, wide)) rows[0].push_back(column.header);
  for (const GpuView& view : gpus) {
    rows.emplace_back();
    for (const Column& column : kColumns)
      if (in_table(column, wide)) rows.back().push_back(cell(column, view));
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
