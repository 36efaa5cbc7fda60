#include "live_layout.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "record/record_slots.h"

namespace {

constexpr size_t kHistoryLength = 512;

bool known(float v) { return v != -1.0f && std::isfinite(v); }

std::string format(const char* pattern, double value) {
  char text[64];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}

Tone tone_of(double fraction) {
  return fraction < 0.6 ? Tone::kGood : fraction < 0.85 ? Tone::kWarn : Tone::kHot;
}

// A row being filled from left to right.
struct RowBuilder {
  Row row;
  int column = 0;
  void add(const std::string& text, Tone tone = Tone::kNormal) {
    row.push_back({column, text, tone});
    column += static_cast<int>(text.size());
  }
  void skip(int n) { column += n; }
};

// "LABEL [||||||      ] TEXT": the bar is `fraction` full (nothing when unknown).
void bar(RowBuilder* b, const char* label, double fraction, int width, const std::string& text) {
  b->add(label, Tone::kLabel);
  b->add("[");
  const bool have = fraction >= 0.0 && std::isfinite(fraction);
  const int filled = have ? static_cast<int>(std::lround(std::min(fraction, 1.0) * width)) : 0;
  b->add(std::string(static_cast<size_t>(filled), '|'), tone_of(fraction));
  b->add(std::string(static_cast<size_t>(width - filled), ' ') + "] ");
  std::string shown = have ? text : "-";
  shown.resize(std::max<size_t>(shown.size(), 14), ' ');
  b->add(shown);
}

// The temperature the bar runs up to: the slowdown threshold, the highest
// for normal operation or the shutdown one (NVML), else 100 C.
float temperature_limit(const zev::GPU& gpu) {
  for (int i : {1, 2, 0})
    if (gpu.temperature_thresholds[i] > 0) return static_cast<float>(gpu.temperature_thresholds[i]);
  return 100.0f;
}

bool has_threshold(const zev::GPU& gpu) {
  return gpu.temperature_thresholds[0] > 0 || gpu.temperature_thresholds[1] > 0 ||
         gpu.temperature_thresholds[2] > 0;
}

// The power the bar runs up to: the limit in force (NVML, milliwatts), else
// the board's TDP; 0 when neither is known.
float power_limit(const zev::GPU& gpu) {
  if (gpu.power.enforced_limit > 0.0f) return gpu.power.enforced_limit / 1000.0f;
  if (gpu.tdp_w != 0 && gpu.tdp_w != 0xFFFFFFFFu) return static_cast<float>(gpu.tdp_w);
  return 0.0f;
}

// One character a value: " .:-=+*#" from the bottom to the top of its range.
std::string sparkline(const std::deque<float>& values, float low, float high, int width) {
  static const char kLevels[] = " .:-=+*#";
  std::string line;
  const size_t n = std::min(values.size(), static_cast<size_t>(std::max(width, 0)));
  for (size_t i = values.size() - n; i < values.size(); ++i) {
    const float v = values[i];
    if (!known(v)) {
      line += '?';
      continue;
    }
    const float f = std::clamp((v - low) / (high - low), 0.0f, 1.0f);
    line += kLevels[static_cast<int>(std::lround(f * 7.0f))];
  }
  return std::string(static_cast<size_t>(width) - line.size(), ' ') + line;
}

std::string fans_text(const zev::GPU& gpu) {
  std::string text;
  for (uint64_t i = 0; gpu.fans != nullptr && i < gpu.num_fans && i < 4; ++i) {
    const zev::gpuFanSpeed& fan = gpu.fans[i];
    text += known(fan.speed_percent) ? format("%.0f%% ", fan.speed_percent)
            : known(fan.rpm)         ? format("%.0frpm ", fan.rpm)
                                     : std::string("- ");
  }
  return text.empty() ? "-" : text;
}

std::string clock_text(float mhz) { return known(mhz) ? format("%.0f MHz", mhz) : "-"; }

std::string process_name(const char* path) {
  const std::string name = path;
  const size_t slash = name.find_last_of('/');
  return slash == std::string::npos || slash + 1 == name.size() ? name : name.substr(slash + 1);
}

// The processes using the GPU, busiest first (NVML GPUs only).
std::vector<const zev::gpuProcessUtilization*> processes(const zev::GPU& gpu) {
  std::vector<const zev::gpuProcessUtilization*> list;
  for (uint32_t i = 0; gpu.process_utilization != nullptr && i < gpu.num_process_utilization; ++i)
    list.push_back(&gpu.process_utilization[i]);
  std::stable_sort(list.begin(), list.end(),
                   [](const auto* a, const auto* b) { return a->sm_util > b->sm_util; });
  return list;
}

// The rows of one GPU's block; `process_rows` rows at most for processes.
std::vector<Row> gpu_block(const GpuView& view, const GpuHistory& history, bool selected, int width,
                           size_t process_rows) {
  const zev::GPU& gpu = *view.gpu;
  std::vector<Row> rows;
  RowBuilder title;
  std::string name = std::to_string(view.slot) + "  " + display_name(gpu);
  const std::string where = view.pci_address.empty() ? "" : "  " + view.pci_address;
  title.add(selected ? ">" : " ", Tone::kSelected);
  name.resize(std::min(name.size(), static_cast<size_t>(width) - where.size() - 2));
  title.add(name, selected ? Tone::kSelected : Tone::kTitle);
  title.skip(width - 1 - static_cast<int>(name.size() + where.size()));
  title.add(where, Tone::kLabel);
  rows.push_back(title.row);

  const int bar_width = std::max(8, (width - 2 * 24) / 2);
  RowBuilder usage;
  usage.skip(2);
  const float core = gpu.core_usage[0];
  bar(&usage, "GPU  ", known(core) ? core / 100.0 : -1.0, bar_width, format("%3.0f %%", core));
  if (gpu.vram_size_mb > 0 && gpu.vram_used_mb >= 0) {
    const double used = static_cast<double>(gpu.vram_used_mb),
                 total = static_cast<double>(gpu.vram_size_mb);
    bar(&usage, "MEM  ", used / total, bar_width,
        format("%.0f", used) + "/" + format("%.0f MiB", total));
  } else {
    const float memory = gpu.memory_usage[0];
    bar(&usage, "MEM  ", known(memory) ? memory / 100.0 : -1.0, bar_width,
        format("%3.0f %% busy", memory));
  }
  rows.push_back(usage.row);

  RowBuilder heat;
  heat.skip(2);
  const float temperature = gpu.temperatures[gpu_record::kCoreTemperature].current,
              limit = temperature_limit(gpu);
  bar(&heat, "TEMP ", known(temperature) ? temperature / limit : -1.0, bar_width,
      format("%.0f", temperature) + (has_threshold(gpu) ? format("/%.0f C", limit) : " C"));
  const float watts = gpu.power.watts, watts_limit = power_limit(gpu);
  bar(&heat, "POWER", known(watts) ? (watts_limit > 0 ? watts / watts_limit : 0.0) : -1.0,
      bar_width, format("%.0f", watts) + (watts_limit > 0 ? format("/%.0f W", watts_limit) : " W"));
  rows.push_back(heat.row);

  RowBuilder facts;
  facts.skip(2);
  facts.add("FAN ", Tone::kLabel);
  facts.add(fans_text(gpu) + "  ");
  facts.add("CORE ", Tone::kLabel);
  facts.add(clock_text(gpu.core_clock.current) + "  ");
  facts.add("MEM ", Tone::kLabel);
  facts.add(clock_text(gpu.memory_clock.current) + "  ");
  if (gpu.throttle_reason_text[0] != '\0') {
    facts.add("HELD ", Tone::kLabel);
    facts.add(gpu.throttle_reason_text);
  }
  rows.push_back(facts.row);

  const int graph = width - 12;
  RowBuilder usage_history;
  usage_history.skip(2);
  usage_history.add("usage  ", Tone::kLabel);
  usage_history.add(sparkline(history.usage, 0.0f, 100.0f, graph), Tone::kGood);
  rows.push_back(usage_history.row);
  RowBuilder temperature_history;
  temperature_history.skip(2);
  temperature_history.add("temp   ", Tone::kLabel);
  temperature_history.add(sparkline(history.temperature, 20.0f, limit, graph), Tone::kWarn);
  rows.push_back(temperature_history.row);

  const auto list = processes(gpu);
  for (size_t i = 0; i < list.size() && i < process_rows; ++i) {
    RowBuilder process;
    process.skip(2);
    const bool last = i + 1 == process_rows && list.size() > process_rows;
    if (last) {
      process.add("... " + std::to_string(list.size() - i) + " more processes", Tone::kLabel);
    } else {
      std::string name = process_name(list[i]->process_name);
      name.resize(std::min<size_t>(name.size(), static_cast<size_t>(width) - 40));
      process.add(format("%7.0f ", list[i]->pid), Tone::kLabel);
      process.add(name);
      process.column = std::max(process.column, width - 28);
      process.add(format("SM %3.0f%%  ", list[i]->sm_util) +
                  format("MEM %3.0f%%", list[i]->mem_util));
    }
    rows.push_back(process.row);
  }
  return rows;
}

// Cuts the spans of a row at `width` columns.
void clip(Row* row, int width) {
  Row kept;
  for (Span span : *row) {
    if (span.column >= width || span.text.empty()) continue;
    span.text.resize(std::min(span.text.size(), static_cast<size_t>(width - span.column)));
    kept.push_back(span);
  }
  *row = kept;
}

}  // namespace

