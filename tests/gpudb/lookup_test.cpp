// Lookups in the GPU database, with the cases hosts and back-ends rely on.
#include <gtest/gtest.h>

#include "gpudb/gpu_db_tables.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

class GpuDbLookup : public ::testing::Test {
 protected:
  int index(unsigned long vendor, unsigned long device) {
    return static_cast<int>(db_.gpu_db_get_index(vendor, device));
  }
  int index_v2(unsigned long vendor, unsigned long device, const char* revision) {
    return static_cast<int>(db_.gpu_db_get_index_v2(vendor, device, revision));
  }
  std::string name(unsigned long vendor, int i) {
    const char* n = db_.gpu_db_get_adapter_name(vendor, i);
    return n ? n : "(null)";
  }
  GpuMonitorVorn db_;
};

TEST_F(GpuDbLookup, FirstOfSeveralRowsWins) {
  const int i = index(0x1002, 0x7550);
  ASSERT_GE(i, 0);
  EXPECT_EQ(name(0x1002, i), "AMD Radeon RX 9070 XT");
  EXPECT_EQ(index_v2(0x1002, 0x7550, nullptr), i);
}

TEST_F(GpuDbLookup, AmdRevisionsAreComparedWithoutRegardToCase) {
  EXPECT_EQ(name(0x1002, index_v2(0x1002, 0x7550, "c2")), "AMD Radeon RX 9070 GRE");
  EXPECT_EQ(name(0x1002, index_v2(0x1002, 0x7550, "C2")), "AMD Radeon RX 9070 GRE");
  EXPECT_EQ(name(0x1002, index_v2(0x1002, 0x7550, "C3")), "AMD Radeon RX 9070");
  EXPECT_EQ(name(0x1002, index_v2(0x1002, 0x7550, "c0")), "AMD Radeon RX 9070 XT");
  EXPECT_EQ(index_v2(0x1002, 0x7550, "C5"), -1);
  // The revision text of a revision below 0x10 starts with a blank and
  // matches no row.
  EXPECT_EQ(index_v2(0x1002, 0x7550, " 7"), -1);
  EXPECT_EQ(index_v2(0x1002, 0x7550, ""), -1);
  EXPECT_EQ(index_v2(0x1002, 0x7550, "C"), -1);
}

TEST_F(GpuDbLookup, AmdRowsWithoutRevisionAreNotFoundByRevision) {
  EXPECT_EQ(index_v2(0x1002, 0x7422, "C1"), -1);
  EXPECT_EQ(index_v2(0x1002, 0x7422, "00"), -1);
  EXPECT_EQ(name(0x1002, index(0x1002, 0x7422)), "AMD Radeon Pro W6400");
  // Other vendors ignore the revision.
  EXPECT_EQ(name(0x10DE, index_v2(0x10DE, 0x2B85, "A1")), "NVIDIA GeForce RTX 5090");
  EXPECT_EQ(index_v2(0x10DE, 0x2B85, "zz"), index(0x10DE, 0x2B85));
}

TEST_F(GpuDbLookup, VendorsWithoutIndexTableFallBackToSisInAccessors) {
  EXPECT_EQ(index(0x1039, 0x0330), -1);
  EXPECT_EQ(index_v2(0x1039, 0x0330, nullptr), -1);
  EXPECT_EQ(name(0x1039, 1), "SiS Xabre 80");
  EXPECT_STREQ(db_.gpu_db_get_gpu_codename(0x1234, 1), "X328");
  EXPECT_EQ(db_.gpu_db_get_num_unified_shader_processors(0x1234, 1), 0);
}

TEST_F(GpuDbLookup, AccessorsOfMissingRowsAreSafe) {
  EXPECT_EQ(name(0x10DE, -1), "Unknown");
  EXPECT_EQ(name(0x10DE, -5), "Unknown");
  EXPECT_STREQ(db_.gpu_db_get_gpu_codename(0x10DE, -1), "Unknown");
  // Only -1 is the "not found" index; other indices outside the table give
  // nothing rather than whatever lies beside it.
  EXPECT_EQ(db_.gpu_db_get_gpu_codename(0x10DE, -5), nullptr);
  EXPECT_EQ(db_.gpu_db_get_adapter_name(0x10DE, 1000000), nullptr);
  EXPECT_EQ(db_.gpu_db_get_gpu_codename(0x10DE, 1000000), nullptr);
  for (int bad : {-1, -5, 1000000}) {
    EXPECT_EQ(db_.gpu_db_get_tdp(0x10DE, bad), 0);
    EXPECT_EQ(db_.gpu_db_get_num_unified_shader_processors(0x10DE, bad), 0);
    EXPECT_EQ(db_.gpu_db_get_num_texture_units(0x10DE, bad), 0);
    EXPECT_EQ(db_.gpu_db_get_num_rops(0x10DE, bad), 0);
  }
}

