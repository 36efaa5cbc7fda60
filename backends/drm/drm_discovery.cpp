// DRM discovery. The sysfs scan is not part of this build yet, so it reports
// that it found no GPU.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::linux_drm_init_gpus() { return false; }