void GpuHistory::add(const zev::GPU& gpu) {
  usage.push_back(gpu.core_usage[0]);
  temperature.push_back(gpu.temperatures[gpu_record::kCoreTemperature].current);
  if (usage.size() > kHistoryLength) usage.pop_front();
  if (temperature.size() > kHistoryLength) temperature.pop_front();
}

std::vector<Row> layout_live_view(const std::vector<GpuView>& gpus, const LiveState& state,
                                  int width, int height) {
  std::vector<Row> rows;
  if (width < kMinColumns || height < kMinRows) {
    // Said in as many rows as it takes, broken between words.
    const std::string message = "gpumon: the terminal is " + std::to_string(width) + "x" +
                                std::to_string(height) + "; the live view needs " +
                                std::to_string(kMinColumns) + "x" + std::to_string(kMinRows) +
                                " (q quits)";
    std::string line;
    size_t at = 0;
    while (at < message.size() && static_cast<int>(rows.size()) < height) {
      size_t end = message.find(' ', at);
      if (end == std::string::npos) end = message.size();
      const std::string word = message.substr(at, end - at);
      if (!line.empty() && static_cast<int>(line.size() + 1 + word.size()) > width) {
        rows.push_back({{0, line, Tone::kHot}});
        line.clear();
      }
      line += (line.empty() ? "" : " ") + word;
      at = end + 1;
    }
    if (!line.empty() && static_cast<int>(rows.size()) < height)
      rows.push_back({{0, line, Tone::kHot}});
    for (Row& row : rows) clip(&row, width);
    return rows;
  }
  RowBuilder title;
  title.add("gpumon", Tone::kTitle);
  title.add(format("  refresh %.0f", static_cast<double>(state.refreshes)) +
            format(", every %g s", state.period_seconds));
  title.add("  " + state.cpu, Tone::kLabel);
  rows.push_back(title.row);

  // Every GPU's block from the selected one on (earlier ones scroll off when
  // the screen is too short), with room for the processes shared out.
  const int room = height - 2;  // the title and the keys
  const size_t fixed = 7;       // a block without processes, and the blank row after it
  size_t first = 0;
  if (!gpus.empty()) {
    const size_t fit = std::max<size_t>(1, static_cast<size_t>(room) / fixed);
    first = state.selected + 1 > fit ? state.selected + 1 - fit : 0;
  }
  size_t shown = 0;
  while (first + shown < gpus.size() && (shown + 1) * fixed <= static_cast<size_t>(room)) ++shown;
  const size_t spare = static_cast<size_t>(room) - shown * fixed;
  if (gpus.empty()) rows.push_back({{1, "No GPU found.", Tone::kWarn}});
  for (size_t i = first; i < first + shown; ++i) {
    const size_t process_rows = shown > 0 ? spare / shown : 0;
    const GpuHistory empty;
    const GpuHistory& history = i < state.histories.size() ? state.histories[i] : empty;
    for (Row& row : gpu_block(gpus[i], history, i == state.selected, width, process_rows))
      rows.push_back(row);
    rows.push_back({});
  }
  while (static_cast<int>(rows.size()) < height - 1) rows.push_back({});
  rows.resize(static_cast<size_t>(height - 1));
  rows.push_back({{0, "q quit  +/- period  up/down or 0-9 select a GPU", Tone::kLabel}});
  for (Row& row : rows) clip(&row, width);
  return rows;
}
