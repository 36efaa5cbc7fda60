// Text attributes of a DRM card: the VBIOS part number of the PCI device and
// the driver name of its hwmon directory. Both hand back the first line
// without its newline, at most 127 characters, into a 128-byte buffer.
#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"

namespace drm_backend {

namespace {

using drm_sysfs::as_path_number;

constexpr size_t kTextSize = 128;

bool read_text_line(const char* path, int line_size, char* text) {
  char line[drm_sysfs::kLineSize];
  return drm_sysfs::read_first_line(path, line, line_size) &&
         drm_parse::text_line(line, text, kTextSize);
}

}  // namespace

bool read_vbios(unsigned long card, char* text) {
  if (text == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/vbios_version", as_path_number(card));
  return read_text_line(path, drm_sysfs::kLineSize, text);
}

bool read_driver_name(unsigned long card, unsigned long hwmon, char* text) {
  if (text == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/name",
                         as_path_number(card), as_path_number(hwmon));
  return read_text_line(path, drm_sysfs::kShortLineSize, text);
}

}  // namespace drm_backend
