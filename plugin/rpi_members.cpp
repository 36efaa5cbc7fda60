// The Raspberry Pi back-end's members: discovery's record registered and
// counted here, the readers delegated to backends/rpi.
#include "backends/rpi/rpi_backend.h"
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::linux_arm64_rpi_init_gpus(const char* model) {
  zev::GPU* gpu = rpi_backend::discover_gpu(this, model, num_gpus);
  if (gpu == nullptr) return false;
  register_found_gpu(gpu);
  return true;
}

bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_clock(float* mhz) {
  return rpi_backend::read_gpu_core_clock(mhz);
}
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v2(zev::GPU* gpu, float* percent) {
  return rpi_backend::read_gpu_usage_v2(gpu, percent);
}
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_usage_v1(zev::GPU* gpu, float* percent) {
  return rpi_backend::read_gpu_usage_v1(gpu, percent);
}
bool GpuMonitorVorn::linux_arm64_rpi_read_gpu_core_temp(float* celsius) {
  return rpi_backend::read_gpu_core_temp(celsius);
}
