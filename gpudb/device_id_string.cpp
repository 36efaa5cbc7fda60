// Full PCI device-id strings as driver libraries report them:
//   PCI\VEN_vvvv&DEV_dddd&SUBSYS_ssssvvvv&REV_rr
#include <cstring>

#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"

namespace gpudb {

namespace {

// Copies n characters from s, stopping at its end: missing characters are
// NULs, never bytes past the string.
void take(const char* s, size_t n, char* out) {
  size_t i = 0;
  for (; i < n && s[i] != '\0'; ++i) out[i] = s[i];
  for (; i < n; ++i) out[i] = '\0';
}

// The four characters at a fixed position (the layout is assumed, not
// searched); a string too short yields NULs for what it lacks.
bool fixed_field(const char* s, size_t position, char* text, unsigned long* value) {
  if (s == nullptr) return false;
  char digits[4];
  const size_t length = std::strlen(s);
  if (length > position) {
    take(s + position, 4, digits);
  } else {
    std::memset(digits, 0, sizeof digits);
  }
  if (text != nullptr) std::memcpy(text, digits, 4);
  if (value != nullptr) *value = str_to_hex(digits[0], digits[1], digits[2], digits[3]);
  return true;
}

}  // namespace

bool vendor_id_from_device_id_string(const char* s, char* text, unsigned long* value) {
  return fixed_field(s, 8, text, value);
}

bool device_id_from_device_id_string(const char* s, char* text, unsigned long* value) {
  return fixed_field(s, 17, text, value);
}

bool subdevice_id_from_device_id_string(const char* s, char* text, unsigned long* value) {
  return fixed_field(s, 29, text, value);
}

bool subvendor_id_from_device_id_string(const char* s, char* text, unsigned long* value) {
  return fixed_field(s, 33, text, value);
}

unsigned int index_from_device_id_string(const char* s, zev::GPU* gpu) {
  if (s == nullptr) return kNotFound;
  const char* ven = std::strstr(s, "VEN_");
  if (ven == nullptr) return kNotFound;
  char v[4];
  take(ven + 4, 4, v);
  const unsigned long vendor = str_to_hex(v[0], v[1], v[2], v[3]);

  const char* dev = std::strstr(s, "DEV_");
  if (dev == nullptr) return kNotFound;
  char d[4];
  take(dev + 4, 4, d);
  const unsigned long device = str_to_hex(d[0], d[1], d[2], d[3]);

  char subsys[9] = {};
  unsigned long subdevice = 0, subvendor = 0;
  const bool has_subsys = std::strstr(s, "SUBSYS_") != nullptr;
  if (has_subsys) {
    take(std::strstr(s, "SUBSYS_") + 7, 8, subsys);
    subdevice = str_to_hex(subsys[0], subsys[1], subsys[2], subsys[3]);
    subvendor = str_to_hex(subsys[4], subsys[5], subsys[6], subsys[7]);
  }

  char rev[3] = {};
  unsigned long revision = 0;
  const bool has_rev = std::strstr(s, "REV_") != nullptr;
  if (has_rev) {
    take(std::strstr(s, "REV_") + 4, 2, rev);
    revision = str_to_hex2(rev[0], rev[1]);
  }

  // Only empty fields are filled: what the record knows is never overwritten.
  if (gpu != nullptr) {
    if (gpu->vendor_id == 0) gpu->vendor_id = vendor;
    if (gpu->device_id == 0) gpu->device_id = device;
    if (gpu->subdevice_id == 0) gpu->subdevice_id = subdevice;
    if (gpu->subvendor_id == 0) gpu->subvendor_id = subvendor;
    if (gpu->revision_id == 0) gpu->revision_id = revision;
    if (gpu->revision_text[0] == '\0') {
      gpu->revision_text[0] = rev[0];
      gpu->revision_text[1] = rev[1];
      gpu->revision_text[2] = '\0';
    }
  }

  if (vendor != gpudb_vendor::kAmd) return index_of(vendor, device);

  // AMD rows are told apart by sub-system or revision, compared exactly and
  // case-sensitively.
  const GpuDbTable table = gpu_db_index_table(vendor);
  for (unsigned long i = 0; i < table.num_rows; ++i) {
    const GpuDbRow& row = table.rows[i];
    if (row.device_id == -1 || static_cast<long>(row.device_id) != static_cast<long>(device))
      continue;
    const char* variant = table.variant(row);
    if (variant == nullptr || variant[0] == '\0') return static_cast<unsigned int>(i);
    const size_t length = std::strlen(variant);
    if (has_subsys && length == 8 && std::strcmp(variant, subsys) == 0)
      return static_cast<unsigned int>(i);
    if (has_rev && length == 2 && std::strcmp(variant, rev) == 0)
      return static_cast<unsigned int>(i);
  }
  return kNotFound;
}

}  // namespace gpudb
