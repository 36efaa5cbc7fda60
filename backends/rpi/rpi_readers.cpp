// Raspberry Pi V3D readers: usage from the kernel's V3D statistics (v2) or
// the Raspberry Pi kernels' debugfs file (v1), temperature from the firmware
// tool, clock from the V3D debugfs clock file. Each fetches its text and
// leaves its meaning to rpi_parse.
#include "backends/rpi/rpi_backend.h"
#include "backends/rpi/rpi_parse.h"
#include "io/command_pipe.h"
#include "io/text_file.h"

namespace rpi_backend {

namespace {

const char kStatsPi5[] = "/sys/devices/platform/axi/1002000000.v3d/gpu_stats";
const char kStatsPi4[] = "/sys/devices/platform/v3dbus/fec00000.v3d/gpu_stats";

// Opens the first of two files that opens.
bool open_first(text_file::Lines* file, const char* a, const char* b) {
  return file->open(a) || file->open(b);
}

// The first line of a command's output.
bool command_line(const char* command, char (&line)[128]) {
  return first_line_of(command, line, sizeof line) == PipeAnswer::kLine;
}

}  // namespace

bool read_gpu_usage_v2(zev::GPU* gpu, float* percent) {
  if (gpu == nullptr || percent == nullptr) return false;
  text_file::Lines file;
  if (!open_first(&file, kStatsPi5, kStatsPi4)) {
    *percent = -1.0f;
    return false;
  }
  rpi_parse::V3dUsage usage(&gpu->v3d_last_timestamp, gpu->v3d_last_runtime);
  char line[256];
  while (file.next(line, sizeof line)) usage.add_stats_line(line);
  *percent = usage.busiest_percent();
  return true;
}

bool read_gpu_usage_v1(zev::GPU* gpu, float* percent) {
  if (gpu == nullptr || percent == nullptr) return false;
  text_file::Lines file;
  if (!open_first(&file, "/sys/kernel/debug/dri/0/gpu_usage", "/sys/kernel/debug/dri/1/gpu_usage"))
    return false;
  rpi_parse::V3dUsage usage(&gpu->v3d_last_timestamp, gpu->v3d_last_runtime);
  char line[256];
  while (file.next(line, sizeof line)) usage.add_debug_line(line);
  *percent = usage.busiest_percent();
  return true;
}

// "temp=48.3'C" less its first five characters.
bool read_gpu_core_temp(float* celsius) {
  if (celsius == nullptr) return false;
  char line[128];
  if (!command_line("vcgencmd measure_temp | cut -c6-", line) ||
      !rpi_parse::parse_measure_temp(line, celsius)) {
    *celsius = -1.0f;
    return false;
  }
  return true;
}

bool read_gpu_core_clock(float* mhz) {
  if (mhz == nullptr) return false;
  if (!text_file::can_open(kStatsPi5)) return false;
  char line[128];
  if (!command_line("cat /sys/kernel/debug/dri/1002000000.v3d/measure_clock", line) ||
      !rpi_parse::parse_measure_clock(line, mhz)) {
    *mhz = -1.0f;
    return false;
  }
  return true;
}

}  // namespace rpi_backend
