// Refresh of the NVML GPUs. Every operation needs the NVML library, which
// nvml_initialize() loads; without it they do nothing and report false.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::nvml_update_dynamic_data() { return false; }

bool GpuMonitorVorn::nvml_update_power_usage(unsigned long) { return false; }

bool GpuMonitorVorn::nvml_update_process_utilization(unsigned long) { return false; }

bool GpuMonitorVorn::nvml_get_pcie_throughput(unsigned long) { return false; }
