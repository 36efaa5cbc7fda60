// nvidia-smi readers: one nvidia-smi process per value, through popen, each
// answering one line of CSV. The command lines are fixed; only the GPU index
// (a number) is put into them. Each reader fetches its answer here and
// parses it with nv_smi_answers.h.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "backends/nvidia/nv_smi_answers.h"
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

// A text answer without its trailing newline; an empty answer is no answer.
bool read_text(unsigned long index, const char* field, char* out) {
  if (out == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsv);
  char line[128];
  return run_query(command, line) == PipeAnswer::kLine && nv_smi_answer::parse_text(line, out);
}

// A number without units, read with atoi.
bool read_number(unsigned long index, const char* field, int* out) {
  if (out == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsvNoUnits);
  char line[128];
  return run_query(command, line) == PipeAnswer::kLine && nv_smi_answer::parse_number(line, out);
}

bool read_id_pair(unsigned long index, const char* field, unsigned long* vendor,
                  unsigned long* device) {
  if (vendor == nullptr && device == nullptr) return false;
  char command[128];
  format_query(command, index, field, kCsv);
  char line[128];
  return run_query(command, line) == PipeAnswer::kLine &&
         nv_smi_answer::parse_id_pair(line, vendor, device);
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
  *count = answer == PipeAnswer::kLine ? nv_smi_answer::parse_count(line) : 0;
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
  return read_id_pair(index, "pci.device_id", vendor, device);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_subdevice_id(unsigned long index,
                                                            unsigned long* subvendor,
                                                            unsigned long* subdevice) {
  return read_id_pair(index, "pci.sub_device_id", subvendor, subdevice);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_bus_id(unsigned long index, unsigned long* bus) {
  if (bus == nullptr) return false;
  char command[128];
  format_query(command, index, "pci.bus", kCsv);
  char line[128];
  return run_query(command, line) == PipeAnswer::kLine && nv_smi_answer::parse_bus(line, bus);
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
  return run_query(command, line) == PipeAnswer::kLine &&
         nv_smi_answer::parse_memory_temperature(line, celsius);
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
