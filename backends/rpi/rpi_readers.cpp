// Raspberry Pi V3D readers. The Raspberry Pi back-end is not part of this
// build yet: every reader reports that it read nothing.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_clock(float*) { return false; }
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v2(zev::GPU*, float*) { return false; }
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v1(zev::GPU*, float*) { return false; }
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_temp(float*) { return false; }
