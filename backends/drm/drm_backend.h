// The DRM/hwmon back-end: the cards the kernel exposes as
// /sys/class/drm/card<N>, their PCI identity, the sensors of their hwmon
// folder and the extra sensors of real cards (memory temperature and usage,
// Intel GT clocks, power from an energy counter, power limit, PWM fan duty).
// What the core and the tools outside backends/drm/ use of it.
#pragma once

#include <cstdint>
#include <vector>

namespace zev {
class GPU;
class Plugin;
}  // namespace zev

namespace drm_backend {

// ----- per-record state

// Which files give an Intel card's GT clock, in MHz.
enum class IntelClock : uint8_t {
  kNone,
  kI915,  // card<N>/gt_act_freq_mhz, else gt_cur_freq_mhz
  kXe,    // card<N>/device/tile0/gt0/freq0/act_freq, else cur_freq
};

// Which hwmon file holds the power limit, in microwatts.
enum class PowerLimit : uint8_t { kNone, kCap, kMax };

// What discovery found of a card's extra sensors, so that a refresh opens
// exactly the files that answered at discovery and lists no directory. The
// monitor keeps one per GPU record (by the record's `index`, its list slot
// at insertion).
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

// ----- discovery
//
// The back-end finds the cards and fills a record for each; the core adds
// the records to its list in the order returned, keeps each one's sensors by
// the record's index and counts them (DRM records, monitorable records). The
// scan's trace block ("DRM: scanning GPUs...", one block per card, the
// no-GPU lines) goes through `tracer` as the scan runs; registering adds no
// trace, so the lines and the records are those of a scan that added each
// record as it went.

struct FoundCard {
  zev::GPU* gpu;  // new; the core owns it from here
  CardSensors sensors;
};

// Cards are the card<N> entries of /sys/class/drm, tried in ascending N
// until `capacity` records were made. NVIDIA cards are skipped when
// `nvidia_monitored` (nvidia-smi or NVML lists them).
std::vector<FoundCard> find_cards(bool nvidia_monitored, unsigned long capacity,
                                  zev::Plugin* tracer);

// Whether the scan would find a card other than NVIDIA's; asked quietly.
bool has_other_than_nvidia();

// ----- readers of one card's files: false when the file does not read

bool probe(unsigned long card);
bool probe_hwmon(unsigned long card, unsigned long hwmon);
bool read_vendor_id(unsigned long card, unsigned long* id);
bool read_device_id(unsigned long card, unsigned long* id);
bool read_revision_id(unsigned long card, unsigned long* id);
bool read_subvendor_id(unsigned long card, unsigned long* id);
bool read_subdevice_id(unsigned long card, unsigned long* id);
bool read_vbios(unsigned long card, char* text);
bool read_gpu_usage(unsigned long card, int* percent);
bool read_driver_name(unsigned long card, unsigned long hwmon, char* text);
bool read_core_clock(unsigned long card, unsigned long hwmon, int* mhz);
bool read_memory_clock(unsigned long card, unsigned long hwmon, int* mhz);
bool read_temperature(unsigned long card, unsigned long hwmon, unsigned long sensor, int* celsius);
bool read_fan_speed(unsigned long card, unsigned long hwmon, unsigned long sensor, int* rpm);
bool read_power(unsigned long card, unsigned long hwmon, unsigned long sensor, int* watts);

// ----- refreshes of the extra sensors discovery found
//
// Each returns true when it stored a new reading into the record. None
// allocates or lists a directory.
bool refresh_memory_temperature(const CardSensors& sensors, zev::GPU* gpu, float* celsius);
bool refresh_memory_usage(const CardSensors& sensors, zev::GPU* gpu, float* percent);
bool refresh_intel_clock(const CardSensors& sensors, zev::GPU* gpu, float* mhz);
// Power from the energy counter (average since the previous reading) and the
// power limit; `watts` gets the power's `current` value as the DRM path
// stores it.
bool refresh_power(CardSensors* sensors, zev::GPU* gpu, float* watts);
bool refresh_pwm_fan(const CardSensors& sensors, zev::GPU* gpu);

}  // namespace drm_backend
