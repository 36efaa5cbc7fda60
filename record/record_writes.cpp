#include "record/record_writes.h"

// Out of line and out of interprocedural optimisation: the access below is
// made by this very function, never moved into its caller.
#if defined(__clang__)
#define ZEV_OUT_OF_LINE __attribute__((noinline))
#else
#define ZEV_OUT_OF_LINE __attribute__((noipa))
#endif

namespace gpu_record {

// The unset sentinel is compared exactly; NaN is not the sentinel.
void fold_min_max(float value, float* min, float* max) {
  if (*min == -1.0f || *min > value) *min = value;
  fold_max(value, max);
}

void fold_max(float value, float* max) {
  if (*max == -1.0f || *max < value) *max = value;
}

void mark_readable(zev::GPU* gpu, SensorFlag flag) {
  gpu->sensor_available[flag] = 1;
  gpu->monitorable = true;
}

void store_usage_value(float* triple, float percent) { triple[0] = percent; }

void store_clock_value(zev::gpuClock* clock, float mhz) { clock->current = mhz; }

ZEV_OUT_OF_LINE void store_usage_reading(float* triple, float percent) {
  triple[0] = percent;
  fold_min_max(percent, &triple[1], &triple[2]);
}

ZEV_OUT_OF_LINE void store_clock_reading(zev::gpuClock* clock, float mhz) {
  clock->current = mhz;
  fold_min_max(mhz, &clock->min, &clock->max);
}

ZEV_OUT_OF_LINE void store_temperature_reading(zev::gpuTemperature* temperature, float celsius) {
  temperature->current = celsius;
  temperature->update_min_max();
}

void store_temperature_reading(zev::GPU* gpu, TemperatureSlot slot, float celsius) {
  store_temperature_reading(&gpu->temperatures[slot], celsius);
}

ZEV_OUT_OF_LINE float store_power_reading(zev::gpuPower* power, float watts) {
  power->watts = watts;
  power->current = 0.001f * watts;
  return power->current;
}

// `watts` is the milliwatts divided in double precision.
ZEV_OUT_OF_LINE void store_nvml_power(zev::GPU* gpu, unsigned int milliwatts) {
  gpu->nvml_raw[kRawPowerMilliwatts] = static_cast<int32_t>(milliwatts);
  gpu->power.watts = static_cast<float>(milliwatts / 1000.0);
  gpu->power.current = static_cast<float>(milliwatts);
}

ZEV_OUT_OF_LINE void store_fan_reading(zev::gpuFanSpeed* fan, float rpm) {
  fan->speed_percent = -1.0f;
  fan->rpm = rpm;
}

// nvidia-smi's fan.speed is a percentage of the fan's maximum. The first
// design stored it as RPM (an RTX 2080 SUPER at 38 % showed "38 RPM"): it
// goes to the percentage, and the RPM is unknown.
ZEV_OUT_OF_LINE void store_fan_percent(zev::gpuFanSpeed* fan, float percent) {
  fan->speed_percent = percent;
  fan->rpm = -1.0f;
}

ZEV_OUT_OF_LINE void store_memory_reading(zev::GPU* gpu, int64_t mib) { gpu->vram_used_mb = mib; }

zev::gpuFanSpeed* single_fan(zev::GPU* gpu) {
  if (gpu->fans == nullptr) {
    gpu->num_fans = 1;
    gpu->fans = new zev::gpuFanSpeed[1];
  }
  return &gpu->fans[0];
}

void free_record_arrays(zev::GPU* gpu) {
  delete[] gpu->process_utilization;
  gpu->process_utilization = nullptr;
  gpu->num_process_utilization = 0;
  delete[] gpu->perf_levels;
  gpu->perf_levels = nullptr;
  gpu->num_perf_levels = 0;
  delete[] gpu->fans;
  gpu->fans = nullptr;
  gpu->num_fans = 0;
}

}  // namespace gpu_record
