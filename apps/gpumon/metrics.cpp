#include "metrics.h"

#include "metric_text.h"

namespace {

// One sample of a family: a field of the table, under a label telling it
// from the family's other samples, converted to the family's unit.
struct Sample {
  const char* metric;
  const char* type;
  const char* help;
  const char* label;  // "" for none
  const char* value;  // the label's value
  const char* field;  // --query name in the field table
  double multiply;    // metric value = field value * multiply / divide
  double divide;
};

// Samples of one metric follow one another; the first of a metric carries
// its help and type.
const Sample kSamples[] = {
    {"gpumon_gpu_temperature_celsius", "gauge",
     "GPU temperature in degrees Celsius, by sensor (core, memory).", "sensor", "core",
     "temperature.gpu", 1, 1},
    {"gpumon_gpu_temperature_celsius", "", "", "sensor", "memory", "temperature.memory", 1, 1},
    {"gpumon_gpu_temperature_threshold_celsius", "gauge",
     "Temperature at which the GPU acts, in degrees Celsius, by threshold (shutdown, slowdown, "
     "gpu_max: the highest for normal operation).",
     "threshold", "shutdown", "temperature.shutdown", 1, 1},
    {"gpumon_gpu_temperature_threshold_celsius", "", "", "threshold", "slowdown",
     "temperature.slowdown", 1, 1},
    {"gpumon_gpu_temperature_threshold_celsius", "", "", "threshold", "gpu_max",
     "temperature.gpu_max", 1, 1},
    {"gpumon_gpu_usage_ratio", "gauge", "GPU usage from 0 to 1, by engine (core, memory).",
     "engine", "core", "utilization.gpu", 1, 100},
    {"gpumon_gpu_usage_ratio", "", "", "engine", "memory", "utilization.memory", 1, 100},
    {"gpumon_gpu_clock_hertz", "gauge", "GPU clock frequency in hertz, by clock (core, memory).",
     "clock", "core", "clocks.gr", 1e6, 1},
    {"gpumon_gpu_clock_hertz", "", "", "clock", "memory", "clocks.mem", 1e6, 1},
    {"gpumon_gpu_clock_max_hertz", "gauge",
     "Highest clock frequency of the GPU in hertz, by clock (core, memory).", "clock", "core",
     "clocks.max.gr", 1e6, 1},
    {"gpumon_gpu_clock_max_hertz", "", "", "clock", "memory", "clocks.max.mem", 1e6, 1},
    {"gpumon_gpu_power_watts", "gauge", "GPU power draw in watts.", "", "", "power.draw", 1, 1},
    {"gpumon_gpu_power_limit_watts", "gauge", "GPU power limit in force, in watts.", "", "",
     "enforced.power.limit", 1, 1},
    {"gpumon_gpu_power_default_limit_watts", "gauge", "GPU default power limit, in watts.", "", "",
     "power.default_limit", 1, 1},
    {"gpumon_gpu_power_min_limit_watts", "gauge", "Lowest power limit the GPU allows, in watts.",
     "", "", "power.min_limit", 1, 1},
    {"gpumon_gpu_power_max_limit_watts", "gauge", "Highest power limit the GPU allows, in watts.",
     "", "", "power.max_limit", 1, 1},
    {"gpumon_gpu_energy_joules_total", "counter",
     "Energy the GPU has used since its driver was loaded, in joules.", "", "", "energy", 1, 1},
    {"gpumon_gpu_memory_total_bytes", "gauge", "Video memory size in bytes.", "", "",
     "memory.total", 1024 * 1024, 1},
};

// NVML's clock throttle reasons, by bit.
const char* const kThrottleReasons[] = {
    "gpu_idle",
    "applications_clocks_setting",
    "sw_power_cap",
    "hw_slowdown",
    "sync_boost",
    "sw_thermal_slowdown",
    "hw_thermal_slowdown",
    "hw_power_brake_slowdown",
    "display_clock_setting",
};

// A text field of the table ("" when unknown).
std::string text_field(const char* name, const GpuView& view) {
  const GpuField* field = find_query_field(name);
  return field != nullptr ? field->read(view).text : std::string();
}

Labels gpu_labels(const GpuView& view) {
  Labels labels;
  labels.add("gpu", std::to_string(view.slot))
      .add("name", view.gpu->name)
      .add("pci", view.pci_address);
  return labels;
}

// What the GPU is: one sample of 1 whose labels say it.
void add_info(MetricFamily* info, const GpuView& view, const Labels& labels) {
  Labels all = labels;
  all.add("board_name", view.gpu->marketing_name)
      .add("codename", view.gpu->codename)
      .add("driver", view.gpu->driver_name)
      .add("driver_version", view.gpu->driver_version)
      .add("vbios_version", view.gpu->vbios_version)
      .add("vendor_id", text_field("pci.vendor", view))
      .add("device_id", text_field("pci.device_id_only", view))
      .add("subsystem_vendor_id", text_field("pci.sub_vendor", view))
      .add("subsystem_device_id", text_field("pci.sub_device", view))
      .add("revision_id", text_field("pci.revision", view));
  info->add(all, 1);
}

void add_table_samples(std::string* out, const std::vector<GpuView>& gpus,
                       const std::vector<Labels>& labels) {
  for (const Sample* s = std::begin(kSamples); s != std::end(kSamples);) {
    MetricFamily family(s->metric, s->type, s->help);
    do {
      const GpuField* field = find_query_field(s->field);
      for (size_t g = 0; field != nullptr && g < gpus.size(); ++g) {
        const FieldValue value = field->read(gpus[g]);
        if (value.kind != FieldValue::kNumber) continue;
        family.add(s->label[0] ? labels[g].with(s->label, s->value) : labels[g],
                   value.number * s->multiply / s->divide);
      }
      ++s;
    } while (s != std::end(kSamples) && s->type[0] == '\0');
    family.write_to(out);
  }
}

// Readings the field table does not have (yet): memory in use, throttle
// reasons one by one, PCIe throughput, every fan.
void add_record_samples(std::string* out, const std::vector<GpuView>& gpus,
                        const std::vector<Labels>& labels) {
  MetricFamily used("gpumon_gpu_memory_used_bytes", "gauge", "Video memory in use, in bytes.");
  MetricFamily throttle("gpumon_gpu_throttle_reason", "gauge",
                        "1 for each reason the GPU's clocks are held back now (NVML).");
  MetricFamily pcie("gpumon_gpu_pcie_throughput_bytes_per_second", "gauge",
                    "PCIe throughput over the last 20 ms, in bytes a second, by direction "
                    "(rx: to the GPU, tx: from it) (NVML).");
  MetricFamily ratio("gpumon_gpu_fan_speed_ratio", "gauge",
                     "Fan speed from 0 to 1 of its maximum, by fan.");
  MetricFamily rpm("gpumon_gpu_fan_speed_rpm", "gauge",
                   "Fan speed in revolutions per minute, by fan.");
  for (size_t g = 0; g < gpus.size(); ++g) {
    const zev::GPU& gpu = *gpus[g].gpu;
    if (gpu.vram_used_mb >= 0) used.add(labels[g], static_cast<double>(gpu.vram_used_mb) * 1048576);
    if (gpu.throttle_reason_text[0] != '\0') {
      for (unsigned bit = 0; bit < 64; ++bit) {
        if ((gpu.throttle_reasons >> bit & 1u) == 0) continue;
        const std::string reason = bit < std::size(kThrottleReasons) ? kThrottleReasons[bit]
                                                                     : "bit_" + std::to_string(bit);
        throttle.add(labels[g].with("reason", reason), 1);
      }
    }
    // NVML's kilobytes are 1024 bytes.
    if (gpu.nvml_device != nullptr && gpu.pcie_rx_throughput != kPcieThroughputUnread)
      pcie.add(labels[g].with("direction", "rx"), gpu.pcie_rx_throughput * 1024.0);
    if (gpu.nvml_device != nullptr && gpu.pcie_tx_throughput != kPcieThroughputUnread)
      pcie.add(labels[g].with("direction", "tx"), gpu.pcie_tx_throughput * 1024.0);
    for (uint64_t i = 0; gpu.fans != nullptr && i < gpu.num_fans; ++i) {
      const Labels fan = labels[g].with("fan", std::to_string(i));
      const FieldValue percent = FieldValue::reading(gpu.fans[i].speed_percent, 100);
      if (percent.known()) ratio.add(fan, percent.number);
      const FieldValue turns = FieldValue::reading(gpu.fans[i].rpm);
      if (turns.known()) rpm.add(fan, turns.number);
    }
  }
  for (const MetricFamily* family : {&used, &throttle, &pcie, &ratio, &rpm}) family->write_to(out);
}

}  // namespace

