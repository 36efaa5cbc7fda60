// Lookups in the GPU database. The database tables are not part of this
// build yet: no device is known, and the accessors answer as they do for an
// unknown device.
#include "plugin/gpu_monitor_vorn.h"

namespace {
const unsigned int kNotFound = 0xFFFFFFFFu;
}

const char* GpuMonitorVorn::get_gpu_name_from_device_id(unsigned long, unsigned long,
                                                        unsigned long) {
  return nullptr;
}

unsigned int GpuMonitorVorn::gpu_db_get_index(unsigned long, unsigned long) { return kNotFound; }

unsigned int GpuMonitorVorn::gpu_db_get_index_v2(unsigned long, unsigned long, const char*) {
  return kNotFound;
}

unsigned int GpuMonitorVorn::gpu_db_get_index_v3(unsigned long, unsigned long, unsigned long) {
  return kNotFound;
}

const char* GpuMonitorVorn::gpu_db_get_adapter_name(unsigned long, int) { return "Unknown"; }
const char* GpuMonitorVorn::gpu_db_get_gpu_codename(unsigned long, int) { return "Unknown"; }
int GpuMonitorVorn::gpu_db_get_tdp(unsigned long, int) { return 0; }
int GpuMonitorVorn::gpu_db_get_num_unified_shader_processors(unsigned long, int) { return 0; }
int GpuMonitorVorn::gpu_db_get_num_texture_units(unsigned long, int) { return 0; }
int GpuMonitorVorn::gpu_db_get_num_rops(unsigned long, int) { return 0; }
