// What gpumon --serve answers on /metrics: GPUs in the Prometheus text
// exposition format (version 0.0.4).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "gpu_fields.h"

// A PCIe throughput counter of the record that the last reading left as it
// was: the scrape sets both counters to this before it asks NVML for them.
constexpr uint32_t kPcieThroughputUnread = 0xFFFFFFFFu;

// What a scrape knows besides the GPUs.
struct ScrapeFacts {
  std::string version;         // gpumon's
  std::string plugin_version;  // the monitor's, MAJOR.MINOR.PATCH
  int schema = 0;              // gpumon's JSON schema version
  bool success = true;         // whether the refresh succeeded
  double seconds = 0.0;        // how long the refresh took
};

// The metrics of the given GPUs: each family with its # HELP and # TYPE
// lines, then one sample per GPU (and sensor, clock, fan or reason) whose
// value is known; a value the monitor has not read is left out rather than
// given as NaN, and a label whose value is not known is left out rather than
// given empty. Every GPU sample carries the labels gpu (the slot, what --gpu
// takes), name (the device's product name, the same on every back-end) and
// pci (the PCI address, where /sys tells it). Values are in Prometheus' base
// units (ratios, bytes, hertz, joules).
std::string render_metrics(const std::vector<GpuView>& gpus, const ScrapeFacts& facts);
