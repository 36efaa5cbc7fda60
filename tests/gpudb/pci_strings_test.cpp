// Hex digits and full device-id strings.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "gpudb/vendor_tables.h"

#include "plugin/gpu_monitor_vorn.h"

namespace {

TEST(HexDigits, BothCasesAndNoValidation) {
  GpuMonitorVorn m;
  EXPECT_EQ(m.to_hex('a'), 10u);
  EXPECT_EQ(m.to_hex('A'), 10u);
  EXPECT_EQ(m.to_hex('f'), 15u);
  EXPECT_EQ(m.to_hex('0'), 0u);
  EXPECT_EQ(m.to_hex('9'), 9u);
  EXPECT_EQ(m.str_to_hex('1', '0', 'd', 'e'), 0x10DEu);
  EXPECT_EQ(m.str_to_hex('7', '4', '4', 'C'), 0x744Cu);
  EXPECT_EQ(m.str_to_hex2('c', '1'), 0xC1u);
  // Characters that are no hex digit give out-of-range digits, unchecked:
  // 'G' is 16, 'z' is 35, a NUL wraps to a large 16-bit value.
  EXPECT_EQ(m.to_hex('G'), 16u);
  EXPECT_EQ(m.to_hex('z'), 35u);
  EXPECT_EQ(m.to_hex('\0'), 65481u);
  EXPECT_EQ(m.to_hex(' '), static_cast<unsigned>(static_cast<uint16_t>(' ' - 55)));
  EXPECT_EQ(m.str_to_hex2('0', 'g'), 16u);
}

const char kRtx4090[] = "PCI\\VEN_10DE&DEV_2684&SUBSYS_16F310DE&REV_A1";

TEST(DeviceIdString, FixedPositionReaders) {
  GpuMonitorVorn m;
  char text[5] = {};
  unsigned long value = 0;
  EXPECT_TRUE(m.getVendorID_From_FullDeviceIDString(kRtx4090, text, &value));
  EXPECT_STREQ(text, "10DE");
  EXPECT_EQ(value, 0x10DEu);
  EXPECT_TRUE(m.getDeviceID_From_FullDeviceIDString(kRtx4090, text, &value));
  EXPECT_STREQ(text, "2684");
  EXPECT_EQ(value, 0x2684u);
  EXPECT_TRUE(m.getSubDeviceID_From_FullDeviceIDString(kRtx4090, text, &value));
  EXPECT_STREQ(text, "16F3");
  EXPECT_EQ(value, 0x16F3u);
  EXPECT_TRUE(m.getSubVendorID_From_FullDeviceIDString(kRtx4090, nullptr, &value));
  EXPECT_EQ(value, 0x10DEu);
  EXPECT_TRUE(m.getDeviceID_From_FullDeviceIDString(kRtx4090, nullptr, nullptr));
  EXPECT_FALSE(m.getVendorID_From_FullDeviceIDString(nullptr, text, &value));
  // A string shorter than the layout yields NULs for what it lacks, and no
  // read past its end.
  value = 0;
  EXPECT_TRUE(m.getSubVendorID_From_FullDeviceIDString("PCI\\VEN_10DE", text, &value));
  EXPECT_EQ(value, m.str_to_hex('\0', '\0', '\0', '\0'));
}

TEST(DeviceIdString, LooksUpAndFillsOnlyEmptyFields) {
  GpuMonitorVorn m;
  zev::GPU gpu;
  const int i = static_cast<int>(m.gpu_db_get_index_from_device_id_string(
      "PCI\\VEN_1002&DEV_7550&SUBSYS_04151002&REV_C2", &gpu));
  ASSERT_GE(i, 0);
  EXPECT_STREQ(m.gpu_db_get_adapter_name(0x1002, i), "AMD Radeon RX 9070 GRE");
  EXPECT_EQ(gpu.vendor_id, 0x1002u);
  EXPECT_EQ(gpu.device_id, 0x7550u);
  EXPECT_EQ(gpu.subdevice_id, 0x0415u);
  EXPECT_EQ(gpu.subvendor_id, 0x1002u);
  EXPECT_EQ(gpu.revision_id, 0xC2u);
  EXPECT_STREQ(gpu.revision_text, "C2");

  // What the record knows is kept; the lookup still uses the string's ids.
  zev::GPU known;
  known.vendor_id = 0x10DE;
  known.revision_id = 0xA1;
  std::strcpy(known.revision_text, "A1");
  const int j = static_cast<int>(m.gpu_db_get_index_from_device_id_string(
      "PCI\\VEN_1002&DEV_7550&SUBSYS_04151002&REV_C0", &known));
  EXPECT_STREQ(m.gpu_db_get_adapter_name(0x1002, j), "AMD Radeon RX 9070 XT");
  EXPECT_EQ(known.vendor_id, 0x10DEu);
  EXPECT_EQ(known.device_id, 0x7550u);
  EXPECT_EQ(known.revision_id, 0xA1u);
  EXPECT_STREQ(known.revision_text, "A1");

  // Other vendors: the first row of the device.
  EXPECT_STREQ(m.gpu_db_get_adapter_name(
                   0x10DE, static_cast<int>(m.gpu_db_get_index_from_device_id_string(
                               "PCI\\VEN_10DE&DEV_2B85&SUBSYS_205710DE&REV_A1", nullptr))),
               "NVIDIA GeForce RTX 5090");
}

TEST(DeviceIdString, AmdComparisonsAreExact) {
  GpuMonitorVorn m;
  EXPECT_EQ(m.gpu_db_get_index_from_device_id_string(
                "PCI\\VEN_1002&DEV_7550&SUBSYS_04151002&REV_c2", nullptr),
            0xFFFFFFFFu);
  // A row without a revision is taken whatever the string says.
  EXPECT_STREQ(m.gpu_db_get_adapter_name(
                   0x1002, static_cast<int>(m.gpu_db_get_index_from_device_id_string(
                               "PCI\\VEN_1002&DEV_7422&REV_C7", nullptr))),
               "AMD Radeon Pro W6400");
  // Vendors without a table.
  EXPECT_EQ(m.gpu_db_get_index_from_device_id_string("PCI\\VEN_1039&DEV_0330", nullptr),
            0xFFFFFFFFu);
}

TEST(DeviceIdString, MissingPartsGiveNotFoundAndTouchNothing) {
  GpuMonitorVorn m;
  zev::GPU gpu;
  EXPECT_EQ(m.gpu_db_get_index_from_device_id_string(nullptr, &gpu), 0xFFFFFFFFu);
  EXPECT_EQ(m.gpu_db_get_index_from_device_id_string("PCI\\VEN_10DE&SUBSYS_16F310DE", &gpu),
            0xFFFFFFFFu);
  EXPECT_EQ(m.gpu_db_get_index_from_device_id_string("PCI\\DEV_2684", &gpu), 0xFFFFFFFFu);
  EXPECT_EQ(gpu.vendor_id, 0u);
  EXPECT_EQ(gpu.device_id, 0u);
  EXPECT_STREQ(gpu.revision_text, "");
}

TEST(DeviceIdString, MangledStringsNeverCrash) {
  GpuMonitorVorn m;
  const char* cases[] = {"", "VEN_", "VEN_1", "VEN_1002&DEV_", "VEN_1002&DEV_75",
                         "VEN_1002&DEV_7550&SUBSYS_", "VEN_1002&DEV_7550&SUBSYS_0415",
                         "VEN_1002&DEV_7550&REV_", "VEN_1002&DEV_7550&REV_C",
                         "DEV_VEN_REV_SUBSYS_", "\xff\xfeVEN_\x01\x02\x03\x04" "DEV_zzzz"};
  for (const char* s : cases) {
    zev::GPU gpu;
    m.gpu_db_get_index_from_device_id_string(s, &gpu);
    char text[4];
    unsigned long v;
    m.getVendorID_From_FullDeviceIDString(s, text, &v);
    m.getSubVendorID_From_FullDeviceIDString(s, text, &v);
  }
  // Random strings built from the pieces of the format.
  std::mt19937 rng(1234);
  const std::string pieces[] = {"PCI\\", "VEN_", "DEV_", "SUBSYS_", "REV_", "&", "10DE", "1002",
                                "7550", "C2", "c2", "0", "Z", "\x80"};
  for (int n = 0; n < 5000; ++n) {
    std::string s;
    const int count = static_cast<int>(rng() % 8);
    for (int k = 0; k < count; ++k) s += pieces[rng() % (sizeof pieces / sizeof pieces[0])];
    zev::GPU gpu;
    const unsigned int i = m.gpu_db_get_index_from_device_id_string(s.c_str(), &gpu);
    if (i != 0xFFFFFFFFu) {
      EXPECT_LT(i, gpu_db_index_table(gpu.vendor_id).num_rows) << s;
    }
  }
}

}  // namespace
