// Readers that ask command-line tools instead of sysfs: lspci for the
// display adapters (counted in the order lspci lists them) and the old AMD
// aticonfig tool for the core temperature. Start-up and refresh do not use
// them; they remain for machines where the sysfs paths are missing.
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "io/command_pipe.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

constexpr int kWideLine = 256;
constexpr int kNarrowLine = 128;

// Runs `command` and reads its output up to the line at `index` (0-based)
// into `line` (size bytes, at most size - 1 characters). The buffer is cleared
// before each read, so nothing of an earlier line stays behind the
// terminator. False when the command cannot start or has fewer lines.
bool line_at(const char* command, unsigned long index, char* line, int size) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  bool found = false;
  for (unsigned long at = 0;; ++at) {
    std::memset(line, 0, static_cast<size_t>(size));
    if (std::fgets(line, size, pipe) == nullptr) break;
    if (at == index) {
      found = true;
      break;
    }
  }
  pclose(pipe);
  return found;
}

bool says_command_not_found(const char* line) {
  return std::strstr(line, "command not found") != nullptr;
}

}  // namespace

bool GpuMonitorVorn::linux_read_num_gpus(unsigned long* count) {
  if (count == nullptr) return false;
  FILE* pipe = popen("lspci | grep VGA", "r");
  if (pipe == nullptr) return false;
  char line[kWideLine];
  unsigned long lines = 0;
  while (std::fgets(line, sizeof line, pipe) != nullptr) ++lines;
  pclose(pipe);
  *count = lines;
  return true;
}

bool GpuMonitorVorn::linux_read_gpu_pci_codes(unsigned long index, unsigned long* vendor,
                                              unsigned long* device) {
  if (vendor == nullptr && device == nullptr) return false;
  char line[kWideLine];
  if (!line_at("lspci -nn -q | grep VGA | cut -c43- | grep -o '\\[[0-f:]*\\]'", index, line,
               kWideLine)) {
    return false;
  }
  // "[10de:2684]": vendor after the bracket, device after the colon.
  if (std::strlen(line) <= 9) return false;
  if (vendor != nullptr) *vendor = str_to_hex(line[1], line[2], line[3], line[4]);
  if (device != nullptr) *device = str_to_hex(line[6], line[7], line[8], line[9]);
  return true;
}

bool GpuMonitorVorn::linux_read_gpu_pci_rev(unsigned long index, char* revision) {
  if (revision == nullptr) return false;
  char line[kWideLine];
  if (!line_at("lspci -nn -q | grep VGA | cut -c43- | grep -o '\\(rev [0-f:]*\\)'", index, line,
               kWideLine)) {
    return false;
  }
  // "rev a1": the two digits follow "rev" and a blank. Both must lie inside
  // the line, before its newline.
  const size_t length = std::strcspn(line, "\n");
  if (std::strlen(line) < 3 || length < 6) return false;
  revision[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(line[4])));
  revision[1] = static_cast<char>(std::tolower(static_cast<unsigned char>(line[5])));
  return true;
}

bool GpuMonitorVorn::linux_read_gpu_name(unsigned long index, char* name) {
  if (name == nullptr) return false;
  char line[kWideLine];
  if (!line_at("lspci | grep VGA | cut -c36-", index, line, kWideLine)) return false;
  if (line[0] == '\0') return false;
  copy_text(name, kNarrowLine, line);
  return true;
}

bool GpuMonitorVorn::linux_amd_is_gpu_core_temp_sensor_available(unsigned long adapter) {
  char command[kWideLine];
  std::snprintf(command, sizeof command, "aticonfig --odgt --adapter=%lu | grep Temperature",
                adapter);
  char line[kWideLine];
  if (first_line_of(command, line, kWideLine) != PipeAnswer::kLine) return false;
  return !says_command_not_found(line);
}

bool GpuMonitorVorn::linux_amd_gpu_get_core_temp(unsigned long adapter, float* celsius) {
  if (celsius == nullptr) return false;
  char command[kWideLine];
  std::snprintf(command, sizeof command,
                "aticonfig --odgt --adapter=%lu | grep Temperature | cut -c30- | grep -o "
                "'[0-9.]*'",
                adapter);
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) {
    tracef("linux_amd_gpu_get_core_temp - popen error");
    return false;
  }
  tracef("linux_amd_gpu_get_core_temp - popen ok - %s", command);
  char line[kNarrowLine];
  bool found = false;
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    if (says_command_not_found(line)) break;
    const int value = std::atoi(line);
    if (value > 0) {
      *celsius = static_cast<float>(value);
      found = true;
      break;
    }
  }
  pclose(pipe);
  return found;
}

bool GpuMonitorVorn::linux_amd_gpu_get_bios_string(unsigned long adapter, char* text) {
  if (text == nullptr) return false;
  char command[kWideLine];
  std::snprintf(command, sizeof command,
                "cat /proc/ati/%lu/biosversion | grep BIOS_PN | grep -Po '(?<=\")[^\"]*'", adapter);
  char line[kNarrowLine];
  if (first_line_of(command, line, kNarrowLine) != PipeAnswer::kLine) return false;
  copy_text(text, kNarrowLine, line);
  return true;
}
