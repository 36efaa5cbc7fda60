// PCI identity of a DRM card, read from the PCI device behind
// /sys/class/drm/cardN/device. The files hold "0x" and lower-case hex digits
// ("0x1002\n"); the digits at fixed positions are converted without any check
// of the line's length or characters, so a short or malformed line yields
// whatever the conversion gives and still counts as a read.
#include <cstdint>

#include "backends/drm/drm_sysfs.h"
#include "plugin/gpu_monitor_vorn.h"

using drm_sysfs::as_path_number;

namespace {

// Reads the id file `leaf` of card `card` and converts four hex digits
// (positions 2 to 5) with str_to_hex.
bool read_id4(GpuMonitorVorn* monitor, unsigned long card, const char* leaf, unsigned long* id) {
  if (id == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/%s", as_path_number(card), leaf);
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *id = static_cast<uint32_t>(monitor->str_to_hex(line[2], line[3], line[4], line[5]));
  return true;
}

}  // namespace

bool GpuMonitorVorn::linux_drm_read_vendor_id(unsigned long card, unsigned long* id) {
  return read_id4(this, card, "vendor", id);
}

bool GpuMonitorVorn::linux_drm_read_device_id(unsigned long card, unsigned long* id) {
  return read_id4(this, card, "device", id);
}

bool GpuMonitorVorn::linux_drm_read_subvendor_id(unsigned long card, unsigned long* id) {
  return read_id4(this, card, "subsystem_vendor", id);
}

bool GpuMonitorVorn::linux_drm_read_subdevice_id(unsigned long card, unsigned long* id) {
  return read_id4(this, card, "subsystem_device", id);
}

// The revision has two hex digits (positions 2 and 3).
bool GpuMonitorVorn::linux_drm_read_revision_id(unsigned long card, unsigned long* id) {
  if (id == nullptr) return false;
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/revision", as_path_number(card));
  char line[drm_sysfs::kLineSize];
  if (!drm_sysfs::read_first_line(path, line, sizeof line)) return false;
  *id = static_cast<uint32_t>(str_to_hex2(line[2], line[3]));
  return true;
}
