// The monitor's NVIDIA members over the back-ends (backends/nvidia/): the
// two discoveries, which register and count the records the back-ends fill,
// the NVML refresh over the NVML list, and one-line delegations.
#include "plugin/gpu_monitor_vorn.h"

namespace nb = nvidia_backend;

// --- discovery

bool GpuMonitorVorn::nvml_initialize() {
  nb::NvmlDevices found;
  if (!nb::nvml_start(&nvml_lib_handle, &nvml_state, &found)) return false;
  for (unsigned int i = 0; i < found.count; ++i) {
    zev::GPU* gpu = create_gpu();
    ++num_nvml_detected;
    const unsigned long slot = add_nvml_gpu(gpu) ? nvml_gpus_count - 1 : nb::kNotListed;
    nb::nvml_read_device(&nvml_state, this, i, found.driver_version, gpu, slot);
    if (gpu->monitorable) ++num_monitorable_gpus;
    release_if_unlisted(gpu);
  }
  return true;
}

bool GpuMonitorVorn::linux_nv_smi_init_gpus() {
  unsigned long count = 0;
  if (!linux_nv_smi_read_num_gpus(&count)) return false;
  tracef("scanning NVIDIA GPUs...");
  num_nv_smi_detected = count;

  // A count past the list's capacity (or a garbled one) stops once the list
  // is full: later records would be in no list, and every one costs 16
  // processes.
  for (unsigned long i = 0; i < count && num_gpus < kMaxGpus; ++i) {
    zev::GPU* gpu = create_gpu();
    tracef("> GPU %d", static_cast<int>(i));
    nb::nv_smi_read_device(this, gpu, i);
    if (gpu->monitorable) ++num_monitorable_gpus;
  }
  return count != 0;
}

bool GpuMonitorVorn::nvml_terminate() {
  nb::nvml_stop(&nvml_lib_handle, nvml_state);
  return true;
}

// --- NVML refresh

bool GpuMonitorVorn::nvml_update_dynamic_data() {
  if (nvml_lib_handle == nullptr) return false;
  const unsigned long count = nvml_get_num_gpus();
  if (count == 0) return false;
  for (unsigned long i = 0; i < count; ++i) {
    zev::GPU* gpu = nvml_get_gpu(i);
    if (gpu == nullptr) continue;
    nb::nvml_refresh(nvml_state, gpu);
    nvml_update_process_utilization(i);
  }
  return true;
}

bool GpuMonitorVorn::nvml_update_power_usage(unsigned long index) {
  if (nvml_lib_handle == nullptr) return false;
  return nb::nvml_refresh_power(nvml_state, nvml_get_gpu(index));
}

bool GpuMonitorVorn::nvml_update_process_utilization(unsigned long index) {
  if (nvml_lib_handle == nullptr) return false;
  return nb::nvml_read_processes(&nvml_state, nvml_get_gpu(index), index);
}

bool GpuMonitorVorn::nvml_get_pcie_throughput(unsigned long index) {
  if (nvml_lib_handle == nullptr) return false;
  return nb::nvml_read_pcie_throughput(nvml_state, nvml_get_gpu(index));
}

// --- nvidia-smi readers

bool GpuMonitorVorn::linux_nv_smi_read_num_gpus(unsigned long* count) {
  return nb::nv_smi_read_num_gpus(count);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_name(unsigned long index, char* name) {
  return nb::nv_smi_read_text(index, nb::NvSmiText::kName, name);
}

bool GpuMonitorVorn::linux_nv_smi_read_driver_version(unsigned long index, char* version) {
  return nb::nv_smi_read_text(index, nb::NvSmiText::kDriverVersion, version);
}

bool GpuMonitorVorn::linux_nv_smi_read_vbios_version(unsigned long index, char* version) {
  return nb::nv_smi_read_text(index, nb::NvSmiText::kVbiosVersion, version);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_device_id(unsigned long index, unsigned long* vendor,
                                                         unsigned long* device) {
  return nb::nv_smi_read_id_pair(index, nb::NvSmiIdPair::kDevice, vendor, device);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_subdevice_id(unsigned long index,
                                                            unsigned long* subvendor,
                                                            unsigned long* subdevice) {
  return nb::nv_smi_read_id_pair(index, nb::NvSmiIdPair::kSubdevice, subvendor, subdevice);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_pci_bus_id(unsigned long index, unsigned long* bus) {
  return nb::nv_smi_read_bus(index, bus);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_fan_speed(unsigned long index, int* percent) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kFanSpeed, percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_vram_size(unsigned long index, int* mb) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kVramSize, mb);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_vram_used(unsigned long index, int* mb) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kVramUsed, mb);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_usage(unsigned long index, int* percent) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kGpuUsage, percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_usage(unsigned long index, int* percent) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kVramUsage, percent);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_temperature(unsigned long index, int* celsius) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kGpuTemperature, celsius);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_temperature(unsigned long index, int* celsius) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kVramTemperature, celsius);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_power(unsigned long index, int* watts) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kGpuPower, watts);
}

bool GpuMonitorVorn::linux_nv_smi_read_gpu_core_clock(unsigned long index, int* mhz) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kGpuCoreClock, mhz);
}

bool GpuMonitorVorn::linux_nv_smi_read_vram_clock(unsigned long index, int* mhz) {
  return nb::nv_smi_read_number(index, nb::NvSmiNumber::kVramClock, mhz);
}

// --- the driver and nvidia-settings

int GpuMonitorVorn::linux_nv_read_rop_counter(unsigned long gpu_index, int* rops) {
  return nb::read_rop_counter(gpu_index, rops);
}

bool GpuMonitorVorn::linux_nvidia_get_driver_version(unsigned long, float* version) {
  return nb::nvidia_settings_read_driver_version(version);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_core_temp(unsigned long index, float* celsius) {
  return nb::nvidia_settings_read_core_temperature(index, celsius);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_fan_speed(unsigned long index, float* percent) {
  return nb::nvidia_settings_read_fan_speed(index, percent);
}

bool GpuMonitorVorn::linux_nvidia_gpu_get_usages(unsigned long index, float* gpu_usage,
                                                 float* memory_usage) {
  return nb::nvidia_settings_read_usages(index, gpu_usage, memory_usage);
}

bool GpuMonitorVorn::linux_nvidia_is_sensor_available(unsigned long, const char* name) {
  return nb::nvidia_settings_has_attribute(name);
}
