// nvidia-smi sensor readers. The nvidia-smi back-end is not part of this
// build yet: every reader reports that it read nothing.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::linux_nv_smi_read_gpu_core_clock(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_vram_clock(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_gpu_usage(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_vram_usage(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_gpu_temperature(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_vram_temperature(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_gpu_power(unsigned long, int*) { return false; }
bool GpuMonitorVorn::linux_nv_smi_read_gpu_fan_speed(unsigned long, int*) { return false; }
