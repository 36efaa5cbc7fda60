// Raspberry Pi V3D readers: usage from the kernel's V3D statistics (v2) or
// the Raspberry Pi kernels' debugfs file (v1), temperature from the firmware
// tool, clock from the V3D debugfs clock file. Usage is the busiest of the
// five V3D queues over the time since the previous read; the record keeps
// what that needs (the last time stamp and each queue's run time).
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "io/command_pipe.h"
#include "io/text_file.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

const char kStatsPi5[] = "/sys/devices/platform/axi/1002000000.v3d/gpu_stats";
const char kStatsPi4[] = "/sys/devices/platform/v3dbus/fec00000.v3d/gpu_stats";
constexpr int kQueues = 5;  // bin, render, tfu, csd, cache clean

// Opens the first of two files that opens.
bool open_first(text_file::Lines* file, const char* a, const char* b) {
  return file->open(a) || file->open(b);
}

// The queue of a gpu_stats name; a name whose first seven characters are
// those of "cache_clean" is the cache clean queue.
int stats_queue(const char* name) {
  const char* names[] = {"bin", "render", "tfu", "csd"};
  for (int q = 0; q < 4; ++q)
    if (std::strcmp(name, names[q]) == 0) return q;
  return std::strncmp(name, "cache_clean", 7) == 0 ? 4 : -1;
}

// The queue of a debugfs line, by its first seven characters.
int debug_queue(const char* line) {
  const char* names[kQueues] = {"v3d_bin", "v3d_ren", "v3d_tfu", "v3d_csd", "v3d_cac"};
  for (int q = 0; q < kQueues; ++q)
    if (std::strncmp(line, names[q], 7) == 0) return q;
  return -1;
}

// A queue's load since the last read, and its run time kept for the next.
// Differences wrap as unsigned numbers: hostile values give odd loads, never
// undefined arithmetic.
void account(zev::GPU* gpu, int queue, long long runtime, uint64_t elapsed, float* loads) {
  uint64_t& stored = gpu->v3d_last_runtime[queue];
  float load = 0.0f;
  if (stored != 0 && elapsed != 0) {
    const auto delta = static_cast<int64_t>(static_cast<uint64_t>(runtime) - stored);
    load = static_cast<float>(delta) / static_cast<float>(elapsed);
  }
  stored = static_cast<uint64_t>(runtime);
  loads[queue] = load;
}

float busiest_percent(const float* loads) {
  float most = 0.0f;
  for (int q = 0; q < kQueues; ++q)
    if (loads[q] > most) most = loads[q];
  return most * 100.0f;
}

// The first line of a command's output without its last character.
bool command_line(const char* command, char (&line)[128]) {
  if (first_line_of(command, line, sizeof line) != PipeAnswer::kLine) return false;
  const size_t length = std::strlen(line);
  if (length > 0) line[length - 1] = '\0';
  return true;
}

}  // namespace

bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v2(zev::GPU* gpu, float* percent) {
  if (gpu == nullptr || percent == nullptr) return false;
  text_file::Lines file;
  if (!open_first(&file, kStatsPi5, kStatsPi4)) {
    *percent = -1.0f;
    return false;
  }
  float loads[kQueues] = {0, 0, 0, 0, 0};
  uint64_t elapsed = 0;
  char line[256];
  // "queue timestamp jobs runtime" heads the file; it and any line that is
  // not four fields are skipped. Every row carries the same time stamp.
  while (file.next(line, sizeof line)) {
    char name[64];
    long long timestamp = 0;
    long jobs = 0;
    long long runtime = 0;
    if (std::sscanf(line, "%63s %lld %ld %lld", name, &timestamp, &jobs, &runtime) != 4) continue;
    if (gpu->v3d_last_timestamp < static_cast<uint64_t>(timestamp)) {
      elapsed = static_cast<uint64_t>(timestamp) - gpu->v3d_last_timestamp;
      gpu->v3d_last_timestamp = static_cast<uint64_t>(timestamp);
    }
    const int queue = stats_queue(name);
    if (queue >= 0) account(gpu, queue, runtime, elapsed, loads);
  }
  *percent = busiest_percent(loads);
  return true;
}

bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v1(zev::GPU* gpu, float* percent) {
  if (gpu == nullptr || percent == nullptr) return false;
  text_file::Lines file;
  if (!open_first(&file, "/sys/kernel/debug/dri/0/gpu_usage", "/sys/kernel/debug/dri/1/gpu_usage"))
    return false;
  float loads[kQueues] = {0, 0, 0, 0, 0};
  uint64_t elapsed = 0;
  char line[256];
  while (file.next(line, sizeof line)) {
    long long timestamp = 0;
    if (std::sscanf(line, "timestamp;%lld;", &timestamp) == 1) {
      elapsed = static_cast<uint64_t>(timestamp) - gpu->v3d_last_timestamp;
      gpu->v3d_last_timestamp = static_cast<uint64_t>(timestamp);
      continue;
    }
    // "v3d_render;<jobs>;<runtime>;<active>;"; a line without ';' is skipped.
    const char* fields = std::strchr(line, ';');
    if (fields == nullptr) continue;
    long jobs = 0;
    long long runtime = 0;
    long active = 0;
    if (std::sscanf(fields, ";%ld;%lld;%ld;", &jobs, &runtime, &active) != 3) continue;
    const int queue = debug_queue(line);
    if (queue >= 0) account(gpu, queue, runtime, elapsed, loads);
  }
  *percent = busiest_percent(loads);
  return true;
}

// "temp=48.3'C" less its first five characters and its last one.
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_temp(float* celsius) {
  if (celsius == nullptr) return false;
  char line[128];
  float value = 0.0f;
  if (!command_line("vcgencmd measure_temp | cut -c6-", line) ||
      std::sscanf(line, "%fc%*s", &value) < 1) {
    *celsius = -1.0f;
    return false;
  }
  *celsius = value;
  return true;
}

// Only on a Pi 5 (its V3D statistics file opens): "cycles: N (M MHz)".
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_clock(float* mhz) {
  if (mhz == nullptr) return false;
  if (!text_file::can_open(kStatsPi5)) return false;
  char line[128];
  int cycles = 0;
  float value = 0.0f;
  if (!command_line("cat /sys/kernel/debug/dri/1002000000.v3d/measure_clock", line) ||
      std::sscanf(line, "cycles: %d (%f MHz)", &cycles, &value) != 2) {
    *mhz = -1.0f;
    return false;
  }
  *mhz = value;
  return true;
}
