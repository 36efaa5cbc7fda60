// Board power of a DRM card's hwmon directory, in microwatts. Chips offer
// one of two files: powerN_input (e.g. Polaris on recent kernels) or
// powerN_average (RDNA3, RDNA4); some offer both. The input file is tried
// first, and the average file whenever the input gave nothing above 0.
// Values are read as 64-bit numbers, so that no reading wraps.
#include <climits>
#include <cstdlib>

#include "backends/drm/drm_sysfs.h"
#include "plugin/gpu_monitor_vorn.h"

using drm_sysfs::as_path_number;

bool GpuMonitorVorn::linux_drm_read_gpu_power(unsigned long card, unsigned long hwmon,
                                              unsigned long sensor, int* watts) {
  if (watts == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  char line[drm_sysfs::kLineSize];
  long long microwatts = -1;

  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/power%d_input",
                         as_path_number(card), as_path_number(hwmon), as_path_number(sensor));
  if (drm_sysfs::read_first_line(path, line, sizeof line))
    microwatts = std::strtoll(line, nullptr, 10);

  if (microwatts < 1) {
    drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/power%d_average",
                           as_path_number(card), as_path_number(hwmon), as_path_number(sensor));
    if (drm_sysfs::read_first_line(path, line, sizeof line))
      microwatts = std::strtoll(line, nullptr, 10);
  }

  // An input reading 0 with no average file is a valid 0 W.
  if (microwatts < 0) return false;
  const long long whole_watts = microwatts / 1000000;
  *watts = whole_watts > INT_MAX ? INT_MAX : static_cast<int>(whole_watts);
  return true;
}
