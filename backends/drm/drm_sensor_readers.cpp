// Live values of a DRM card: GPU busy percent of the PCI device, and the
// clocks, temperatures and fan speeds of its hwmon directory. Values are
// decimal text; unit changes are integer divisions that truncate toward zero
// (999999 Hz is 0 MHz, -1500 m°C is -1 °C).
#include <cstdlib>

#include "backends/drm/drm_sysfs.h"
#include "plugin/gpu_monitor_vorn.h"

using drm_sysfs::as_path_number;

namespace {

// Reads the decimal value of `path` and stores it divided by `divisor`.
bool read_decimal(const char* path, int divisor, int* value) {
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *value = drm_sysfs::scaled_decimal(line, divisor);
  return true;
}

constexpr int kHzPerMHz = 1000000;
constexpr int kMilliPerUnit = 1000;

}  // namespace

bool GpuMonitorVorn::linux_drm_read_gpu_usage(unsigned long card, int* percent) {
  if (percent == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/gpu_busy_percent",
                         as_path_number(card));
  return read_decimal(path, 1, percent);
}

// freq1_input is the shader clock (sclk) in Hz.
bool GpuMonitorVorn::linux_drm_read_gpu_core_clock(unsigned long card, unsigned long hwmon,
                                                   int* mhz) {
  if (mhz == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/freq1_input",
                         as_path_number(card), as_path_number(hwmon));
  return read_decimal(path, kHzPerMHz, mhz);
}

// freq2_input is the memory clock (mclk) in Hz; APUs have none.
bool GpuMonitorVorn::linux_drm_read_vram_clock(unsigned long card, unsigned long hwmon, int* mhz) {
  if (mhz == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/freq2_input",
                         as_path_number(card), as_path_number(hwmon));
  return read_decimal(path, kHzPerMHz, mhz);
}

// tempN_input is in millidegrees Celsius.
bool GpuMonitorVorn::linux_drm_read_gpu_temperature(unsigned long card, unsigned long hwmon,
                                                    unsigned long sensor, int* celsius) {
  if (celsius == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/temp%d_input",
                         as_path_number(card), as_path_number(hwmon), as_path_number(sensor));
  return read_decimal(path, kMilliPerUnit, celsius);
}

// fanN_input is in RPM.
bool GpuMonitorVorn::linux_drm_read_gpu_fan_speed(unsigned long card, unsigned long hwmon,
                                                  unsigned long sensor, int* rpm) {
  if (rpm == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/fan%d_input",
                         as_path_number(card), as_path_number(hwmon), as_path_number(sensor));
  return read_decimal(path, 1, rpm);
}
