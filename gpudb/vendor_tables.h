// Which table serves which PCI vendor.
#pragma once

#include "gpudb/gpu_db_tables.h"

struct VendorTable {
  const GpuDbRow* rows;
  unsigned long num_rows;  // terminator included
};

// The table the index functions search: NVIDIA, AMD, Intel, Moore Threads,
// S3 Graphics or VMware; {nullptr, 0} for any other vendor.
VendorTable gpu_db_index_table(unsigned long vendor);

// The table the accessors read: as above, and the SiS table for every other
// vendor.
VendorTable gpu_db_accessor_table(unsigned long vendor);

namespace gpudb_vendor {
constexpr unsigned long kNvidia = 0x10DE;
constexpr unsigned long kAmd = 0x1002;
constexpr unsigned long kIntel = 0x8086;
constexpr unsigned long kMooreThreads = 0x1ED5;
constexpr unsigned long kS3 = 0x5333;
constexpr unsigned long kVmware = 0x15AD;
}  // namespace gpudb_vendor
