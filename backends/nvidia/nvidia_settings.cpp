// nvidia-settings readers: older utilities that ask NVIDIA's X-server
// configuration tool through popen. Nothing in discovery or refresh calls
// them; they stay part of the monitor's interface.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "io/command_pipe.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

// Reads the output of `command` line by line (at most 127 characters each)
// until one converts to a value above 0. A reading of exactly 0 (a stopped
// fan) is no reading.
bool first_positive(const char* command, bool as_integer, float* out) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  char line[128];
  std::memset(line, 0, sizeof line);
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    const float value =
        as_integer ? static_cast<float>(std::atoi(line)) : static_cast<float>(std::atof(line));
    if (value > 0.0f) {
      *out = value;
      pclose(pipe);
      return true;
    }
  }
  pclose(pipe);
  return false;
}

// Sensor names go to a shell (as a grep pattern): only letters, digits and
// underscores are accepted, which is what nvidia-settings attribute names
// are made of.
bool is_attribute_name(const char* name) {
  if (name[0] == '\0') return false;
  for (const char* c = name; *c != '\0'; ++c) {
    const bool letter = (*c >= 'a' && *c <= 'z') || (*c >= 'A' && *c <= 'Z');
    const bool digit = *c >= '0' && *c <= '9';
    if (!letter && !digit && *c != '_') return false;
  }
  return true;
}

}  // namespace

bool GpuMonitorVorn::linux_nvidia_get_driver_version(unsigned long, float* version) {
  if (version == nullptr) return false;
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-settings -q NvidiaDriverVersion -t");
  return first_positive(command, false, version);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_core_temp(unsigned long index, float* celsius) {
  if (celsius == nullptr) return false;
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-settings -q [gpu:%lu]/GPUCoreTemp -t", index);
  return first_positive(command, true, celsius);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_fan_speed(unsigned long index, float* percent) {
  if (percent == nullptr) return false;
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-settings -q [gpu:%lu]/GPUCurrentFanSpeed -t",
                index);
  return first_positive(command, true, percent);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_usages(unsigned long index, float* gpu_usage,
                                                 float* memory_usage) {
  if (gpu_usage == nullptr && memory_usage == nullptr) return false;
  char command[128];
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-settings -q [gpu:%lu]/GPUUtilization -t", index);
  char line[128];
  if (first_line_of(command, line, sizeof line) != PipeAnswer::kLine) return false;
  int graphics = 0;
  int memory = 0;
  int video = 0;
  int pcie = 0;
  std::sscanf(line, "graphics=%d, memory=%d, video=%d, PCIe=%d", &graphics, &memory, &video, &pcie);
  // An idle GPU (0 %) stores nothing and still counts as read.
  if (graphics >= 1 && gpu_usage != nullptr) *gpu_usage = static_cast<float>(graphics);
  if (memory > 0 && memory_usage != nullptr) *memory_usage = static_cast<float>(memory);
  return true;
}

bool GpuMonitorVorn::linux_nvidia_is_sensor_available(unsigned long, const char* name) {
  if (name == nullptr || !is_attribute_name(name)) return false;
  char command[256];
  std::memset(command, 0, sizeof command);
  const int length =
      std::snprintf(command, sizeof command, "nvidia-settings -q all | grep %s", name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof command) return false;
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  char line[256];
  std::memset(line, 0, sizeof line);
  // A line means the sensor exists. The pipe is deliberately left open on
  // that path: callers must not rely on it being closed.
  if (std::fgets(line, sizeof line, pipe) != nullptr) return true;
  pclose(pipe);
  return false;
}
