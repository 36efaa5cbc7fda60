// nvidia-smi readers: one nvidia-smi process per value, through popen, each
// answering one line of CSV. The command lines are fixed; only the GPU index
// (a number) is put into them.
//
// Numeric answers are converted with atoi (a fraction is dropped, units
// printed where none were asked are ignored). An answer that stands for "no
// value" is no reading: the reader fails and the record keeps what it had.
// nvidia-smi prints such answers in brackets ("[N/A]", "[Not Supported]",
// "[Unknown Error]", "[Insufficient Permissions]", ...) or as a bare "N/A",
// and the first design read them as 0 through atoi: 0 % usage on a GPU in
// MIG mode, a fan at 0 on a board without one. The memory temperature's own
// rule (an answer beginning with N is none) stays as it was.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "io/command_pipe.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

// Runs `command` and reads the first line of its output (at most 127
// characters) into `line`, a zeroed 128-byte buffer.
PipeAnswer run_query(const char* command, char (&line)[128]) {
  return first_line_of(command, line, sizeof line);
}

// Formats one per-GPU query into a zeroed 128-byte command buffer.
void format_query(char (&command)[128], unsigned long index, const char* field,
                  const char* format) {
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-smi --id=%d --query-gpu=%s --format=%s",
                static_cast<int>(index), field, format);
}

constexpr const char* kCsv = "csv,noheader";
constexpr const char* kCsvNoUnits = "csv,noheader,nounits";

// Whether an answer line (newline and all) stands for "no value": empty, a
// bare "N/A", or anything in brackets.
bool no_value(const char* line) {
  while (*line == ' ' || *line == '\t') ++line;
  return *line == '\0' || *line == '\n' || *line == '\r' || *line == '[' ||
         std::strncmp(line, "N/A", 3) == 0;
}

// A number answer: optional blanks, an optional sign, then a digit. Anything
// else (an error message, a word) is no reading rather than atoi's 0.
bool is_number(const char* line) {
  while (*line == ' ' || *line == '\t') ++line;
  if (*line == '-' || *line == '+') ++line;
  return std::isdigit(static_cast<unsigned char>(*line)) != 0;
}

// A text answer without its trailing newline; an empty answer is no answer.
bool read_text(unsigned long index, const char* field, char* out) {
  if (out == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsv);
  char line[128];
  if (run_query(command, line) != PipeAnswer::kLine || no_value(line)) return false;
  const size_t length = std::strlen(line);
  if (length > 0 && line[length - 1] == '\n') line[length - 1] = '\0';
  if (line[0] == '\0') return false;
  copy_text(out, 128, line);
  return true;
}

// A number without units, read with atoi.
bool read_number(unsigned long index, const char* field, int* out) {
  if (out == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsvNoUnits);
  char line[128];
  if (run_query(command, line) != PipeAnswer::kLine || !is_number(line)) return false;
  *out = std::atoi(line);
  return true;
}

// "0x" and eight hex digits: the device (or sub-device) first, the vendor
// (or sub-vendor) last, as in 0x268410DE.
bool read_id_pair(GpuMonitorVorn* monitor, unsigned long index, const char* field,
                  unsigned long* vendor, unsigned long* device) {
  if (vendor == nullptr && device == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsv);
  char line[128];
  if (run_query(command, line) != PipeAnswer::kLine || no_value(line) || std::strlen(line) <= 9) {
    return false;
  }
  if (vendor != nullptr) *vendor = monitor->str_to_hex(line[6], line[7], line[8], line[9]);
  if (device != nullptr) *device = monitor->str_to_hex(line[2], line[3], line[4], line[5]);
  return true;
}

}  // namespace

bool GpuMonitorVorn::linux_nv_smi_read_num_gpus(unsigned long* count) {
  if (count == nullptr) return false;
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-smi --query-gpu=count --format=csv,noheader");
  char line[128];
  const PipeAnswer answer = run_query(command, line);
  if (answer == PipeAnswer::kNoProcess) return false;
  // nvidia-smi prints the total once per GPU; the first line is enough. No
  // line at all (no nvidia-smi on the machine) is a count of 0.
  *count = answer == PipeAnswer::kLine ? static_cast<unsigned long>(std::atoi(line)) : 0;
  return true;
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_name(unsigned long index, char* name) {
  return read_text(index, "name", name);
}

bool GpuMonitorVorn::linux_nv_smi_read_driver_version(unsigned long index, char* version) {
  return read_text(index, "driver_version", version);
}

bool GpuMonitorVorn::linux_nv_smi_read_vbios_version(unsigned long index, char* version) {
  return read_text(index, "vbios_version", version);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_device_id(unsigned long index, unsigned long* vendor,
                                                         unsigned long* device) {
  return read_id_pair(this, index, "pci.device_id", vendor, device);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_subdevice_id(unsigned long index,
                                                            unsigned long* subvendor,
                                                            unsigned long* subdevice) {
  return read_id_pair(this, index, "pci.sub_device_id", subvendor, subdevice);
}

// "0x" and two hex digits, as in 0x07.
bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_bus_id(unsigned long index, unsigned long* bus) {
  if (bus == nullptr) return false;
  char command[128];
  format_query(command, index, "pci.bus", kCsv);
  char line[128];
  if (run_query(command, line) != PipeAnswer::kLine || no_value(line) || std::strlen(line) <= 3) {
    return false;
  }
  *bus = str_to_hex2(line[2], line[3]);
  return true;
}

// A percentage of the fan's maximum speed, not turns a minute.
bool GpuMonitorVorn::linux_nv_smi_read_gpu_fan_speed(unsigned long index, int* percent) {
  return read_number(index, "fan.speed", percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_vram_size(unsigned long index, int* mb) {
  return read_number(index, "memory.total", mb);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_vram_used(unsigned long index, int* mb) {
  return read_number(index, "memory.used", mb);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_usage(unsigned long index, int* percent) {
  return read_number(index, "utilization.gpu", percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_usage(unsigned long index, int* percent) {
  return read_number(index, "utilization.memory", percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_temperature(unsigned long index, int* celsius) {
  return read_number(index, "temperature.gpu", celsius);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_temperature(unsigned long index, int* celsius) {
  if (celsius == nullptr) return false;
  char command[128];
  format_query(command, index, "temperature.memory", kCsvNoUnits);
  char line[128];
  if (run_query(command, line) != PipeAnswer::kLine || line[0] == 'N' || !is_number(line)) {
    return false;
  }
  *celsius = std::atoi(line);
  return true;
}

// Whole watts: "215.37" reads as 215.
bool GpuMonitorVorn::linux_nv_smi_read_gpu_power(unsigned long index, int* watts) {
  return read_number(index, "power.draw", watts);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_core_clock(unsigned long index, int* mhz) {
  return read_number(index, "clocks.current.sm", mhz);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_clock(unsigned long index, int* mhz) {
  return read_number(index, "clocks.current.memory", mhz);
}
