// Live values of a DRM card: GPU busy percent of the PCI device, and the
// clocks, temperatures and fan speeds of its hwmon directory. Values are
// decimal text; unit changes are integer divisions that truncate toward zero
// (999999 Hz is 0 MHz, -1500 m°C is -1 °C).
#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"

namespace drm_backend {

namespace {

using drm_sysfs::as_path_number;

constexpr const char* kHwmonSensor = "/sys/class/drm/card%d/device/hwmon/hwmon%d/%s%d_input";

// Reads the decimal value of `path` and stores it divided by `divisor`.
bool read_decimal(const char* path, long long divisor, int* value) {
  if (value == nullptr) return false;
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *value = drm_parse::scaled_decimal(line, divisor);
  return true;
}

// <kind><sensor>_input of the card's hwmon folder.
bool read_hwmon_input(unsigned long card, unsigned long hwmon, const char* kind,
                      unsigned long sensor, long long divisor, int* value) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, kHwmonSensor, as_path_number(card), as_path_number(hwmon), kind,
                         as_path_number(sensor));
  return read_decimal(path, divisor, value);
}

}  // namespace

bool read_gpu_usage(unsigned long card, int* percent) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/gpu_busy_percent",
                         as_path_number(card));
  return read_decimal(path, 1, percent);
}

// freq1_input is the shader clock (sclk) in Hz.
bool read_core_clock(unsigned long card, unsigned long hwmon, int* mhz) {
  return read_hwmon_input(card, hwmon, "freq", 1, drm_parse::kHzPerMHz, mhz);
}

// freq2_input is the memory clock (mclk) in Hz; APUs have none.
bool read_memory_clock(unsigned long card, unsigned long hwmon, int* mhz) {
  return read_hwmon_input(card, hwmon, "freq", 2, drm_parse::kHzPerMHz, mhz);
}

// tempN_input is in millidegrees Celsius.
bool read_temperature(unsigned long card, unsigned long hwmon, unsigned long sensor, int* celsius) {
  return read_hwmon_input(card, hwmon, "temp", sensor, drm_parse::kMilliPerUnit, celsius);
}

// fanN_input is in RPM.
bool read_fan_speed(unsigned long card, unsigned long hwmon, unsigned long sensor, int* rpm) {
  return read_hwmon_input(card, hwmon, "fan", sensor, 1, rpm);
}

}  // namespace drm_backend
