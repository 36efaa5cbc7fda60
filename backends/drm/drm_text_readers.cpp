// Text attributes of a DRM card: the VBIOS part number of the PCI device and
// the driver name of its hwmon directory. Both hand back the first line
// without its newline, at most 127 characters, into a 128-byte buffer.
#include <cstring>

#include "backends/drm/drm_sysfs.h"
#include "plugin/gpu_monitor_vorn.h"

using drm_sysfs::as_path_number;

namespace {

// An empty first line is a failure; a line holding only a newline gives an
// empty text.
bool read_text_line(const char* path, int line_size, char* text) {
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, line_size)) return false;
  if (line[0] == '\0') return false;
  drm_sysfs::cut_newline(line);
  copy_text(text, 128, line);
  return true;
}

}  // namespace

bool GpuMonitorVorn::linux_drm_read_vbios(unsigned long card, char* text) {
  if (text == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/vbios_version", as_path_number(card));
  return read_text_line(path, drm_sysfs::kLineSize, text);
}

bool GpuMonitorVorn::linux_drm_read_driver_name(unsigned long card, unsigned long hwmon,
                                                char* text) {
  if (text == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/name",
                         as_path_number(card), as_path_number(hwmon));
  return read_text_line(path, drm_sysfs::kShortLineSize, text);
}
