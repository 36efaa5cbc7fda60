// Sensor dispatch: one sensor of one GPU routed to the back-end readers that
// know the record. Sources are tried in a fixed order, each only when the
// record's back-end fields allow it, and a later source that succeeds
// overwrites what an earlier one stored:
//   1. nvidia-smi, when nvidia_gpu_index is 0 or more;
//   2. DRM, when the DRM indices the sensor needs are all 0 or more;
//   3. Raspberry Pi, when the vendor is Broadcom.
// Integer readings become floats; every new current value of a triple
// (usage, clock, temperature) folds into its running minimum and maximum
// (record/record_writes.h).
#include "gpudb/vendor_tables.h"
#include "plugin/gpu_monitor_vorn.h"
#include "record/record_writes.h"

namespace {

using namespace gpu_record;

bool nv_smi_source(const zev::GPU* gpu) { return gpu->nvidia_gpu_index >= 0; }
bool drm_card_source(const zev::GPU* gpu) { return gpu->drm_card_index >= 0; }
bool drm_hwmon_source(const zev::GPU* gpu) {
  return gpu->drm_card_index >= 0 && gpu->drm_hwmon_index >= 0;
}
bool rpi_source(const zev::GPU* gpu) { return gpu->vendor_id == gpudb_vendor::kBroadcom; }

}  // namespace

bool GpuMonitorVorn::gpu_get_clocks(unsigned long index, float* core_mhz, float* memory_mhz) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;
  bool read = false;

  auto store = [&](int mhz, zev::gpuClock* clock, float* out) {
    store_clock_reading(clock, static_cast<float>(mhz));
    if (out != nullptr) *out = clock->current;
    read = true;
  };

  if (nv_smi_source(gpu)) {
    int mhz = 0;
    if (linux_nv_smi_read_gpu_core_clock(gpu->nvidia_gpu_index, &mhz)) {
      store(mhz, &gpu->core_clock, core_mhz);
    }
    if (linux_nv_smi_read_vram_clock(gpu->nvidia_gpu_index, &mhz)) {
      store(mhz, &gpu->memory_clock, memory_mhz);
    }
  }
  if (drm_hwmon_source(gpu)) {
    int mhz = 0;
    if (linux_drm_read_gpu_core_clock(gpu->drm_card_index, gpu->drm_hwmon_index, &mhz)) {
      store(mhz, &gpu->core_clock, core_mhz);
    }
    if (linux_drm_read_vram_clock(gpu->drm_card_index, gpu->drm_hwmon_index, &mhz)) {
      store(mhz, &gpu->memory_clock, memory_mhz);
    }
  }
  // Intel GT clocks (i915, xe), which no hwmon file holds.
  if (drm_card_source(gpu) &&
      drm_extra_sensors[gpu->index].intel_clock != drm_extra::IntelClock::kNone &&
      drm_extra::refresh_intel_clock(drm_extra_sensors[gpu->index], gpu, core_mhz)) {
    read = true;
  }
  if (rpi_source(gpu)) {
    float mhz = -1.0f;
    if (linux_arm64_rpi_read_gpu_core_clock(&mhz)) {
      store_clock_reading(&gpu->core_clock, mhz);
      if (core_mhz != nullptr) *core_mhz = gpu->core_clock.current;
      read = true;
    }
  }
  return read;
}

bool GpuMonitorVorn::gpu_get_usages(unsigned long index, float* core_percent, float* memory_percent,
                                    float*, float*) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;
  bool read = false;

  auto store = [&](float percent, float* triple, float* out) {
    store_usage_reading(triple, percent);
    if (out != nullptr) *out = percent;
    read = true;
  };

  if (nv_smi_source(gpu)) {
    int percent = 0;
    if (linux_nv_smi_read_gpu_usage(gpu->nvidia_gpu_index, &percent)) {
      store(static_cast<float>(percent), gpu->core_usage, core_percent);
    }
    if (linux_nv_smi_read_vram_usage(gpu->nvidia_gpu_index, &percent)) {
      store(static_cast<float>(percent), gpu->memory_usage, memory_percent);
    }
  }
  // GPU busy percent belongs to the card itself: no hwmon needed.
  if (drm_card_source(gpu)) {
    int percent = 0;
    if (linux_drm_read_gpu_usage(gpu->drm_card_index, &percent)) {
      store(static_cast<float>(percent), gpu->core_usage, core_percent);
    }
    // Memory busy percent and video memory in use (amdgpu).
    if (drm_extra::refresh_memory_usage(drm_extra_sensors[gpu->index], gpu, memory_percent))
      read = true;
  }
  if (rpi_source(gpu)) {
    float percent = -1.0f;
    if (linux_arm64_rpi_read_gpu_usage_v2(gpu, &percent)) {
      gpu->rpi_usage_method = 2;
      store(percent, gpu->core_usage, core_percent);
    } else if (linux_arm64_rpi_read_gpu_usage_v1(gpu, &percent)) {
      gpu->rpi_usage_method = 1;
      store(percent, gpu->core_usage, core_percent);
    }
  }
  return read;
}

