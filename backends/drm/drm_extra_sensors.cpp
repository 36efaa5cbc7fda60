// Discovery and refresh of the extra DRM sensors (see the header).
#include "backends/drm/drm_extra_sensors.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "backends/drm/drm_extra_readers.h"
#include "backends/drm/drm_parse.h"
#include "record/record_writes.h"
#include "zev/gpu.h"
#include "zev/plugin.h"

namespace drm_extra {

namespace {

// Labelled inputs are looked for among numbers 1 to 31: an Intel xe card
// has 17 temperatures, among them "vram" (temp3) and "vram_ch_0".. (temp6 on).
constexpr int kMaxLabelled = 32;

using namespace gpu_record;
using drm_parse::mebibytes;

// Lines of the scan's block, formatted here and traced whole.
class Tracer {
 public:
  explicit Tracer(zev::Plugin* tracer) : tracer_(tracer) {}
  void operator()(const char* format, ...) const __attribute__((format(printf, 2, 3))) {
    char line[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (tracer_ != nullptr) tracer_->tracef("%s", line);
  }

 private:
  zev::Plugin* tracer_;
};

int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The first temperature input labelled "mem" (amdgpu) or "vram" (xe).
int find_memory_temperature(int card, int hwmon) {
  for (int s = 1; s < kMaxLabelled; ++s) {
    char label[32];
    if (!read_hwmon_text(card, hwmon, "temp", s, "label", label, sizeof label)) continue;
    if (drm_parse::names_memory_temperature(label)) return s;
  }
  return -1;
}

// The energy counter that stands for the board: the one labelled "card",
// else the first that reads (some xe cards have only "pkg").
int find_energy_counter(int card, int hwmon) {
  int first = -1;
  for (int s = 1; s < kMaxLabelled; ++s) {
    unsigned long long uj = 0;
    if (!read_hwmon_unsigned(card, hwmon, "energy", s, "input", &uj)) continue;
    char label[32];
    if (read_hwmon_text(card, hwmon, "energy", s, "label", label, sizeof label) &&
        std::strcmp(label, "card") == 0)
      return s;
    if (first < 0) first = s;
  }
  return first;
}

bool read_power_limit(const CardSensors& s, float* milliwatts) {
  if (s.power_limit == PowerLimit::kNone) return false;
  unsigned long long uw = 0;
  return read_hwmon_named(s.card, s.hwmon,
                          s.power_limit == PowerLimit::kCap ? "power1_cap" : "power1_max", &uw) &&
         drm_parse::limit_milliwatts(uw, milliwatts);
}

bool read_pwm_percent(const CardSensors& s, int* percent) {
  unsigned long long duty = 0;
  if (s.pwm_max <= 0 || !read_hwmon_named(s.card, s.hwmon, "pwm1", &duty)) return false;
  *percent = drm_parse::pwm_percent(duty, s.pwm_max);
  return true;
}

void discover_hwmon(zev::GPU* gpu, CardSensors* s, const Tracer& trace) {
  const int card = s->card;
  const int hwmon = s->hwmon;

  s->mem_temp_input = find_memory_temperature(card, hwmon);
  int celsius = 0;
  if (s->mem_temp_input >= 0 && read_hwmon_celsius(card, hwmon, s->mem_temp_input, &celsius)) {
    store_temperature_reading(gpu, kMemoryTemperature, static_cast<float>(celsius));
    trace("  - memory temperature: %d °C", celsius);
    mark_readable(gpu, kTemperatureFlag);
  }

  unsigned long long value = 0;
  if (read_hwmon_named(card, hwmon, "power1_cap", &value)) {
    s->power_limit = PowerLimit::kCap;
  } else if (read_hwmon_named(card, hwmon, "power1_max", &value)) {
    s->power_limit = PowerLimit::kMax;
  }
  float limit_mw = 0.0f;
  if (read_power_limit(*s, &limit_mw)) {
    gpu->power.enforced_limit = limit_mw;
    trace("  - power limit: %d W", static_cast<int>(limit_mw / 1000.0f));
  }

  // Power from the energy counter where no power input reads: the average
  // between two readings, so the first reading only primes it.
  if (gpu->drm_power_index < 0) {
    s->energy_input = find_energy_counter(card, hwmon);
    if (s->energy_input >= 0 &&
        read_hwmon_unsigned(card, hwmon, "energy", s->energy_input, "input", &s->energy_uj)) {
      s->energy_ns = monotonic_ns();
      s->energy_primed = true;
      trace("  - power: energy counter %d (average between refreshes)", s->energy_input);
      mark_readable(gpu, kPowerFlag);
    }
  }

  // Boards with a PWM output but no RPM input show the fan's duty.
  if (gpu->num_fans == 0 && read_hwmon_named(card, hwmon, "pwm1", &value)) {
    unsigned long long max = 0;
    const bool max_read = read_hwmon_named(card, hwmon, "pwm1_max", &max);
    s->pwm_max = drm_parse::pwm_max(max_read, max);
    int percent = 0;
    if (read_pwm_percent(*s, &percent)) {
      store_fan_percent(single_fan(gpu), static_cast<float>(percent));
      trace("  - num fans: 1");
      trace("    > fan[1] speed: %d %%", percent);
      mark_readable(gpu, kFanFlag);
    } else {
      s->pwm_max = 0;
    }
  }
}

}  // namespace

void discover(int card, int hwmon, zev::GPU* gpu, CardSensors* s, zev::Plugin* tracer) {
  const Tracer trace(tracer);
  *s = CardSensors();
  s->card = card;
  s->hwmon = hwmon;

  // A card without a hwmon folder still names its driver.
  if (hwmon < 0 && gpu->driver_name[0] == '\0' &&
      read_uevent_driver(card, gpu->driver_name, sizeof gpu->driver_name)) {
    trace("  - driver: %s", gpu->driver_name);
  }

  unsigned long long value = 0;
  if (read_device_unsigned(card, "mem_busy_percent", &value) && value <= 100) {
    s->mem_busy = true;
    store_usage_value(gpu->memory_usage, static_cast<float>(value));
    trace("  - memory usage: %d %%", static_cast<int>(value));
    mark_readable(gpu, kUsageFlag);
  }
  if (read_device_unsigned(card, "mem_info_vram_total", &value) && mebibytes(value) > 0) {
    gpu->vram_size_mb = static_cast<int64_t>(mebibytes(value));
    trace("  - VRAM: %lld MB", static_cast<long long>(gpu->vram_size_mb));
  }
  if (read_device_unsigned(card, "mem_info_vram_used", &value)) {
    s->vram_used = true;
    store_memory_reading(gpu, static_cast<int64_t>(mebibytes(value)));
    trace("  - VRAM used: %lld MB", static_cast<long long>(gpu->vram_used_mb));
    gpu->monitorable = true;
  }

  // Intel GT clocks live outside hwmon: i915 on the card, xe per GT.
  int mhz = 0;
  if (gpu->core_clock.current < 0.0f) {
    for (IntelClock source : {IntelClock::kI915, IntelClock::kXe}) {
      if (!read_intel_clock(card, source, &mhz)) continue;
      s->intel_clock = source;
      store_clock_value(&gpu->core_clock, static_cast<float>(mhz));
      trace("  - core clock: %d MHz", mhz);
      gpu->monitorable = true;
      break;
    }
  }

  if (hwmon >= 0) discover_hwmon(gpu, s, trace);
}

}  // namespace drm_extra

namespace drm_backend {

using namespace drm_extra;

bool refresh_memory_temperature(const CardSensors& s, zev::GPU* gpu, float* celsius) {
  int value = 0;
  if (s.mem_temp_input < 0 || !read_hwmon_celsius(s.card, s.hwmon, s.mem_temp_input, &value))
    return false;
  store_temperature_reading(gpu, kMemoryTemperature, static_cast<float>(value));
  if (celsius != nullptr) *celsius = static_cast<float>(value);
  return true;
}

bool refresh_memory_usage(const CardSensors& s, zev::GPU* gpu, float* percent) {
  bool read = false;
  unsigned long long value = 0;
  if (s.vram_used && read_device_unsigned(s.card, "mem_info_vram_used", &value)) {
    store_memory_reading(gpu, static_cast<int64_t>(mebibytes(value)));
    read = true;
  }
  if (s.mem_busy && read_device_unsigned(s.card, "mem_busy_percent", &value) && value <= 100) {
    store_usage_reading(gpu->memory_usage, static_cast<float>(value));
    if (percent != nullptr) *percent = gpu->memory_usage[0];
    read = true;
  }
  return read;
}

bool refresh_intel_clock(const CardSensors& s, zev::GPU* gpu, float* mhz) {
  int value = 0;
  if (!read_intel_clock(s.card, s.intel_clock, &value)) return false;
  store_clock_reading(&gpu->core_clock, static_cast<float>(value));
  if (mhz != nullptr) *mhz = gpu->core_clock.current;
  return true;
}

bool refresh_power(CardSensors* s, zev::GPU* gpu, float* watts) {
  float limit_mw = 0.0f;
  if (read_power_limit(*s, &limit_mw)) gpu->power.enforced_limit = limit_mw;

  unsigned long long uj = 0;
  if (s->energy_input < 0 ||
      !read_hwmon_unsigned(s->card, s->hwmon, "energy", s->energy_input, "input", &uj))
    return false;
  const int64_t now = monotonic_ns();
  const bool had_previous = s->energy_primed;
  const unsigned long long previous_uj = s->energy_uj;
  const int64_t elapsed_ns = now - s->energy_ns;
  if (had_previous && elapsed_ns <= 0) return false;  // no time has passed: keep the older reading
  s->energy_uj = uj;
  s->energy_ns = now;
  s->energy_primed = true;
  // A counter that went backwards or wrapped gives no reading; the next
  // refresh measures from here.
  double average = 0.0;
  if (!had_previous || !drm_parse::average_watts(previous_uj, uj, elapsed_ns, &average))
    return false;
  // Stored as the DRM power path stores watts.
  const float current = store_power_reading(&gpu->power, static_cast<float>(average));
  if (watts != nullptr) *watts = current;
  return true;
}

bool refresh_pwm_fan(const CardSensors& s, zev::GPU* gpu) {
  int percent = 0;
  if (gpu->fans == nullptr || gpu->num_fans == 0 || !read_pwm_percent(s, &percent)) return false;
  store_fan_percent(&gpu->fans[0], static_cast<float>(percent));
  return true;
}

}  // namespace drm_backend
