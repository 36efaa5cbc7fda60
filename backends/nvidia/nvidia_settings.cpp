// nvidia-settings readers: older utilities that ask NVIDIA's X-server
// configuration tool through popen. Nothing in discovery or refresh calls
// them; they stay part of the monitor's interface. Each fetches its answer
// here and parses it with nvidia_settings_answers.h.
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "backends/nvidia/nvidia_backend.h"
#include "backends/nvidia/nvidia_settings_answers.h"
#include "io/command_pipe.h"

namespace nvidia_backend {

namespace {

using Parse = bool (*)(const char* line, float* out);

// The terse query of GPU `index`'s `attribute`, into a zeroed 128-byte buffer.
void format_gpu_query(char (&command)[128], unsigned long index, const char* attribute) {
  std::memset(command, 0, sizeof command);
  std::snprintf(command, sizeof command, "nvidia-settings -q [gpu:%lu]/%s -t", index, attribute);
}

// Runs `command` and reads its output line by line (at most 127 characters
// each) until one parses.
template <Parse parse>
bool first_reading(const char* command, float* out) {
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  char line[128];
  std::memset(line, 0, sizeof line);
  while (std::fgets(line, sizeof line, pipe) != nullptr) {
    if (parse(line, out)) {
      pclose(pipe);
      return true;
    }
  }
  pclose(pipe);
  return false;
}

}  // namespace

bool nvidia_settings_read_driver_version(float* version) {
  if (version == nullptr) return false;
  return first_reading<nvidia_settings_answer::parse_positive_decimal>(
      "nvidia-settings -q NvidiaDriverVersion -t", version);
}

bool nvidia_settings_read_core_temperature(unsigned long index, float* celsius) {
  if (celsius == nullptr) return false;
  char command[128];
  format_gpu_query(command, index, "GPUCoreTemp");
  return first_reading<nvidia_settings_answer::parse_positive_integer>(command, celsius);
}

bool nvidia_settings_read_fan_speed(unsigned long index, float* percent) {
  if (percent == nullptr) return false;
  char command[128];
  format_gpu_query(command, index, "GPUCurrentFanSpeed");
  return first_reading<nvidia_settings_answer::parse_positive_integer>(command, percent);
}

bool nvidia_settings_read_usages(unsigned long index, float* gpu_usage, float* memory_usage) {
  if (gpu_usage == nullptr && memory_usage == nullptr) return false;
  char command[128];
  format_gpu_query(command, index, "GPUUtilization");
  char line[128];
  if (first_line_of(command, line, sizeof line) != PipeAnswer::kLine) return false;
  const nvidia_settings_answer::Utilization u = nvidia_settings_answer::parse_utilization(line);
  // An idle GPU (0 %) stores nothing and still counts as read.
  if (u.graphics >= 1 && gpu_usage != nullptr) *gpu_usage = static_cast<float>(u.graphics);
  if (u.memory > 0 && memory_usage != nullptr) *memory_usage = static_cast<float>(u.memory);
  return true;
}

bool nvidia_settings_has_attribute(const char* name) {
  if (name == nullptr || !nvidia_settings_answer::is_attribute_name(name)) return false;
  char command[256];
  std::memset(command, 0, sizeof command);
  const int length =
      std::snprintf(command, sizeof command, "nvidia-settings -q all | grep %s", name);
  if (length < 0 || static_cast<size_t>(length) >= sizeof command) return false;
  FILE* pipe = popen(command, "r");
  if (pipe == nullptr) return false;
  char line[256];
  std::memset(line, 0, sizeof line);
  // A line means the attribute exists. The pipe is deliberately left open on
  // that path: callers must not rely on it being closed.
  if (std::fgets(line, sizeof line, pipe) != nullptr) return true;
  pclose(pipe);
  return false;
}

}  // namespace nvidia_backend