std::string render_metrics(const std::vector<GpuView>& gpus, const ScrapeFacts& facts) {
  std::string out;
  MetricFamily build("gpumon_build_info", "gauge",
                     "1, with gpumon's version, the monitor plug-in's and the JSON schema's.");
  build.add(Labels()
                .add("version", facts.version)
                .add("plugin_version", facts.plugin_version)
                .add("schema", std::to_string(facts.schema)),
            1);
  build.write_to(&out);
  MetricFamily success("gpumon_scrape_success", "gauge",
                       "1 when the monitor's refresh for this scrape succeeded, else 0.");
  success.add(Labels(), facts.success ? 1 : 0);
  success.write_to(&out);
  MetricFamily duration("gpumon_scrape_duration_seconds", "gauge",
                        "How long the monitor's refresh for this scrape took, in seconds.");
  duration.add(Labels(), facts.seconds);
  duration.write_to(&out);
  MetricFamily count("gpumon_gpus", "gauge", "Number of GPUs served.");
  count.add(Labels(), static_cast<double>(gpus.size()));
  count.write_to(&out);

  std::vector<Labels> labels;
  MetricFamily info("gpumon_gpu_info", "gauge",
                    "1 for each GPU, with what it is as labels (names, driver, VBIOS, PCI ids).");
  for (const GpuView& view : gpus) {
    labels.push_back(gpu_labels(view));
    add_info(&info, view, labels.back());
  }
  info.write_to(&out);
  add_table_samples(&out, gpus, labels);
  add_record_samples(&out, gpus, labels);
  return out;
}
