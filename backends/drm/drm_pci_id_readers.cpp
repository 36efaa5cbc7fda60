// PCI identity of a DRM card, read from the PCI device behind
// /sys/class/drm/cardN/device. The files hold "0x" and lower-case hex digits
// ("0x1002\n"); a short or malformed line yields whatever the conversion
// gives and still counts as a read (drm_parse::id4).
#include "backends/drm/drm_backend.h"
#include "backends/drm/drm_parse.h"
#include "backends/drm/drm_sysfs.h"

namespace drm_backend {

namespace {

using drm_sysfs::as_path_number;

// Reads the first line of the id file `leaf` of card `card`.
bool read_id_line(unsigned long card, const char* leaf, char* line, int size) {
  char path[drm_sysfs::kPathSize];
  drm_sysfs::format_path(path, "/sys/class/drm/card%d/device/%s", as_path_number(card), leaf);
  return drm_sysfs::read_first_line(path, line, size);
}

// Four hex digits (positions 2 to 5), or the revision's two (2 and 3).
bool read_id(unsigned long card, const char* leaf, bool revision, unsigned long* id) {
  if (id == nullptr) return false;
  char line[drm_sysfs::kLineSize];
  if (!read_id_line(card, leaf, line, sizeof line)) return false;
  *id = revision ? drm_parse::id2(line) : drm_parse::id4(line);
  return true;
}

}  // namespace

bool read_vendor_id(unsigned long card, unsigned long* id) {
  return read_id(card, "vendor", false, id);
}

bool read_device_id(unsigned long card, unsigned long* id) {
  return read_id(card, "device", false, id);
}

bool read_subvendor_id(unsigned long card, unsigned long* id) {
  return read_id(card, "subsystem_vendor", false, id);
}

bool read_subdevice_id(unsigned long card, unsigned long* id) {
  return read_id(card, "subsystem_device", false, id);
}

bool read_revision_id(unsigned long card, unsigned long* id) {
  return read_id(card, "revision", true, id);
}

}  // namespace drm_backend
