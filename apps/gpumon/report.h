// What gpumon shows of a monitor as text: a table of the GPUs and the CPU
// and OS lines.
#pragma once

#include <string>
#include <vector>

#include "gpu_fields.h"
#include "zev/gpu_monitor.h"

// The table of the given GPUs ("No GPU found." when the monitor has none)
// and the CPU/OS lines: the live values within 120 columns, and with `wide`
// the static facts too (PCI ids and revision, bus, chip, units, TDP) and
// the lowest and highest temperature.
std::string render_table(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus, bool wide);