TEST_F(GpuDbLookup, DeviceZeroFindsTheTerminatorWhoseNameIsAbsent) {
  const int i = index(0x10DE, 0);
  ASSERT_EQ(i, static_cast<int>(gpu_db_nvidia_num_rows - 1));
  EXPECT_EQ(db_.gpu_db_get_adapter_name(0x10DE, i), nullptr);
  EXPECT_EQ(db_.gpu_db_get_num_rops(0x10DE, i), 0);
  // Rows whose id is not known (-1) never match.
  EXPECT_EQ(db_.gpu_db_get_index(0x10DE, static_cast<unsigned long>(-1)), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index(0x10DE, 0xFFFFFFFFul), 0xFFFFFFFFu);
}

TEST_F(GpuDbLookup, FiguresOfAKnownChip) {
  const int i = index(0x10DE, 0x2B85);
  EXPECT_STREQ(db_.gpu_db_get_gpu_codename(0x10DE, i), "GB202-300");
  EXPECT_EQ(db_.gpu_db_get_num_unified_shader_processors(0x10DE, i), 21760);
  EXPECT_EQ(db_.gpu_db_get_num_texture_units(0x10DE, i), 680);
  EXPECT_EQ(db_.gpu_db_get_num_rops(0x10DE, i), 176);
  EXPECT_EQ(db_.gpu_db_get_tdp(0x10DE, i), 575);
}

TEST_F(GpuDbLookup, NameFromDeviceIdForTheHost) {
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x1002, 0x7551, 0xC1), "AMD Radeon AI PRO R9700S");
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x1002, 0x7551, 0xC0), "AMD Radeon AI PRO R9700");
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x1002, 0x7551, 0), "AMD Radeon AI PRO R9700");
  EXPECT_EQ(db_.get_gpu_name_from_device_id(0x1002, 0x7551, 0xC7), nullptr);
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x10DE, 0x2B85, 0), "NVIDIA GeForce RTX 5090");
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x8086, 0xE20B, 0), "Intel Arc B580");
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x1ED5, 0x0201, 0), "Moore Threads MTT S80");
  EXPECT_STREQ(db_.get_gpu_name_from_device_id(0x15AD, 0x0405, 0), "SVGA II Adapter");
  // S3 Graphics and vendors without a table name nothing.
  EXPECT_EQ(db_.get_gpu_name_from_device_id(0x5333, 0x9042, 0), nullptr);
  EXPECT_EQ(db_.get_gpu_name_from_device_id(0x1039, 0x0330, 0), nullptr);
  // A variant shorter than two characters is no revision.
  const GpuDbRow rows[] = {{0x1234, "", "", "no revision", 110, 1, 0, 0, 1, 1, 0},
                           {0x1234, "", "C", "one digit", 110, 1, 0, 0, 1, 1, 0},
                           {0x1234, "", "c1", "lower case", 110, 1, 0, 0, 1, 1, 0}};
  EXPECT_STREQ(db_.get_gpu_name_from_devices_table(rows, 3, 0x1234, 0xC1), "lower case");
  EXPECT_EQ(db_.get_gpu_name_from_devices_table(rows, 2, 0x1234, 0xC1), nullptr);
}

TEST_F(GpuDbLookup, NvidiaVariantLookup) {
  const unsigned long a1 = db_.str_to_hex('A', '1', '\0', '\0');
  const int i = static_cast<int>(db_.gpu_db_get_index_v3(0x10DE, 0x2C58, a1));
  ASSERT_GE(i, 0);
  EXPECT_EQ(name(0x10DE, i), "NVIDIA GeForce RTX 5090 Laptop GPU");
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x10DE, 0x2C58, 0), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x10DE, 0, a1), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x10DE, 0x2B85, a1), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x1002, 0x2C58, a1), 0xFFFFFFFFu);
}

}  // namespace
