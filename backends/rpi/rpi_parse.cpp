#include "backends/rpi/rpi_parse.h"

#include <cstdio>
#include <cstring>

namespace rpi_parse {

namespace {

// `line` without its last character (the newline of a tool's answer), into
// a buffer as long as the tools' lines.
void cut_last(const char* line, char (&out)[128]) {
  std::strncpy(out, line, sizeof out - 1);
  out[sizeof out - 1] = '\0';
  const size_t length = std::strlen(out);
  if (length > 0) out[length - 1] = '\0';
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
  const char* names[kV3dQueues] = {"v3d_bin", "v3d_ren", "v3d_tfu", "v3d_csd", "v3d_cac"};
  for (int q = 0; q < kV3dQueues; ++q)
    if (std::strncmp(line, names[q], 7) == 0) return q;
  return -1;
}

}  // namespace

bool parse_measure_temp(const char* line, float* celsius) {
  char text[128];
  cut_last(line, text);
  float value = 0.0f;
  if (std::sscanf(text, "%fc%*s", &value) < 1) return false;
  *celsius = value;
  return true;
}

bool parse_measure_clock(const char* line, float* mhz) {
  char text[128];
  cut_last(line, text);
  int cycles = 0;
  float value = 0.0f;
  if (std::sscanf(text, "cycles: %d (%f MHz)", &cycles, &value) != 2) return false;
  *mhz = value;
  return true;
}

// A queue's load since the last read, and its run time kept for the next.
void V3dUsage::account(int queue, long long runtime) {
  uint64_t& stored = last_runtime_[queue];
  float load = 0.0f;
  if (stored != 0 && elapsed_ != 0) {
    const auto delta = static_cast<int64_t>(static_cast<uint64_t>(runtime) - stored);
    load = static_cast<float>(delta) / static_cast<float>(elapsed_);
  }
  stored = static_cast<uint64_t>(runtime);
  loads_[queue] = load;
}

// Every row carries the same time stamp; one that goes backwards keeps the
// interval.
void V3dUsage::add_stats_line(const char* line) {
  char name[64];
  long long timestamp = 0;
  long jobs = 0;
  long long runtime = 0;
  if (std::sscanf(line, "%63s %lld %ld %lld", name, &timestamp, &jobs, &runtime) != 4) return;
  if (*last_timestamp_ < static_cast<uint64_t>(timestamp)) {
    elapsed_ = static_cast<uint64_t>(timestamp) - *last_timestamp_;
    *last_timestamp_ = static_cast<uint64_t>(timestamp);
  }
  const int queue = stats_queue(name);
  if (queue >= 0) account(queue, runtime);
}

void V3dUsage::add_debug_line(const char* line) {
  long long timestamp = 0;
  if (std::sscanf(line, "timestamp;%lld;", &timestamp) == 1) {
    elapsed_ = static_cast<uint64_t>(timestamp) - *last_timestamp_;
    *last_timestamp_ = static_cast<uint64_t>(timestamp);
    return;
  }
  const char* fields = std::strchr(line, ';');
  if (fields == nullptr) return;
  long jobs = 0;
  long long runtime = 0;
  long active = 0;
  if (std::sscanf(fields, ";%ld;%lld;%ld;", &jobs, &runtime, &active) != 3) return;
  const int queue = debug_queue(line);
  if (queue >= 0) account(queue, runtime);
}

float V3dUsage::busiest_percent() const {
  float most = 0.0f;
  for (int q = 0; q < kV3dQueues; ++q)
    if (loads_[q] > most) most = loads_[q];
  return most * 100.0f;
}

}  // namespace rpi_parse
