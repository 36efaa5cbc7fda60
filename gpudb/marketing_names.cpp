// Board marketing names: the full PCI identity of a board (device,
// sub-vendor, sub-device and, for AMD, revision) looked up in the board
// tables. The first matching row wins.
#include <cstring>

#include "gpudb/gpu_db.h"
#include "gpudb/vendor_tables.h"
#include "io/copy_text.h"

namespace gpudb {

namespace {

enum class Revision { kIgnored, kCompared };

// Shared walk of one vendor's board table. The row's vendor field is not
// compared: the table is the vendor's already.
bool apply_board_name(zev::GPU* gpu, unsigned long vendor, Revision revision) {
  gpu->use_marketing_name = false;
  const BoardNameTable table = gpu_db_board_table(vendor);
  for (unsigned long i = 0; i < table.num_rows && table.rows[i].vendor != 0; ++i) {
    const BoardNameRow& row = table.rows[i];
    if (row.subvendor != gpu->subvendor_id || row.device != gpu->device_id ||
        row.subdevice != gpu->subdevice_id)
      continue;
    const char* row_revision = table.revision(row);
    if (revision == Revision::kCompared &&
        (row_revision == nullptr || row_revision[0] == '\0' ||
         str_to_hex2(row_revision[0], row_revision[1]) != gpu->revision_id))
      continue;
    std::memset(gpu->marketing_name, 0, sizeof gpu->marketing_name);
    copy_text(gpu->marketing_name, sizeof gpu->marketing_name, table.marketing_name(row));
    gpu->use_marketing_name = true;
    return true;
  }
  return false;
}

}  // namespace

bool update_marketing_name(zev::GPU* gpu) {
  if (gpu == nullptr) return false;
  return update_marketing_name_nvidia(gpu) || update_marketing_name_amd(gpu) ||
         update_marketing_name_intel(gpu) || update_marketing_name_moore_threads(gpu);
}

bool update_marketing_name_nvidia(zev::GPU* gpu) {
  if (gpu == nullptr || gpu->vendor_id != gpudb_vendor::kNvidia) return false;
  return apply_board_name(gpu, gpudb_vendor::kNvidia, Revision::kIgnored);
}

bool update_marketing_name_amd(zev::GPU* gpu) {
  if (gpu == nullptr || gpu->vendor_id != gpudb_vendor::kAmd) return false;
  // One board of the HD 6000 era reports a chip id that names another card.
  if (gpu->device_id == 0x68F9 && gpu->subdevice_id == 0x2126) {
    std::memset(gpu->name, 0, sizeof gpu->name);
    copy_text(gpu->name, sizeof gpu->name, "AMD Radeon HD 6350");
  }
  return apply_board_name(gpu, gpudb_vendor::kAmd, Revision::kCompared);
}

bool update_marketing_name_intel(zev::GPU* gpu) {
  if (gpu == nullptr || gpu->vendor_id != gpudb_vendor::kIntel) return false;
  return apply_board_name(gpu, gpudb_vendor::kIntel, Revision::kIgnored);
}

bool update_marketing_name_moore_threads(zev::GPU* gpu) {
  if (gpu == nullptr || gpu->vendor_id != gpudb_vendor::kMooreThreads) return false;
  return apply_board_name(gpu, gpudb_vendor::kMooreThreads, Revision::kIgnored);
}

}  // namespace gpudb
