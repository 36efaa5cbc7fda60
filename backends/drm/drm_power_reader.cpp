// Board power of a DRM card's hwmon directory, in microwatts. Chips offer
// one of two files: powerN_input (e.g. Polaris on recent kernels) or
// powerN_average (RDNA3, RDNA4); some offer both. The input file is tried
// first, and the average file whenever the input gave nothing above 0.
// Values are read as 64-bit numbers, so that no reading wraps.
#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"

namespace drm_backend {

namespace {

using drm_sysfs::as_path_number;

// power<sensor>_<leaf> into `microwatts`; left as it was when the file does
// not read.
void read_microwatts(unsigned long card, unsigned long hwmon, unsigned long sensor,
                     const char* leaf, long long* microwatts) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/power%d_%s",
                         as_path_number(card), as_path_number(hwmon), as_path_number(sensor), leaf);
  char line[drm_sysfs::kLineSize];
  if (drm_sysfs::read_first_line(path, line, sizeof line))
    *microwatts = drm_parse::microwatts(line);
}

}  // namespace

bool read_power(unsigned long card, unsigned long hwmon, unsigned long sensor, int* watts) {
  if (watts == nullptr) return false;
  long long microwatts = -1;
  read_microwatts(card, hwmon, sensor, "input", &microwatts);
  if (microwatts < 1) read_microwatts(card, hwmon, sensor, "average", &microwatts);
  // An input reading 0 with no average file is a valid 0 W.
  if (microwatts < 0) return false;
  *watts = drm_parse::whole_watts(microwatts);
  return true;
}

}  // namespace drm_backend
