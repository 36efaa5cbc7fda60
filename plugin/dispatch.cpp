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

// Where a dispatcher's caller wants the values of one reading (either may
// be null): core and memory, or the power's watts first.
struct Outputs {
  float* first;
  float* second;
};

// One source of one kind of reading: whether it serves the record, and the
// read, which stores into the record and the outputs and says whether
// anything was read. Sources are template arguments, not a table of
// pointers: nothing for the loader to relocate.
template <bool (*Serves)(const zev::GPU*), bool (*Read)(GpuMonitorVorn*, zev::GPU*, Outputs)>
struct Source {
  static bool read_if_served(GpuMonitorVorn* monitor, zev::GPU* gpu, Outputs out) {
    return Serves(gpu) && Read(monitor, gpu, out);
  }
};

// Every source in order, each only where it serves the record; a later
// source that reads overwrites what an earlier one stored.
template <typename... Sources>
struct SourceTable {
  static bool read(GpuMonitorVorn* monitor, unsigned long index, Outputs out) {
    zev::GPU* gpu = monitor->get_gpu(index);
    if (gpu == nullptr) return false;
    bool read = false;
    ((read = Sources::read_if_served(monitor, gpu, out) || read), ...);
    return read;
  }
};

drm_backend::CardSensors& extra_sensors(GpuMonitorVorn* monitor, const zev::GPU* gpu) {
  return monitor->drm_extra_sensors[gpu->index];
}

// --- clocks: core into first, memory into second

bool store_clock(int mhz, zev::gpuClock* clock, float* out) {
  store_clock_reading(clock, static_cast<float>(mhz));
  if (out != nullptr) *out = clock->current;
  return true;
}

bool nv_smi_clocks(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  bool read = false;
  int mhz = 0;
  if (m->linux_nv_smi_read_gpu_core_clock(gpu->nvidia_gpu_index, &mhz))
    read = store_clock(mhz, &gpu->core_clock, out.first);
  if (m->linux_nv_smi_read_vram_clock(gpu->nvidia_gpu_index, &mhz))
    read = store_clock(mhz, &gpu->memory_clock, out.second);
  return read;
}

bool drm_clocks(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  bool read = false;
  int mhz = 0;
  if (m->linux_drm_read_gpu_core_clock(gpu->drm_card_index, gpu->drm_hwmon_index, &mhz))
    read = store_clock(mhz, &gpu->core_clock, out.first);
  if (m->linux_drm_read_vram_clock(gpu->drm_card_index, gpu->drm_hwmon_index, &mhz))
    read = store_clock(mhz, &gpu->memory_clock, out.second);
  return read;
}

// Intel GT clocks (i915, xe), which no hwmon file holds.
bool intel_gt_clock(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  const drm_backend::CardSensors& s = extra_sensors(m, gpu);
  return s.intel_clock != drm_backend::IntelClock::kNone &&
         drm_backend::refresh_intel_clock(s, gpu, out.first);
}

bool rpi_clock(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  float mhz = -1.0f;
  if (!m->linux_arm64_rpi_read_gpu_core_clock(&mhz)) return false;
  store_clock_reading(&gpu->core_clock, mhz);
  if (out.first != nullptr) *out.first = gpu->core_clock.current;
  return true;
}

using ClockSources =
    SourceTable<Source<nv_smi_source, nv_smi_clocks>, Source<drm_hwmon_source, drm_clocks>,
                Source<drm_card_source, intel_gt_clock>, Source<rpi_source, rpi_clock>>;

// --- usages: core into first, memory into second

bool store_usage(float percent, float* triple, float* out) {
  store_usage_reading(triple, percent);
  if (out != nullptr) *out = percent;
  return true;
}

bool nv_smi_usages(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  bool read = false;
  int percent = 0;
  if (m->linux_nv_smi_read_gpu_usage(gpu->nvidia_gpu_index, &percent))
    read = store_usage(static_cast<float>(percent), gpu->core_usage, out.first);
  if (m->linux_nv_smi_read_vram_usage(gpu->nvidia_gpu_index, &percent))
    read = store_usage(static_cast<float>(percent), gpu->memory_usage, out.second);
  return read;
}

// GPU busy percent belongs to the card itself: no hwmon needed. Memory busy
// percent and video memory in use (amdgpu) come with it.
bool drm_usages(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  bool read = false;
  int percent = 0;
  if (m->linux_drm_read_gpu_usage(gpu->drm_card_index, &percent)) {
    read = store_usage(static_cast<float>(percent), gpu->core_usage, out.first);
  }
  if (drm_backend::refresh_memory_usage(extra_sensors(m, gpu), gpu, out.second)) read = true;
  return read;
}

bool rpi_usage(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  float percent = -1.0f;
  if (m->linux_arm64_rpi_read_gpu_usage_v2(gpu, &percent)) {
    gpu->rpi_usage_method = 2;
  } else if (m->linux_arm64_rpi_read_gpu_usage_v1(gpu, &percent)) {
    gpu->rpi_usage_method = 1;
  } else {
    return false;
  }
  return store_usage(percent, gpu->core_usage, out.first);
}

using UsageSources =
    SourceTable<Source<nv_smi_source, nv_smi_usages>, Source<drm_card_source, drm_usages>,
                Source<rpi_source, rpi_usage>>;

// --- temperatures: core into first, memory into second

bool store_temperature(float celsius, zev::gpuTemperature* temperature, float* out) {
  store_temperature_reading(temperature, celsius);
  if (out != nullptr) *out = celsius;
  return true;
}

