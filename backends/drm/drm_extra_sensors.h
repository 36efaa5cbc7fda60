// Sensors of real DRM cards beyond the classic hwmon set: the memory
// temperature (the input labelled "mem" or "vram"), memory busy percent and
// video memory of amdgpu, the GT clock of Intel cards (i915 and xe), power
// from an energy counter where no power input reads (i915, xe), the power
// limit, and the fan duty of boards that have a PWM output but no RPM input.
//
// Discovery finds which of them a card offers and keeps that here, so that a
// refresh opens exactly the files that answered at discovery and lists no
// directory. The monitor keeps one of these per GPU record (by the record's
// `index`, its list slot at insertion).
#pragma once

#include <cstdint>

namespace zev {
class GPU;
}

namespace drm_extra {

// Which files give an Intel card's GT clock, in MHz.
enum class IntelClock : uint8_t {
  kNone,
  kI915,  // card<N>/gt_act_freq_mhz, else gt_cur_freq_mhz
  kXe,    // card<N>/device/tile0/gt0/freq0/act_freq, else cur_freq
};

// Which hwmon file holds the power limit, in microwatts.
enum class PowerLimit : uint8_t { kNone, kCap, kMax };

struct CardSensors {
  int card = -1;
  int hwmon = -1;           // -1: the card has no hwmon folder
  int mem_temp_input = -1;  // temp<i>_input of the memory
  bool mem_busy = false;    // device/mem_busy_percent reads
  bool vram_used = false;   // device/mem_info_vram_used reads
  IntelClock intel_clock = IntelClock::kNone;
  PowerLimit power_limit = PowerLimit::kNone;
  int energy_input = -1;  // energy<i>_input giving power (no power input reads)
  int pwm_max = 0;        // > 0: fan duty from pwm1 against this maximum

  // The energy counter's previous reading, for the power between two readings.
  bool energy_primed = false;
  unsigned long long energy_uj = 0;
  int64_t energy_ns = 0;
};

// Discovery: finds what card `card` (hwmon folder `hwmon`, -1 for none)
// offers beyond the classic set, stores first readings into `gpu` (setting
// its sensor flags and `monitorable` where a value reads) and writes trace
// lines (whole, formatted) through `trace`, in the style of the scan's block.
using TraceLine = void (*)(void* context, const char* line);
void discover(int card, int hwmon, zev::GPU* gpu, CardSensors* sensors, TraceLine trace,
              void* trace_context);

// Refreshes of the values discovery found; each returns true when it stored a
// new reading. None allocates or lists a directory.
bool refresh_memory_temperature(const CardSensors& sensors, zev::GPU* gpu, float* celsius);
bool refresh_memory_usage(const CardSensors& sensors, zev::GPU* gpu, float* percent);
bool refresh_intel_clock(const CardSensors& sensors, zev::GPU* gpu, float* mhz);
// Power from the energy counter (average since the previous reading) and the
// power limit; `watts` gets the power's `current` value as the DRM path
// stores it.
bool refresh_power(CardSensors* sensors, zev::GPU* gpu, float* watts);
bool refresh_pwm_fan(const CardSensors& sensors, zev::GPU* gpu);

}  // namespace drm_extra
