// What the Raspberry Pi's texts mean: the firmware tool's answers and the
// V3D usage files, text in, value out, no file opened and no process run.
#pragma once

#include <cstdint>

namespace rpi_parse {

// The first line of "vcgencmd measure_temp | cut -c6-" ("48.3'C" and its
// newline): the last character cut, then the leading number. False when no
// number leads; the output is then untouched.
bool parse_measure_temp(const char* line, float* celsius);

// The first line of the V3D debugfs clock file, "cycles: N (M MHz)", the last
// character cut: M. False unless both numbers are there.
bool parse_measure_clock(const char* line, float* mhz);

// The V3D queues whose loads are compared: bin, render, tfu, csd and cache
// clean.
constexpr int kV3dQueues = 5;

// One read of a V3D usage text, line by line: usage is the busiest queue's
// run time over the time since the previous read. The previous read's time
// stamp and run times (the record's v3d_last_timestamp and v3d_last_runtime)
// come in through the two pointers and receive this read's as the lines
// arrive. Differences wrap as unsigned numbers: hostile values give odd
// loads, never undefined arithmetic.
class V3dUsage {
 public:
  V3dUsage(uint64_t* last_timestamp, uint64_t (&last_runtime)[kV3dQueues])
      : last_timestamp_(last_timestamp), last_runtime_(last_runtime) {}

  // A line of the kernel's gpu_stats file: "queue timestamp jobs runtime"
  // (its header and any line that is not four fields count for nothing).
  void add_stats_line(const char* line);
  // A line of the Raspberry Pi kernels' debugfs gpu_usage file:
  // "timestamp;<ns>;" or "v3d_render;<jobs>;<runtime>;<active>;" (a line
  // without ';' counts for nothing).
  void add_debug_line(const char* line);

  // The busiest queue's load so far, in percent.
  float busiest_percent() const;

 private:
  void account(int queue, long long runtime);

  uint64_t* last_timestamp_;
  uint64_t (&last_runtime_)[kV3dQueues];
  uint64_t elapsed_ = 0;
  float loads_[kV3dQueues] = {0, 0, 0, 0, 0};
};

}  // namespace rpi_parse
