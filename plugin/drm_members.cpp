// The monitor's DRM members: the scan's records registered and counted, and
// the readers, each a call into the DRM back-end (backends/drm/drm_backend.h).
#include "backends/drm/drm_backend.h"
#include "plugin/gpu_monitor_vorn.h"

// Every card the back-end found becomes the next record of the list, in
// the order found, with its sensors kept by the record's index.
bool GpuMonitorVorn::linux_drm_init_gpus() {
  const bool nvidia_monitored = num_nv_smi_detected != 0 || num_nvml_detected != 0;
  const std::vector<drm_backend::FoundCard> found =
      drm_backend::find_cards(nvidia_monitored, kMaxGpus - get_num_gpus(), this);
  // The scan returns no more cards than the list has room for.
  for (const drm_backend::FoundCard& card : found) {
    if (register_found_gpu(card.gpu)) drm_extra_sensors[card.gpu->index] = card.sensors;
  }
  if (found.empty()) return false;
  num_gpus_drm = found.size();
  return true;
}

bool GpuMonitorVorn::drm_has_other_than_nvidia() { return drm_backend::has_other_than_nvidia(); }

bool GpuMonitorVorn::linux_drm_gpu_probe(unsigned long card) { return drm_backend::probe(card); }

bool GpuMonitorVorn::linux_drm_gpu_probe_hwmon(unsigned long card, unsigned long hwmon) {
  return drm_backend::probe_hwmon(card, hwmon);
}

bool GpuMonitorVorn::linux_drm_read_vendor_id(unsigned long card, unsigned long* id) {
  return drm_backend::read_vendor_id(card, id);
}

bool GpuMonitorVorn::linux_drm_read_device_id(unsigned long card, unsigned long* id) {
  return drm_backend::read_device_id(card, id);
}

bool GpuMonitorVorn::linux_drm_read_revision_id(unsigned long card, unsigned long* id) {
  return drm_backend::read_revision_id(card, id);
}

bool GpuMonitorVorn::linux_drm_read_subvendor_id(unsigned long card, unsigned long* id) {
  return drm_backend::read_subvendor_id(card, id);
}

bool GpuMonitorVorn::linux_drm_read_subdevice_id(unsigned long card, unsigned long* id) {
  return drm_backend::read_subdevice_id(card, id);
}

bool GpuMonitorVorn::linux_drm_read_vbios(unsigned long card, char* text) {
  return drm_backend::read_vbios(card, text);
}

bool GpuMonitorVorn::linux_drm_read_gpu_usage(unsigned long card, int* percent) {
  return drm_backend::read_gpu_usage(card, percent);
}

bool GpuMonitorVorn::linux_drm_read_driver_name(unsigned long card, unsigned long hwmon,
                                                char* text) {
  return drm_backend::read_driver_name(card, hwmon, text);
}

bool GpuMonitorVorn::linux_drm_read_gpu_core_clock(unsigned long card, unsigned long hwmon,
                                                   int* mhz) {
  return drm_backend::read_core_clock(card, hwmon, mhz);
}

bool GpuMonitorVorn::linux_drm_read_vram_clock(unsigned long card, unsigned long hwmon, int* mhz) {
  return drm_backend::read_memory_clock(card, hwmon, mhz);
}

bool GpuMonitorVorn::linux_drm_read_gpu_temperature(unsigned long card, unsigned long hwmon,
                                                    unsigned long sensor, int* celsius) {
  return drm_backend::read_temperature(card, hwmon, sensor, celsius);
}

bool GpuMonitorVorn::linux_drm_read_gpu_fan_speed(unsigned long card, unsigned long hwmon,
                                                  unsigned long sensor, int* rpm) {
  return drm_backend::read_fan_speed(card, hwmon, sensor, rpm);
}

bool GpuMonitorVorn::linux_drm_read_gpu_power(unsigned long card, unsigned long hwmon,
                                              unsigned long sensor, int* watts) {
  return drm_backend::read_power(card, hwmon, sensor, watts);
}
