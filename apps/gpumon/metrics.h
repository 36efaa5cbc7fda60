// What gpumon --serve answers on /metrics: GPUs in the Prometheus text
// exposition format (version 0.0.4).
#pragma once

#include <string>
#include <vector>

#include "gpu_fields.h"

// The metrics of the given GPUs: each family with its # HELP and # TYPE
// lines, then one sample per GPU (and sensor, clock or fan) whose value is
// known; a value the monitor has not read is left out rather than given as
// NaN. Every GPU sample carries the labels gpu (the slot, what --gpu takes),
// name and pci (the PCI address, "" where /sys does not tell). Values are
// the field table's, in Prometheus' base units (ratios, hertz, joules).
std::string render_metrics(const std::vector<GpuView>& gpus);

// A label value as the text format writes it between its quotes: backslash,
// double quote and line feed escaped, and bytes that are not UTF-8 replaced
// by U+FFFD (Prometheus rejects a scrape holding any).
std::string escape_label_value(const std::string& text);
