// What the live view (gpumon --watch on a terminal) shows, as rows of
// coloured text for a screen of a given size: a title line, one block per
// GPU (name and address; bars for usage, memory, temperature against its
// threshold and power against its limit; fans and clocks; the history of
// usage and temperature; the processes using it) and a line of keys. It
// knows nothing of the terminal, so any size can be laid out and checked.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "gpu_fields.h"

enum class Tone { kNormal, kLabel, kGood, kWarn, kHot, kTitle, kSelected };

struct Span {
  int column = 0;
  std::string text;
  Tone tone = Tone::kNormal;
};

using Row = std::vector<Span>;

// The readings of one GPU over the last refreshes, oldest first.
struct GpuHistory {
  std::deque<float> usage, temperature;
  void add(const zev::GPU& gpu);
};

struct LiveState {
  double period_seconds = 1.0;
  long refreshes = 0;
  size_t selected = 0;                // index into the GPUs shown
  std::vector<GpuHistory> histories;  // one per GPU shown
  std::string cpu;                    // CPU name
};

// The smallest screen the view lays out; below it, one line says so.
constexpr int kMinColumns = 60;
constexpr int kMinRows = 10;

// The rows of a width x height screen (at most `height` rows, each span
// within `width` columns).
std::vector<Row> layout_live_view(const std::vector<GpuView>& gpus, const LiveState& state,
                                  int width, int height);
