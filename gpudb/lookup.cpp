// Lookups in the GPU database: a linear scan of one vendor's table, first
// match wins. Index functions answer 0xFFFFFFFF for "not found"; callers hold
// the index in an int and test for a negative value.
#include <cctype>
#include <cstring>

#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"

namespace gpudb {

namespace {

// Row device ids are signed and widened with their sign; a row whose id is
// not known (-1) never matches, whatever the device asked for.
bool same_device(const GpuDbRow& row, unsigned long device) {
  return row.device_id != -1 && static_cast<long>(row.device_id) == static_cast<long>(device);
}

bool same_hex_digit(char a, char b) {
  return std::toupper(static_cast<unsigned char>(a)) == std::toupper(static_cast<unsigned char>(b));
}

// A row's variant is the revision's first two characters, whatever the case.
bool revision_matches(const char* variant, const char* revision) {
  if (std::strlen(variant) != 2) return false;
  // variant[0] is no NUL, so revision[1] is only read when revision[0] is not.
  return same_hex_digit(variant[0], revision[0]) && same_hex_digit(variant[1], revision[1]);
}

// The row at index, or null when the index lies outside the table.
const GpuDbRow* row_at(const GpuDbTable& table, int index) {
  if (index < 0 || static_cast<unsigned long>(index) >= table.num_rows) return nullptr;
  return &table.rows[index];
}

// A numeric field of row `index` of the vendor's accessor table; 0 outside it.
int number_at(unsigned long vendor, int index, int GpuDbRow::*field) {
  const GpuDbRow* row = row_at(gpu_db_accessor_table(vendor), index);
  return row ? row->*field : 0;
}

}  // namespace

unsigned int index_of(unsigned long vendor, unsigned long device) {
  const GpuDbTable table = gpu_db_index_table(vendor);
  // The terminator is part of the walk: device 0 finds it, and its null
  // strings tell the caller that nothing is known.
  for (unsigned long i = 0; i < table.num_rows; ++i) {
    if (same_device(table.rows[i], device)) return static_cast<unsigned int>(i);
  }
  return kNotFound;
}

unsigned int index_of_revision(unsigned long vendor, unsigned long device, const char* revision) {
  if (vendor != gpudb_vendor::kAmd) return index_of(vendor, device);
  const GpuDbTable table = gpu_db_index_table(vendor);
  for (unsigned long i = 0; i < table.num_rows; ++i) {
    const GpuDbRow& row = table.rows[i];
    if (!same_device(row, device)) continue;
    // With a revision given, rows without one are never taken: AMD chips
    // whose rows carry no revision are not found this way.
    const char* variant = table.variant(row);
    if (variant == nullptr || revision == nullptr || revision_matches(variant, revision))
      return static_cast<unsigned int>(i);
  }
  return kNotFound;
}

unsigned int index_of_variant(unsigned long vendor, unsigned long device, unsigned long value) {
  if (vendor != gpudb_vendor::kNvidia || device == 0 || value == 0) return kNotFound;
  const GpuDbTable table = gpu_db_index_table(vendor);
  for (unsigned long i = 0; i < table.num_rows; ++i) {
    const GpuDbRow& row = table.rows[i];
    const char* variant = table.variant(row);
    if (variant == nullptr) break;  // the terminator
    if (variant[0] == '\0') continue;
    // The variant's first four characters as hex; a shorter variant reads
    // NULs past its end rather than whatever follows it in memory.
    char digits[4] = {0, 0, 0, 0};
    for (int k = 0; k < 4 && variant[k] != '\0'; ++k) digits[k] = variant[k];
    if (same_device(row, device) && str_to_hex(digits[0], digits[1], digits[2], digits[3]) == value)
      return static_cast<unsigned int>(i);
  }
  return kNotFound;
}

// The accessors read the vendor's table, the SiS table for any vendor
// without one. Index -1 (not found) answers "Unknown" or 0; any other index
// outside the table answers null or 0 instead of reading past it.

const char* adapter_name(unsigned long vendor, int index) {
  if (index < 0) return "Unknown";
  const GpuDbTable table = gpu_db_accessor_table(vendor);
  const GpuDbRow* row = row_at(table, index);
  return row ? table.adapter_name(*row) : nullptr;
}

const char* codename(unsigned long vendor, int index) {
  if (index == -1) return "Unknown";
  const GpuDbTable table = gpu_db_accessor_table(vendor);
  const GpuDbRow* row = row_at(table, index);
  return row ? table.codename(*row) : nullptr;
}

int tdp(unsigned long vendor, int index) { return number_at(vendor, index, &GpuDbRow::tdp); }

int num_unified_shader_processors(unsigned long vendor, int index) {
  return number_at(vendor, index, &GpuDbRow::num_unified_shader_processors);
}

int num_texture_units(unsigned long vendor, int index) {
  return number_at(vendor, index, &GpuDbRow::num_texture_units);
}

int num_rops(unsigned long vendor, int index) {
  return number_at(vendor, index, &GpuDbRow::num_rops);
}

// At most row_count of the table's rows are walked.
const char* name_from_devices_table(const GpuDbTable* table, unsigned long row_count,
                                    unsigned long device, unsigned long revision) {
  const GpuDbTable* t = table;
  if (t == nullptr || t->rows == nullptr) return nullptr;
  for (unsigned long i = 0; i < row_count && i < t->num_rows; ++i) {
    const GpuDbRow& row = t->rows[i];
    if (!same_device(row, device)) continue;
    const char* variant = t->variant(row);
    if (revision == 0 || variant == nullptr) return t->adapter_name(row);
    // A variant shorter than two characters names no revision.
    if (variant[0] == '\0' || variant[1] == '\0') continue;
    const char a = static_cast<char>(std::tolower(static_cast<unsigned char>(variant[0])));
    const char b = static_cast<char>(std::tolower(static_cast<unsigned char>(variant[1])));
    if (str_to_hex2(a, b) == revision) return t->adapter_name(row);
  }
  return nullptr;
}

const char* name_from_device_id(unsigned long vendor, unsigned long device,
                                unsigned long revision) {
  // S3 Graphics is left out on purpose: its ids name no adapter here.
  if (vendor == gpudb_vendor::kS3) return nullptr;
  const GpuDbTable table = gpu_db_index_table(vendor);
  if (table.rows == nullptr) return nullptr;
  return name_from_devices_table(&table, table.num_rows, device, revision);
}

}  // namespace gpudb
