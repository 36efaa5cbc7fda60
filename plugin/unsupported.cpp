// Operations of the monitor interface that only other platforms support.
// On Linux each accepts its arguments, writes nothing and returns false.
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::gpu_power_set_power_target(unsigned long, float) { return false; }
bool GpuMonitorVorn::geforce_logo_is_illumination_supported(unsigned long) { return false; }
bool GpuMonitorVorn::geforce_logo_set_illumination(unsigned long, float) { return false; }
bool GpuMonitorVorn::geforce_logo_get_illumination(unsigned long, float*) { return false; }
bool GpuMonitorVorn::driver_settings_get_vsync_status(int*) { return false; }
bool GpuMonitorVorn::driver_settings_set_vsync_status(int) { return false; }

bool GpuMonitorVorn::rt_init(unsigned long) { return false; }
bool GpuMonitorVorn::rt_cleanup() { return false; }
bool GpuMonitorVorn::rt_connect(unsigned long) { return false; }
bool GpuMonitorVorn::rt_disconnect() { return false; }
bool GpuMonitorVorn::rt_read_gpu_data(unsigned long) { return false; }
bool GpuMonitorVorn::rt_init_gpus_list() { return false; }
bool GpuMonitorVorn::rt_get_num_gpus(unsigned long*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_name(unsigned long, char*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_core_temperature(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_mem_temperature(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_vrm_temperature(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_core_usage(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_mem_usage(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_core_clock(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_mem_clock(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_power(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_abs_power(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_gpu_rel_power(unsigned long, float*) { return false; }
bool GpuMonitorVorn::rt_get_policy_limit_power(unsigned long, int*) { return false; }
bool GpuMonitorVorn::rt_get_policy_limit_temperature(unsigned long, int*) { return false; }
bool GpuMonitorVorn::rt_get_policy_limit_voltage(unsigned long, int*) { return false; }
bool GpuMonitorVorn::rt_get_policy_limit_overvoltage(unsigned long, int*) { return false; }
bool GpuMonitorVorn::rt_get_all_policy_limits(unsigned long, int*, int*, int*, int*) {
  return false;
}
bool GpuMonitorVorn::rt_get_cpu_temperature_and_usage(unsigned long, float*, float*) {
  return false;
}

// The real-time refresh path does not exist on Linux.
bool GpuMonitorVorn::update_dynamic_data_rt(unsigned long) { return false; }