bool GpuMonitorVorn::gpu_get_temperatures(unsigned long index, float* core_c, float* memory_c,
                                          float*, float*) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;
  bool read = false;

  auto store = [&](float celsius, zev::gpuTemperature* temperature, float* out) {
    store_temperature_reading(temperature, celsius);
    if (out != nullptr) *out = celsius;
    read = true;
  };

  if (nv_smi_source(gpu)) {
    int celsius = 0;
    if (linux_nv_smi_read_gpu_temperature(gpu->nvidia_gpu_index, &celsius)) {
      store(static_cast<float>(celsius), &gpu->temperatures[kCoreTemperature], core_c);
    }
    if (linux_nv_smi_read_vram_temperature(gpu->nvidia_gpu_index, &celsius)) {
      store(static_cast<float>(celsius), &gpu->temperatures[kMemoryTemperature], memory_c);
    }
  }
  if (drm_hwmon_source(gpu) && gpu->drm_temp_input_index >= 0) {
    int celsius = 0;
    if (linux_drm_read_gpu_temperature(gpu->drm_card_index, gpu->drm_hwmon_index,
                                       gpu->drm_temp_input_index, &celsius)) {
      store(static_cast<float>(celsius), &gpu->temperatures[kCoreTemperature], core_c);
    }
  }
  // The memory temperature: the input labelled "mem" (amdgpu) or "vram" (xe).
  if (drm_hwmon_source(gpu) &&
      drm_extra::refresh_memory_temperature(drm_extra_sensors[gpu->index], gpu, memory_c)) {
    read = true;
  }
  if (rpi_source(gpu)) {
    float celsius = -1.0f;
    if (linux_arm64_rpi_read_gpu_core_temp(&celsius)) {
      store(celsius, &gpu->temperatures[kCoreTemperature], core_c);
    }
  }
  return read;
}

// Power keeps no minimum or maximum; there is no Raspberry Pi source.
bool GpuMonitorVorn::gpu_power_get_current_value(unsigned long index, float*, float* watts) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;
  bool read = false;

  auto store = [&](int reading) {
    const float current = store_power_reading(&gpu->power, static_cast<float>(reading));
    if (watts != nullptr) *watts = current;
    read = true;
  };

  if (nv_smi_source(gpu)) {
    int reading = 0;
    if (linux_nv_smi_read_gpu_power(gpu->nvidia_gpu_index, &reading)) store(reading);
  }
  if (drm_hwmon_source(gpu) && gpu->drm_power_index >= 0) {
    int reading = 0;
    if (linux_drm_read_gpu_power(gpu->drm_card_index, gpu->drm_hwmon_index, gpu->drm_power_index,
                                 &reading)) {
      store(reading);
    }
  }
  // The power limit, and power from an energy counter where no power input
  // reads (i915, xe).
  if (drm_hwmon_source(gpu) &&
      drm_extra::refresh_power(&drm_extra_sensors[gpu->index], gpu, watts)) {
    read = true;
  }
  return read;
}

bool GpuMonitorVorn::gpu_read_fan_speed(unsigned long index) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;

  // nvidia-smi reports one fan; its record is made on first success.
  if (nv_smi_source(gpu)) {
    int percent = 0;
    if (linux_nv_smi_read_gpu_fan_speed(gpu->nvidia_gpu_index, &percent)) {
      store_fan_percent(single_fan(gpu), static_cast<float>(percent));
      return true;
    }
  }

  // DRM fans were counted and allocated by the scan; fan i is hwmon fan
  // i + 1. A fan that fails keeps its last values.
  if (!drm_hwmon_source(gpu) || gpu->num_fans == 0 || gpu->fans == nullptr) return false;
  // A board with a PWM output and no RPM input: the fan's duty.
  if (drm_extra_sensors[gpu->index].pwm_max > 0) {
    return drm_extra::refresh_pwm_fan(drm_extra_sensors[gpu->index], gpu);
  }
  for (unsigned long i = 0; i < gpu->num_fans; ++i) {
    int rpm = 0;
    if (linux_drm_read_gpu_fan_speed(gpu->drm_card_index, gpu->drm_hwmon_index, i + 1, &rpm)) {
      store_fan_reading(&gpu->fans[i], static_cast<float>(rpm));
    }
  }
  return true;
}

// Video memory in use, a reading no dispatcher of the first design made:
// nvidia-smi's memory.used (MiB). A failed read keeps the last value.
bool GpuMonitorVorn::gpu_read_vram_used(unsigned long index) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr || !nv_smi_source(gpu)) return false;
  int mib = 0;
  if (!linux_nv_smi_read_gpu_vram_used(gpu->nvidia_gpu_index, &mib)) return false;
  store_memory_reading(gpu, mib);
  return true;
}

// Reads the stored values only.
bool GpuMonitorVorn::gpu_get_fan_speed(unsigned long index, unsigned long fan, float* percent,
                                       float* rpm) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr || fan >= gpu->num_fans || gpu->fans == nullptr) return false;
  if (percent != nullptr) *percent = gpu->fans[fan].speed_percent;
  if (rpm != nullptr) *rpm = gpu->fans[fan].rpm;
  return true;
}
