#include "backends/drm/drm_extra_readers.h"

#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"
#include "io/copy_text.h"
#include "io/text_file.h"

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
  return drm_sysfs::read_first_line(path, line, sizeof line) &&
         drm_parse::text_line(line, text, size);
}

bool read_hwmon_celsius(int card, int hwmon, int sensor, int* celsius) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, kHwmonFile, card, hwmon, "temp", sensor, "input");
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *celsius = drm_parse::scaled_decimal(line, drm_parse::kMilliPerUnit);
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
  if (!drm_parse::plausible_gt_mhz(value)) return false;
  *mhz = static_cast<int>(value);
  return true;
}

bool read_uevent_driver(int card, char* text, size_t size) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/uevent", card);
  text_file::Lines lines;
  if (!lines.open(path)) return false;
  char line[drm_sysfs::kLineSize];
  char driver[drm_sysfs::kLineSize];
  while (lines.next(line, sizeof line)) {
    if (!drm_parse::uevent_driver(line, driver, sizeof driver)) continue;
    if (driver[0] == '\0') return false;
    copy_text(text, size, driver);
    return true;
  }
  return false;
}

}  // namespace drm_extra
