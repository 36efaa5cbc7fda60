#include "metrics.h"

#include <charconv>

namespace {

// Length of the well-formed UTF-8 sequence at text[i]; 0 when the bytes
// there are not one (a stray continuation byte, an overlong form, a
// surrogate, a cut-off sequence).
size_t utf8_length(const std::string& text, size_t i) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  if (lead < 0x80) return 1;
  size_t length = 0;
  unsigned code = 0, least = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, code = lead & 0x1Fu, least = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, code = lead & 0x0Fu, least = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, code = lead & 0x07u, least = 0x10000;
  } else {
    return 0;
  }
  if (i + length > text.size()) return 0;
  for (size_t k = 1; k < length; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3Fu);
  }
  if (code < least || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
  return length;
}

std::string format_number(double value) {
  char text[512];  // the longest double written out in full is 309 digits
  // Shortest exact form without an exponent: 2619000000, 0.37.
  const std::to_chars_result end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::fixed);
  return std::string(text, end.ptr);
}

// One sample of a family: a field of the table, under a label telling it
// from the family's other samples, converted to the family's unit.
struct Sample {
  const char* metric;
  const char* type;
  const char* help;
  const char* label;  // "" for none
  const char* field;  // --query name in the field table
  double multiply;    // metric value = field value * multiply / divide
  double divide;
};

// Samples of one metric follow one another; the first of a metric carries
// its help and type.
const Sample kSamples[] = {
    {"gpumon_gpu_temperature_celsius", "gauge",
     "GPU temperature in degrees Celsius, by sensor (core, memory).", "sensor=\"core\"",
     "temperature.gpu", 1, 1},
    {"gpumon_gpu_temperature_celsius", "", "", "sensor=\"memory\"", "temperature.memory", 1, 1},
    {"gpumon_gpu_usage_ratio", "gauge", "GPU usage from 0 to 1, by engine (core, memory).",
     "engine=\"core\"", "utilization.gpu", 1, 100},
    {"gpumon_gpu_usage_ratio", "", "", "engine=\"memory\"", "utilization.memory", 1, 100},
    {"gpumon_gpu_clock_hertz", "gauge", "GPU clock frequency in hertz, by clock (core, memory).",
     "clock=\"core\"", "clocks.gr", 1e6, 1},
    {"gpumon_gpu_clock_hertz", "", "", "clock=\"memory\"", "clocks.mem", 1e6, 1},
    {"gpumon_gpu_power_watts", "gauge", "GPU power draw in watts.", "", "power.draw", 1, 1},
    {"gpumon_gpu_power_limit_watts", "gauge", "GPU power limit in force, in watts.", "",
     "enforced.power.limit", 1, 1},
    {"gpumon_gpu_energy_joules_total", "counter",
     "Energy the GPU has used since its driver was loaded, in joules.", "", "energy", 1, 1},
};

// A text field of the table ("" when unknown).
std::string text_field(const char* name, const GpuView& view) {
  const GpuField* field = find_query_field(name);
  return field != nullptr ? field->read(view).text : std::string();
}

std::string gpu_labels(const GpuView& view) {
  return "gpu=\"" + std::to_string(view.slot) + "\",name=\"" +
         escape_label_value(text_field("name", view)) + "\",pci=\"" +
         escape_label_value(text_field("pci.bus_id", view)) + "\"";
}

std::string header(const std::string& metric, const char* type, const char* help) {
  return "# HELP " + metric + " " + help + "\n# TYPE " + metric + " " + type + "\n";
}

void add_sample(std::string* out, const std::string& metric, const std::string& labels,
                double value) {
  *out += metric + "{" + labels + "} " + format_number(value) + "\n";
}

// Fans, every one of them (the field table has the first alone).
void add_fans(std::string* out, const std::vector<GpuView>& gpus,
              const std::vector<std::string>& labels) {
  const struct {
    const char* metric;
    const char* help;
    float zev::gpuFanSpeed::*value;
    double divide;
  } kFans[] = {
      {"gpumon_gpu_fan_speed_ratio", "Fan speed from 0 to 1 of its maximum, by fan.",
       &zev::gpuFanSpeed::speed_percent, 100},
      {"gpumon_gpu_fan_speed_rpm", "Fan speed in revolutions per minute, by fan.",
       &zev::gpuFanSpeed::rpm, 1},
  };
  for (const auto& kind : kFans) {
    std::string samples;
    for (size_t g = 0; g < gpus.size(); ++g) {
      const zev::GPU& gpu = *gpus[g].gpu;
      for (uint64_t i = 0; gpu.fans != nullptr && i < gpu.num_fans; ++i) {
        const FieldValue value = FieldValue::reading(gpu.fans[i].*kind.value);
        if (!value.known()) continue;
        add_sample(&samples, kind.metric, labels[g] + ",fan=\"" + std::to_string(i) + "\"",
                   value.number / kind.divide);
      }
    }
    if (!samples.empty()) *out += header(kind.metric, "gauge", kind.help) + samples;
  }
}

}  // namespace

std::string escape_label_value(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t length = utf8_length(text, i);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    const char c = text[i];
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '"') {
      out += "\\\"";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out.append(text, i, length);
    }
    i += length;
  }
  return out;
}

std::string render_metrics(const std::vector<GpuView>& gpus) {
  std::vector<std::string> labels;
  for (const GpuView& view : gpus) labels.push_back(gpu_labels(view));
  std::string out = header("gpumon_gpus", "gauge", "Number of GPUs served.") + "gpumon_gpus " +
                    std::to_string(gpus.size()) + "\n";
  // A metric's samples are gathered first: one with none is left out whole.
  std::string samples;
  const Sample* first = nullptr;
  for (const Sample& sample : kSamples) {
    if (sample.type[0] != '\0') {
      if (!samples.empty()) out += header(first->metric, first->type, first->help) + samples;
      samples.clear();
      first = &sample;
    }
    const GpuField* field = find_query_field(sample.field);
    for (size_t g = 0; field != nullptr && g < gpus.size(); ++g) {
      const FieldValue value = field->read(gpus[g]);
      if (value.kind != FieldValue::kNumber) continue;
      add_sample(&samples, sample.metric,
                 sample.label[0] ? labels[g] + "," + sample.label : labels[g],
                 value.number * sample.multiply / sample.divide);
    }
  }
  if (!samples.empty()) out += header(first->metric, first->type, first->help) + samples;
  add_fans(&out, gpus, labels);
  return out;
}
