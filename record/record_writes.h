// Every write of a reading into a zev::GPU record: the slots by name, a
// first reading (discovery: the value alone, a temperature with its lowest
// and highest), a refresh (the value folded into its lowest and highest),
// and the release of the arrays a record owns. DRM, nvidia-smi, NVML and
// the Raspberry Pi store through these, so each rule is written once.
//
// The update thread runs the refresh stores while the host reads the same
// records; they are single 32-bit (memory in use: 64-bit) writes and no
// lock is taken, by design. They stay out of line so that race reports
// (and tools/tsan.supp) can name exactly these writes.
#pragma once

#include <cstdint>

#include "record/record_slots.h"
#include "zev/gpu.h"

namespace gpu_record {

// The running lowest and highest of a value; -1.0 is "not read yet".
void fold_min_max(float value, float* min, float* max);
void fold_max(float value, float* max);

// A sensor that reads: its flag, and the record is monitorable.
void mark_readable(zev::GPU* gpu, SensorFlag flag);

// The current value alone: discovery's first reading, and NVML's refresh,
// which keeps no lowest or highest.
void store_usage_value(float* triple, float percent);
void store_clock_value(zev::gpuClock* clock, float mhz);

// Refreshes: the current value, folded into the lowest and highest.
void store_usage_reading(float* triple, float percent);
void store_clock_reading(zev::gpuClock* clock, float mhz);
// Temperatures fold at the first reading too.
void store_temperature_reading(zev::gpuTemperature* temperature, float celsius);
void store_temperature_reading(zev::GPU* gpu, TemperatureSlot slot, float celsius);

// Whole watts (nvidia-smi, DRM): `watts` keeps them and `current` the
// reading times 0.001. Returns `current`.
float store_power_reading(zev::gpuPower* power, float watts);
// NVML's milliwatts: the raw slot, `watts`, and `current` in milliwatts.
void store_nvml_power(zev::GPU* gpu, unsigned int milliwatts);

// A fan read as RPM (DRM hwmon): its percentage is unknown.
void store_fan_reading(zev::gpuFanSpeed* fan, float rpm);
// A fan read as a percentage of its maximum (nvidia-smi, PWM duty): its RPM
// is unknown.
void store_fan_percent(zev::gpuFanSpeed* fan, float percent);

// Video memory in use, MiB.
void store_memory_reading(zev::GPU* gpu, int64_t mib);

// The single fan record of a back-end that reads one fan, made on the
// first reading.
zev::gpuFanSpeed* single_fan(zev::GPU* gpu);

// Frees the arrays a record owns (processes, performance levels, fans) and
// empties their counts; the record itself stays.
void free_record_arrays(zev::GPU* gpu);

}  // namespace gpu_record
