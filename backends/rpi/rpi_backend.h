// The Raspberry Pi back-end: the VideoCore V3D GPU of a Pi 3, 4 or 5, which
// has no PCI identity. Free functions with explicit inputs; the monitor's
// linux_arm64_rpi_* members delegate to them.
//
// Discovery returns what it found and touches no list: the record comes
// back fully read (identity, first readings, traces written through
// `tracer` in their order), and the core adds it to its list, where it gets
// its index and placeholder bus number, and counts it. The traces name the
// record by the list position the core will give it, which the core passes
// in.
#pragma once

#include <cstdint>

#include "zev/gpu.h"
#include "zev/plugin.h"

namespace rpi_backend {

// The record of the board's GPU when `model` (the board model, system
// information's answer) names a Pi 3, 4 or 5, traced through `tracer`; null
// on any other board. The caller owns the record.
zev::GPU* discover_gpu(zev::Plugin* tracer, const char* model, uint64_t list_position);

// The V3D clock in MHz; only on a Pi 5 (its V3D statistics file opens).
bool read_gpu_core_clock(float* mhz);
// Core usage in percent from the kernel's V3D statistics (v2); the record
// keeps what the next read needs. False, with -1, when the file is absent.
bool read_gpu_usage_v2(zev::GPU* gpu, float* percent);
// The same from the Raspberry Pi kernels' debugfs file (v1).
bool read_gpu_usage_v1(zev::GPU* gpu, float* percent);
// The SoC temperature from the firmware tool.
bool read_gpu_core_temp(float* celsius);

}  // namespace rpi_backend
