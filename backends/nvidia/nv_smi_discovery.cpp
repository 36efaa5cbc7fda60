// nvidia-smi discovery, the fallback when NVML cannot be used: every value is
// one nvidia-smi process (16 per GPU, plus the count). Records found here
// keep being read through the nvidia-smi readers by the sensor dispatch.
#include <cstring>

#include "backends/nvidia/nvidia_discovery_common.h"
#include "plugin/gpu_monitor_vorn.h"
#include "record/record_writes.h"

namespace {

using namespace gpu_record;

void describe_gpu(GpuMonitorVorn* monitor, zev::GPU* gpu, unsigned long i) {
  char text[128];
  std::memset(text, 0, sizeof text);
  if (monitor->linux_nv_smi_read_gpu_name(i, text)) {
    copy_text(gpu->name, sizeof gpu->name, text);
    monitor->tracef("  - name: %s", gpu->name);
  }

  unsigned long first = 0;
  unsigned long second = 0;
  if (monitor->linux_nv_smi_read_gpu_pci_device_id(i, &first, &second)) {
    gpu->vendor_id = first;
    gpu->device_id = second;
    monitor->tracef("  - device ID: %4X-%4X", static_cast<unsigned>(gpu->vendor_id),
                    static_cast<unsigned>(gpu->device_id));
  }
  first = 0;
  second = 0;
  if (monitor->linux_nv_smi_read_gpu_pci_subdevice_id(i, &first, &second)) {
    gpu->subvendor_id = first;
    gpu->subdevice_id = second;
    monitor->tracef("  - subdevice ID: %4X-%4X", static_cast<unsigned>(gpu->subvendor_id),
                    static_cast<unsigned>(gpu->subdevice_id));
  }
  unsigned long bus = 0;
  if (monitor->linux_nv_smi_read_gpu_pci_bus_id(i, &bus)) {
    gpu->bus_id = static_cast<int32_t>(bus);
    monitor->tracef("  - bus ID: %d", gpu->bus_id);
  }

  std::memset(text, 0, sizeof text);
  if (monitor->linux_nv_smi_read_driver_version(i, text)) {
    copy_text(gpu->driver_version, sizeof gpu->driver_version, text);
    monitor->tracef("  - driver: %s", gpu->driver_version);
  }
  std::memset(text, 0, sizeof text);
  if (monitor->linux_nv_smi_read_vbios_version(i, text)) {
    copy_text(gpu->vbios_version, sizeof gpu->vbios_version, text);
    monitor->tracef("  - vbios: %s", gpu->vbios_version);
  }

  int value = 0;
  if (monitor->linux_nv_smi_read_gpu_vram_size(i, &value)) {
    gpu->vram_size_mb = value;
    monitor->tracef("  - VRAM size: %d MB", value);
  }
}

void read_sensors(GpuMonitorVorn* monitor, zev::GPU* gpu, unsigned long i) {
  int value = 0;
  if (monitor->linux_nv_smi_read_gpu_usage(i, &value)) {
    store_usage_value(gpu->core_usage, static_cast<float>(value));
    monitor->tracef("  - core usage: %d %%", value);
    mark_readable(gpu, kUsageFlag);
  }
  if (monitor->linux_nv_smi_read_vram_usage(i, &value)) {
    store_usage_value(gpu->memory_usage, static_cast<float>(value));
    monitor->tracef("  - mem usage: %d %%", value);
  }
  if (monitor->linux_nv_smi_read_gpu_temperature(i, &value)) {
    store_temperature_reading(gpu, kCoreTemperature, static_cast<float>(value));
    monitor->tracef(
        "  - core temperature: %d \xC2\xB0"
        "C",
        value);
    mark_readable(gpu, kTemperatureFlag);
  }
  if (monitor->linux_nv_smi_read_vram_temperature(i, &value)) {
    store_temperature_reading(gpu, kMemoryTemperature, static_cast<float>(value));
    monitor->tracef(
        "  - mem temperature: %d \xC2\xB0"
        "C",
        value);
  }
  if (monitor->linux_nv_smi_read_gpu_power(i, &value)) {
    store_power_reading(&gpu->power, static_cast<float>(value));
    monitor->tracef("  - power: %d W", value);
  }
  if (monitor->linux_nv_smi_read_gpu_core_clock(i, &value)) {
    store_clock_value(&gpu->core_clock, static_cast<float>(value));
    monitor->tracef("  - core clock: %d MHz", value);
  }
  if (monitor->linux_nv_smi_read_vram_clock(i, &value)) {
    store_clock_value(&gpu->memory_clock, static_cast<float>(value));
    monitor->tracef("  - mem clock: %d MHz", value);
  }
  // The fan and the video memory in use, which the first design read from
  // the first refresh on only: the record after discovery holds them as it
  // holds the other sensors. Nothing is traced for them.
  monitor->gpu_read_fan_speed(gpu->index);
  monitor->gpu_read_vram_used(gpu->index);
}

}  // namespace

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
    gpu->nvidia_gpu_index = static_cast<int32_t>(i);

    describe_gpu(this, gpu, i);
    read_sensors(this, gpu, i);
    nvidia_name_from_database(gpu, ShaderCountSource::kDatabaseAlways);
    nvidia_check_rop_count(this, gpu, i);
    if (gpu->monitorable) ++num_monitorable_gpus;
  }
  return count != 0;
}