bool nv_smi_temperatures(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  bool read = false;
  int celsius = 0;
  if (m->linux_nv_smi_read_gpu_temperature(gpu->nvidia_gpu_index, &celsius)) {
    read = store_temperature(static_cast<float>(celsius), &gpu->temperatures[kCoreTemperature],
                             out.first);
  }
  if (m->linux_nv_smi_read_vram_temperature(gpu->nvidia_gpu_index, &celsius)) {
    read = store_temperature(static_cast<float>(celsius), &gpu->temperatures[kMemoryTemperature],
                             out.second);
  }
  return read;
}

bool drm_core_temperature_source(const zev::GPU* gpu) {
  return drm_hwmon_source(gpu) && gpu->drm_temp_input_index >= 0;
}

bool drm_core_temperature(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  int celsius = 0;
  if (!m->linux_drm_read_gpu_temperature(gpu->drm_card_index, gpu->drm_hwmon_index,
                                         gpu->drm_temp_input_index, &celsius))
    return false;
  return store_temperature(static_cast<float>(celsius), &gpu->temperatures[kCoreTemperature],
                           out.first);
}

// The memory temperature: the input labelled "mem" (amdgpu) or "vram" (xe).
bool drm_memory_temperature(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  return drm_backend::refresh_memory_temperature(extra_sensors(m, gpu), gpu, out.second);
}

bool rpi_temperature(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  float celsius = -1.0f;
  if (!m->linux_arm64_rpi_read_gpu_core_temp(&celsius)) return false;
  return store_temperature(celsius, &gpu->temperatures[kCoreTemperature], out.first);
}

using TemperatureSources = SourceTable<Source<nv_smi_source, nv_smi_temperatures>,
                                       Source<drm_core_temperature_source, drm_core_temperature>,
                                       Source<drm_hwmon_source, drm_memory_temperature>,
                                       Source<rpi_source, rpi_temperature>>;

// --- power, in first; it keeps no minimum or maximum, and there is no
// Raspberry Pi source

bool store_power(int reading, zev::GPU* gpu, float* out) {
  const float current = store_power_reading(&gpu->power, static_cast<float>(reading));
  if (out != nullptr) *out = current;
  return true;
}

bool nv_smi_power(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  int reading = 0;
  return m->linux_nv_smi_read_gpu_power(gpu->nvidia_gpu_index, &reading) &&
         store_power(reading, gpu, out.first);
}

bool drm_power_input_source(const zev::GPU* gpu) {
  return drm_hwmon_source(gpu) && gpu->drm_power_index >= 0;
}

bool drm_power_input(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  int reading = 0;
  return m->linux_drm_read_gpu_power(gpu->drm_card_index, gpu->drm_hwmon_index,
                                     gpu->drm_power_index, &reading) &&
         store_power(reading, gpu, out.first);
}

// The power limit, and power from an energy counter where no power input
// reads (i915, xe).
bool drm_energy_power(GpuMonitorVorn* m, zev::GPU* gpu, Outputs out) {
  return drm_backend::refresh_power(&extra_sensors(m, gpu), gpu, out.first);
}

using PowerSources = SourceTable<Source<nv_smi_source, nv_smi_power>,
                                 Source<drm_power_input_source, drm_power_input>,
                                 Source<drm_hwmon_source, drm_energy_power>>;

}  // namespace

bool GpuMonitorVorn::gpu_get_clocks(unsigned long index, float* core_mhz, float* memory_mhz) {
  return ClockSources::read(this, index, {core_mhz, memory_mhz});
}

bool GpuMonitorVorn::gpu_get_usages(unsigned long index, float* core_percent, float* memory_percent,
                                    float*, float*) {
  return UsageSources::read(this, index, {core_percent, memory_percent});
}

bool GpuMonitorVorn::gpu_get_temperatures(unsigned long index, float* core_c, float* memory_c,
                                          float*, float*) {
  return TemperatureSources::read(this, index, {core_c, memory_c});
}

bool GpuMonitorVorn::gpu_power_get_current_value(unsigned long index, float*, float* watts) {
  return PowerSources::read(this, index, {watts, nullptr});
}

bool GpuMonitorVorn::gpu_read_fan_speed(unsigned long index) {
  zev::GPU* gpu = get_gpu(index);
  if (gpu == nullptr) return false;

  // nvidia-smi reports one fan; its record is made on first success.
  if (nv_smi_source(gpu) && nvidia_backend::nv_smi_refresh_fan(gpu)) return true;

  // DRM fans were counted and allocated by the scan; fan i is hwmon fan
  // i + 1. A fan that fails keeps its last values.
  if (!drm_hwmon_source(gpu) || gpu->num_fans == 0 || gpu->fans == nullptr) return false;
  // A board with a PWM output and no RPM input: the fan's duty.
  if (drm_extra_sensors[gpu->index].pwm_max > 0) {
    return drm_backend::refresh_pwm_fan(drm_extra_sensors[gpu->index], gpu);
  }
  for (unsigned long i = 0; i < gpu->num_fans; ++i) {
    int rpm = 0;
    if (linux_drm_read_gpu_fan_speed(gpu->drm_card_index, gpu->drm_hwmon_index, i + 1, &rpm)) {
      store_fan_reading(&gpu->fans[i], static_cast<float>(rpm));
    }
  }
  return true;
}

// Video memory in use, on the nvidia-smi path.
bool GpuMonitorVorn::gpu_read_vram_used(unsigned long index) {
  zev::GPU* gpu = get_gpu(index);
  return gpu != nullptr && nv_smi_source(gpu) && nvidia_backend::nv_smi_refresh_vram_used(gpu);
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
