#include "gpudb/vendor_tables.h"

// The tables are put together here, in code, rather than in an array of
// tables: such an array would hold pointers for the loader to relocate.

GpuDbTable gpu_db_index_table(unsigned long vendor) {
  using namespace gpudb_vendor;
  switch (vendor) {
    case kNvidia: return GPUDB_TABLE(gpu_db_nvidia);
    case kAmd: return GPUDB_TABLE(gpu_db_amd);
    case kIntel: return GPUDB_TABLE(gpu_db_intel);
    case kMooreThreads: return GPUDB_TABLE(gpu_db_moore_threads);
    case kS3: return GPUDB_TABLE(gpu_db_s3);
    case kVmware: return GPUDB_TABLE(gpu_db_vmware);
    default: return {nullptr, 0, nullptr};
  }
}

GpuDbTable gpu_db_accessor_table(unsigned long vendor) {
  GpuDbTable table = gpu_db_index_table(vendor);
  if (table.rows == nullptr) table = GPUDB_TABLE(gpu_db_sis);
  return table;
}

BoardNameTable gpu_db_board_table(unsigned long vendor) {
  using namespace gpudb_vendor;
  switch (vendor) {
    case kNvidia: return GPUDB_TABLE(board_names_nvidia);
    case kAmd: return GPUDB_TABLE(board_names_amd);
    case kIntel: return GPUDB_TABLE(board_names_intel);
    case kMooreThreads: return GPUDB_TABLE(board_names_moore_threads);
    default: return {nullptr, 0, nullptr};
  }
}
