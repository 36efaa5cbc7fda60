#include "backends/drm/drm_extra_readers.h"

#include <cstring>

#include "backends/drm/drm_sysfs.h"
#include "io/text_file.h"
#include "plugin/gpu_monitor_vorn.h"

namespace drm_extra {

namespace {

constexpr const char* kHwmonFile = "/sys/class/drm/card%d/device/hwmon/hwmon%d/%s%d_%s";

}  // namespace

bool read_hwmon_unsigned(int card, int hwmon, const char* kind, int sensor, const char* leaf,
                         unsigned long long* value) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, kHwmonFile, card, hwmon, kind, sensor, leaf);
  return drm_sysfs::read_unsigned(path, value);
}

bool read_hwmon_text(int card, int hwmon, const char* kind, int sensor, const char* leaf,
                     char* text, size_t size) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, kHwmonFile, card, hwmon, kind, sensor, leaf);
  char line[drm_sysfs::kShortLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  drm_sysfs::cut_newline(line);
  copy_text(text, size, line);
  return true;
}

bool read_hwmon_celsius(int card, int hwmon, int sensor, int* celsius) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, kHwmonFile, card, hwmon, "temp", sensor, "input");
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *celsius = drm_sysfs::scaled_decimal(line, 1000);
  return true;
}

bool read_hwmon_named(int card, int hwmon, const char* name, unsigned long long* value) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/%s", card, hwmon, name);
  return drm_sysfs::read_unsigned(path, value);
}

bool read_device_unsigned(int card, const char* name, unsigned long long* value) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/%s", card, name);
  return drm_sysfs::read_unsigned(path, value);
}

bool read_intel_clock(int card, IntelClock source, int* mhz) {
  const char* actual = nullptr;
  const char* requested = nullptr;
  switch (source) {
    case IntelClock::kI915:
      actual = "/sys/class/drm/card%d/gt_act_freq_mhz";
      requested = "/sys/class/drm/card%d/gt_cur_freq_mhz";
      break;
    case IntelClock::kXe:
      actual = "/sys/class/drm/card%d/device/tile0/gt0/freq0/act_freq";
      requested = "/sys/class/drm/card%d/device/tile0/gt0/freq0/cur_freq";
      break;
    case IntelClock::kNone: return false;
  }
  char path[drm_sysfs::kPathSize];
  unsigned long long value = 0;
  drm_sysfs::format_path(path, actual, card);
  if (!drm_sysfs::read_unsigned(path, &value) || value == 0) {
    drm_sysfs::format_path(path, requested, card);
    if (!drm_sysfs::read_unsigned(path, &value)) return false;
  }
  if (value > 1000000) return false;  // no GT clock is a terahertz
  *mhz = static_cast<int>(value);
  return true;
}

bool read_uevent_driver(int card, char* text, size_t size) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/uevent", card);
  text_file::Lines lines;
  if (!lines.open(path)) return false;
  char line[drm_sysfs::kLineSize];
  while (lines.next(line, sizeof line)) {
    if (std::strncmp(line, "DRIVER=", 7) != 0) continue;
    drm_sysfs::cut_newline(line);
    if (line[7] == '\0') return false;
    copy_text(text, size, line + 7);
    return true;
  }
  return false;
}

}  // namespace drm_extra
