// Name lookups in the GPU database. The database tables are not part of this
// build yet, so no device id is known.
#include "plugin/gpu_monitor_vorn.h"

const char* GpuMonitorVorn::get_gpu_name_from_device_id(unsigned long, unsigned long,
                                                        unsigned long) {
  return nullptr;
}
