// Readers of the DRM card files behind the extra sensors: each builds the
// file's path under /sys/class/drm/card<N>, reads its first line (open, read,
// close; nothing allocated) and converts it. False when the file does not
// open or its text is not the number expected.
#pragma once

#include <cstddef>

#include "backends/drm/drm_extra_sensors.h"

namespace drm_extra {

// hwmon<K>/<kind><i>_<leaf>, e.g. ("temp", 3, "label") for temp3_label.
bool read_hwmon_unsigned(int card, int hwmon, const char* kind, int sensor, const char* leaf,
                         unsigned long long* value);
// The same file's text, without its newline, at most size - 1 characters.
bool read_hwmon_text(int card, int hwmon, const char* kind, int sensor, const char* leaf,
                     char* text, size_t size);
// hwmon<K>/temp<i>_input in whole degrees (millidegrees / 1000, toward zero).
bool read_hwmon_celsius(int card, int hwmon, int sensor, int* celsius);
// hwmon<K>/<name> (pwm1, pwm1_max, power1_cap, power1_max).
bool read_hwmon_named(int card, int hwmon, const char* name, unsigned long long* value);

// device/<name> of the card (mem_busy_percent, mem_info_vram_total, ...).
bool read_device_unsigned(int card, const char* name, unsigned long long* value);

// The GT clock in MHz from the files `source` names: the actual frequency,
// or, where it reads 0 (the GT asleep) or not at all, the requested one.
bool read_intel_clock(int card, IntelClock source, int* mhz);

// The kernel driver bound to the card's device: the DRIVER= line of its
// uevent file.
bool read_uevent_driver(int card, char* text, size_t size);

}  // namespace drm_extra
