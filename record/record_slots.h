// The named slots of a zev::GPU record (sensor flags, temperatures, NVML's
// raw values) and the placeholder bus numbers: the record's conventions,
// header only, for the back-ends that write a record and the hosts and
// overlays that read one.
#pragma once

#include <cstdint>

namespace gpu_record {

// Flags of zev::GPU::sensor_available.
enum SensorFlag : int { kTemperatureFlag = 0, kUsageFlag = 2, kFanFlag = 3, kPowerFlag = 4 };

// Slots of zev::GPU::temperatures.
enum TemperatureSlot : int { kCoreTemperature = 0, kMemoryTemperature = 2 };

// Slots of zev::GPU::nvml_raw.
enum NvmlRawSlot : int {
  kRawFanPercent = 0,
  kRawTemperature = 1,
  kRawCoreClock = 2,
  kRawMemoryClock = 3,
  kRawPowerMilliwatts = 4,
};

// Bus numbers a record holds before (or without) a real one: discovery
// gives every new record 1000 + its list position, so that the sort by bus
// number keeps discovery order for records no back-end gave a bus number.
// Placeholders are never shown.
constexpr int32_t kFirstPlaceholderBus = 1000;

// The placeholder of the record at list position `position`.
constexpr int32_t placeholder_bus(uint64_t position) {
  return static_cast<int32_t>(kFirstPlaceholderBus + position);
}

// A bus number that is no placeholder: a real one, or -1 (unknown).
constexpr bool not_placeholder_bus(int32_t bus) { return bus < kFirstPlaceholderBus; }

// A bus number read from a back-end: neither unknown nor a placeholder.
constexpr bool real_bus(int32_t bus) { return bus >= 0 && not_placeholder_bus(bus); }

}  // namespace gpu_record
