// The library's two exported entry points; everything else is hidden.
#include "plugin/gpu_monitor_vorn.h"

#define ZEV_EXPORT extern "C" __attribute__((visibility("default")))

ZEV_EXPORT void* zev_plugin_create() {
  zev::GpuMonitor* monitor = new GpuMonitorVorn();
  return monitor;
}

ZEV_EXPORT int zev_plugin_destroy(void* plugin) {
  if (plugin == nullptr) return 0;
  delete static_cast<zev::GpuMonitor*>(plugin);
  return 1;
}
