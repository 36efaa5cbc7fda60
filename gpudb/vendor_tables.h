// Which table serves which PCI vendor.
#pragma once

#include "gpudb/gpu_db_tables.h"

// The table the index functions search: NVIDIA, AMD, Intel, Moore Threads,
// S3 Graphics or VMware; no rows (null, 0) for any other vendor.
GpuDbTable gpu_db_index_table(unsigned long vendor);

// The table the accessors read: as above, and the SiS table for every other
// vendor.
GpuDbTable gpu_db_accessor_table(unsigned long vendor);

// The board table of NVIDIA, AMD, Intel or Moore Threads; no rows for any
// other vendor.
BoardNameTable gpu_db_board_table(unsigned long vendor);

namespace gpudb_vendor {
constexpr unsigned long kNvidia = 0x10DE;
constexpr unsigned long kAmd = 0x1002;
constexpr unsigned long kIntel = 0x8086;
constexpr unsigned long kMooreThreads = 0x1ED5;
constexpr unsigned long kS3 = 0x5333;
constexpr unsigned long kVmware = 0x15AD;
// The Raspberry Pi's VideoCore, which has no PCI identity of its own.
constexpr unsigned long kBroadcom = 0x14E4;
}  // namespace gpudb_vendor
