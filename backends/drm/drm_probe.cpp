// Presence checks of the DRM scan: does card N stand for a PCI device with a
// vendor, and does it have hwmon directory M.
#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"
#include "zev/utils.h"

namespace drm_backend {

using drm_sysfs::as_path_number;

// A card counts when its vendor file names a vendor above 0. Platform
// devices such as simpledrm's card have no vendor file; a vendor of 0x0000
// is no device.
bool probe(unsigned long card) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/vendor", as_path_number(card));
  char line[drm_sysfs::kShortLineSize];
  return drm_sysfs::read_first_line(path, line, sizeof line) && drm_parse::names_vendor(line);
}

// A hwmon directory counts when its "name" file has any content.
bool probe_hwmon(unsigned long card, unsigned long hwmon) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/hwmon/hwmon%d/name",
                         as_path_number(card), as_path_number(hwmon));
  unsigned long size = 0;
  char* content = zev::utils::file_content_read(path, &size);
  if (content == nullptr) return false;
  zev::utils::file_content_free(content);
  return size != 0;
}

}  // namespace drm_backend
