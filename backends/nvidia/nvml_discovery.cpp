// NVML discovery. The NVML binding is not part of this build yet: no NVML
// library is loaded, so discovery finds nothing and init_gpus_linux goes on
// to the other back-ends.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::nvml_initialize() { return false; }

bool GpuMonitorVorn::nvml_terminate() { return true; }
