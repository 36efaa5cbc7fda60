// nvidia-smi readers: one nvidia-smi process per value, through popen, each
// answering one line of CSV. The command lines are fixed; only the GPU index
// (a number) is put into them. Each reader fetches its answer here and
// parses it with nv_smi_answers.h.
#include <cstdio>
#include <cstring>

#include "backends/nvidia/nv_smi_answers.h"
#include "backends/nvidia/nvidia_backend.h"
#include "io/command_pipe.h"

namespace nvidia_backend {

namespace {

// The --query-gpu field of each reading.
const char* field_name(NvSmiNumber number) {
  switch (number) {
    case NvSmiNumber::kFanSpeed: return "fan.speed";
    case NvSmiNumber::kVramSize: return "memory.total";
    case NvSmiNumber::kVramUsed: return "memory.used";
    case NvSmiNumber::kGpuUsage: return "utilization.gpu";
    case NvSmiNumber::kVramUsage: return "utilization.memory";
    case NvSmiNumber::kGpuTemperature: return "temperature.gpu";
    case NvSmiNumber::kVramTemperature: return "temperature.memory";
    case NvSmiNumber::kGpuPower: return "power.draw";
    case NvSmiNumber::kGpuCoreClock: return "clocks.current.sm";
    case NvSmiNumber::kVramClock: return "clocks.current.memory";
  }
  return "";
}

const char* field_name(NvSmiText text) {
  switch (text) {
    case NvSmiText::kName: return "name";
    case NvSmiText::kDriverVersion: return "driver_version";
    case NvSmiText::kVbiosVersion: return "vbios_version";
  }
  return "";
}

// Runs `command` and reads the first line of its output (at most 127
// characters) into `line`, a zeroed 128-byte buffer.
PipeAnswer run_query(const char* command, char (&line)[128]) {
  return first_line_of(command, line, sizeof line);
}

constexpr const char* kCsv = "csv,noheader";
constexpr const char* kCsvNoUnits = "csv,noheader,nounits";

// Asks GPU `index` for one field; true with its answer in `line`.
bool query(unsigned long index, const char* field, const char* format, char (&line)[128]) {
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-smi --id=%d --query-gpu=%s --format=%s",
                static_cast<int>(index), field, format);
  return run_query(command, line) == PipeAnswer::kLine;
}

}  // namespace

bool nv_smi_read_num_gpus(unsigned long* count) {
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

// A text answer without its trailing newline; an empty answer is no answer.
bool nv_smi_read_text(unsigned long index, NvSmiText text, char* out) {
  if (out == nullptr) return false;
  char line[128];
  return query(index, field_name(text), kCsv, line) && nv_smi_answer::parse_text(line, out);
}

// A number without units, read with atoi (whole watts: "215.37" reads as
// 215); the memory temperature has a rule of its own.
bool nv_smi_read_number(unsigned long index, NvSmiNumber number, int* out) {
  if (out == nullptr) return false;
  char line[128];
  if (!query(index, field_name(number), kCsvNoUnits, line)) return false;
  return number == NvSmiNumber::kVramTemperature
             ? nv_smi_answer::parse_memory_temperature(line, out)
             : nv_smi_answer::parse_number(line, out);
}

bool nv_smi_read_id_pair(unsigned long index, NvSmiIdPair pair, unsigned long* vendor,
                         unsigned long* device) {
  if (vendor == nullptr && device == nullptr) return false;
  const char* field = pair == NvSmiIdPair::kDevice ? "pci.device_id" : "pci.sub_device_id";
  char line[128];
  return query(index, field, kCsv, line) && nv_smi_answer::parse_id_pair(line, vendor, device);
}

bool nv_smi_read_bus(unsigned long index, unsigned long* bus) {
  if (bus == nullptr) return false;
  char line[128];
  return query(index, "pci.bus", kCsv, line) && nv_smi_answer::parse_bus(line, bus);
}

}  // namespace nvidia_backend
