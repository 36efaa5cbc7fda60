#include "gpudb/vendor_tables.h"

VendorTable gpu_db_index_table(unsigned long vendor) {
  using namespace gpudb_vendor;
  switch (vendor) {
    case kNvidia: return {gpu_db_nvidia, gpu_db_nvidia_num_rows};
    case kAmd: return {gpu_db_amd, gpu_db_amd_num_rows};
    case kIntel: return {gpu_db_intel, gpu_db_intel_num_rows};
    case kMooreThreads: return {gpu_db_moore_threads, gpu_db_moore_threads_num_rows};
    case kS3: return {gpu_db_s3, gpu_db_s3_num_rows};
    case kVmware: return {gpu_db_vmware, gpu_db_vmware_num_rows};
    default: return {nullptr, 0};
  }
}

VendorTable gpu_db_accessor_table(unsigned long vendor) {
  VendorTable table = gpu_db_index_table(vendor);
  if (table.rows == nullptr) table = {gpu_db_sis, gpu_db_sis_num_rows};
  return table;
}
