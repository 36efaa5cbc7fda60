// Presence checks of the DRM scan: does card N stand for a PCI device with a
// vendor, and does it have hwmon directory M.
#include <cstring>

#include "backends/drm/drm_sysfs.h"
#include "plugin/gpu_monitor_vorn.h"
#include "zev/utils.h"

using drm_sysfs::as_path_number;

// A card counts when its vendor file has a non-empty first line whose four
// digits after "0x" make a vendor above 0. Platform devices such as
// simpledrm's card have no vendor file; a vendor of 0x0000 is no device.
bool GpuMonitorVorn::linux_drm_gpu_probe(unsigned long card) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/vendor", as_path_number(card));
  char line[drm_sysfs::kShortLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  if (line[0] == '\0') return false;
  drm_sysfs::cut_newline(line);
  return str_to_hex(line[2], line[3], line[4], line[5]) > 0;
}

// A hwmon directory counts when its "name" file has any content.
bool GpuMonitorVorn::linux_drm_gpu_probe_hwmon(unsigned long card, unsigned long hwmon) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/name",
                         as_path_number(card), as_path_number(hwmon));
  unsigned long size = 0;
  char* content = zev::utils::file_content_read(path, &size);
  if (content == nullptr) return false;
  zev::utils::file_content_free(content);
  return size != 0;
}
