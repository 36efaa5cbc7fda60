// The monitor's legacy command readers, each a call into the legacy
// back-end (backends/legacy/legacy_backend.h).
#include "backends/legacy/legacy_backend.h"
#include "plugin/gpu_monitor_vorn.h"

bool GpuMonitorVorn::linux_read_num_gpus(unsigned long* count) {
  return legacy_backend::count_display_adapters(count);
}

bool GpuMonitorVorn::linux_read_gpu_pci_codes(unsigned long index, unsigned long* vendor,
                                              unsigned long* device) {
  return legacy_backend::read_pci_codes(index, vendor, device);
}

bool GpuMonitorVorn::linux_read_gpu_pci_rev(unsigned long index, char* revision) {
  return legacy_backend::read_pci_revision(index, revision);
}

bool GpuMonitorVorn::linux_read_gpu_name(unsigned long index, char* name) {
  return legacy_backend::read_adapter_name(index, name);
}

bool GpuMonitorVorn::linux_amd_is_gpu_core_temp_sensor_available(unsigned long adapter) {
  return legacy_backend::has_core_temperature(adapter);
}

bool GpuMonitorVorn::linux_amd_gpu_get_core_temp(unsigned long adapter, float* celsius) {
  return legacy_backend::read_core_temperature(adapter, celsius, this);
}

bool GpuMonitorVorn::linux_amd_gpu_get_bios_string(unsigned long adapter, char* text) {
  return legacy_backend::read_bios_string(adapter, text);
}
