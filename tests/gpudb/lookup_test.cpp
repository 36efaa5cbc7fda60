// Lookups in the GPU database, board marketing names, hex digits and
// device-id strings, with the cases hosts and back-ends rely on.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "gpudb/gpu_db.h"
#include "gpudb/gpu_db_tables.h"
#include "gpudb/vendor_tables.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

std::string text(const char* s) { return s ? s : "(null)"; }

class GpuDb : public ::testing::Test {
 protected:
  std::string name_of(unsigned long vendor, unsigned int index) {
    return text(db_.gpu_db_get_adapter_name(vendor, static_cast<int>(index)));
  }
  GpuMonitorVorn db_;
};

TEST_F(GpuDb, IndexByDeviceAndAmdRevision) {
  struct Case {
    unsigned long vendor, device;
    const char* revision;
    const char* name;  // "(null)": not found
  };
  const Case cases[] = {
      {0x1002, 0x7550, nullptr, "AMD Radeon RX 9070 XT"},  // the first of several rows
      {0x1002, 0x7550, "c2", "AMD Radeon RX 9070 GRE"},    // hex digits in either case
      {0x1002, 0x7550, "C2", "AMD Radeon RX 9070 GRE"},
      {0x1002, 0x7550, "C3", "AMD Radeon RX 9070"},
      {0x1002, 0x7550, "c0", "AMD Radeon RX 9070 XT"},
      {0x1002, 0x7550, "C5", "(null)"},
      {0x1002, 0x7550, " 7", "(null)"},  // a revision below 0x10 is traced with a blank
      {0x1002, 0x7550, "", "(null)"},
      {0x1002, 0x7550, "C", "(null)"},
      {0x1002, 0x7422, "C1", "(null)"},  // a row without revision is not found by one
      {0x1002, 0x7422, nullptr, "AMD Radeon Pro W6400"},
      {0x10DE, 0x2B85, "zz", "NVIDIA GeForce RTX 5090"},  // other vendors ignore it
      {0x1039, 0x0330, nullptr, "(null)"},                // no index table
      {0x10DE, 0xFFFFFFFFul, nullptr, "(null)"},          // rows of unknown id never match
      {0x10DE, static_cast<unsigned long>(-1), nullptr, "(null)"},
  };
  for (const Case& c : cases) {
    const unsigned int i = db_.gpu_db_get_index_v2(c.vendor, c.device, c.revision);
    EXPECT_EQ(i == 0xFFFFFFFFu ? "(null)" : name_of(c.vendor, i), c.name)
        << std::hex << c.vendor << ":" << c.device << " " << text(c.revision);
  }
  // Device 0 finds the terminator, whose name is absent.
  EXPECT_EQ(db_.gpu_db_get_index(0x10DE, 0), gpu_db_nvidia_num_rows - 1);
  EXPECT_EQ(name_of(0x10DE, gpu_db_nvidia_num_rows - 1), "(null)");
}

TEST_F(GpuDb, AccessorsOfKnownMissingAndFallbackRows) {
  const unsigned int i = db_.gpu_db_get_index(0x10DE, 0x2B85);
  EXPECT_EQ(text(db_.gpu_db_get_gpu_codename(0x10DE, static_cast<int>(i))), "GB202-300");
  EXPECT_EQ(db_.gpu_db_get_num_unified_shader_processors(0x10DE, static_cast<int>(i)), 21760);
  EXPECT_EQ(db_.gpu_db_get_num_texture_units(0x10DE, static_cast<int>(i)), 680);
  EXPECT_EQ(db_.gpu_db_get_num_rops(0x10DE, static_cast<int>(i)), 176);
  EXPECT_EQ(db_.gpu_db_get_tdp(0x10DE, static_cast<int>(i)), 575);
  // Only -1 is "not found"; other indices outside a table give nothing.
  EXPECT_EQ(text(db_.gpu_db_get_adapter_name(0x10DE, -5)), "Unknown");
  EXPECT_EQ(text(db_.gpu_db_get_gpu_codename(0x10DE, -1)), "Unknown");
  const int outside[] = {-5, static_cast<int>(gpu_db_nvidia_num_rows), 1000000};
  for (int bad : outside) {
    EXPECT_EQ(db_.gpu_db_get_gpu_codename(0x10DE, bad), nullptr) << bad;
    EXPECT_EQ(db_.gpu_db_get_num_rops(0x10DE, bad) + db_.gpu_db_get_tdp(0x10DE, bad), 0) << bad;
  }
  EXPECT_EQ(db_.gpu_db_get_adapter_name(0x10DE, static_cast<int>(gpu_db_nvidia_num_rows)), nullptr);
  // Vendors without a table of their own read the SiS table.
  EXPECT_EQ(name_of(0x1039, 1), "SiS Xabre 80");
  EXPECT_EQ(text(db_.gpu_db_get_gpu_codename(0x1234, 1)), "X328");
}

// Naming a record from a row keeps what the record already says where the
// row's text is empty (rows of chips whose codename the sources lack, as
// NVIDIA's older mobile parts).
TEST_F(GpuDb, EmptyRowTextsKeepTheRecordsNames) {
  int row = -1;
  for (unsigned long i = 0; i < gpu_db_nvidia_num_rows && row < 0; ++i) {
    const char* codename = db_.gpu_db_get_gpu_codename(0x10DE, static_cast<int>(i));
    if (codename != nullptr && codename[0] == '\0') row = static_cast<int>(i);
  }
  ASSERT_GE(row, 0) << "no NVIDIA row without a codename";
  zev::GPU gpu;
  gpu.vendor_id = 0x10DE;
  std::strcpy(gpu.codename, "from the driver");
  gpudb::copy_names(&gpu, row);
  EXPECT_STREQ(gpu.codename, "from the driver");
  EXPECT_STREQ(gpu.name, db_.gpu_db_get_adapter_name(0x10DE, row));
}

TEST_F(GpuDb, NameFromDeviceIdForTheHost) {
  struct Case {
    unsigned long vendor, device, revision;
    const char* name;
  };
  const Case cases[] = {
      {0x1002, 0x7551, 0xC1, "AMD Radeon AI PRO R9700S"},
      {0x1002, 0x7551, 0xC0, "AMD Radeon AI PRO R9700"},
      {0x1002, 0x7551, 0, "AMD Radeon AI PRO R9700"},
      {0x1002, 0x7551, 0xC7, "(null)"},
      {0x10DE, 0x2B85, 0, "NVIDIA GeForce RTX 5090"},
      {0x8086, 0xE20B, 0, "Intel Arc B580"},
      {0x1ED5, 0x0201, 0, "Moore Threads MTT S80"},
      {0x15AD, 0x0405, 0, "SVGA II Adapter"},
      {0x5333, 0x9042, 0, "(null)"},  // S3 Graphics names nothing
      {0x1039, 0x0330, 0, "(null)"},
  };
  for (const Case& c : cases)
    EXPECT_EQ(text(db_.get_gpu_name_from_device_id(c.vendor, c.device, c.revision)), c.name)
        << std::hex << c.vendor << ":" << c.device << ":" << c.revision;
  // A variant shorter than two characters is no revision.
  const char strings[] = "\0C\0c1\0no revision\0one digit\0lower case";
  const GpuDbRow rows[] = {{0x1234, 0, 0, 6, 110, 1, 0, 0, 1, 1, 0},
                           {0x1234, 0, 1, 18, 110, 1, 0, 0, 1, 1, 0},
                           {0x1234, 0, 3, 28, 110, 1, 0, 0, 1, 1, 0}};
  const GpuDbTable table = {rows, 3, strings};
  EXPECT_EQ(text(db_.get_gpu_name_from_devices_table(&table, 3, 0x1234, 0xC1)), "lower case");
  EXPECT_EQ(db_.get_gpu_name_from_devices_table(&table, 2, 0x1234, 0xC1), nullptr);
  EXPECT_EQ(db_.get_gpu_name_from_devices_table(nullptr, 3, 0x1234, 0xC1), nullptr);
  // NVIDIA variant lookup.
  const unsigned long a1 = db_.str_to_hex('A', '1', '\0', '\0');
  EXPECT_EQ(name_of(0x10DE, db_.gpu_db_get_index_v3(0x10DE, 0x2C58, a1)),
            "NVIDIA GeForce RTX 5090 Laptop GPU");
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x10DE, 0x2C58, 0), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x10DE, 0x2B85, a1), 0xFFFFFFFFu);
  EXPECT_EQ(db_.gpu_db_get_index_v3(0x1002, 0x2C58, a1), 0xFFFFFFFFu);
}

TEST_F(GpuDb, BoardMarketingNames) {
  struct Case {
    uint64_t vendor, device, subvendor, subdevice, revision;
    const char* marketing;  // nullptr: no board name
  };
  const Case cases[] = {
      {0x10DE, 0x2B85, 0x10DE, 0x2057, 0xA1, "NVIDIA GeForce RTX 5090 Founders Edition"},
      {0x10DE, 0x2B85, 0x10DE, 0x2058, 0xA1, nullptr},
      {0x10DE, 0x2704, 0x1462, 0x5110, 0xA1, "MSI RTX 4080 Suprim X"},  // revision ignored
      {0x1002, 0x744C, 0x1002, 0x0E3B, 0xCE, "AMD RX 7900 GRE (MBA)"},  // told apart by it
      {0x1002, 0x744C, 0x1002, 0x0E3B, 0xC8, "AMD RX 7900 XTX (MBA)"},
      {0x1002, 0x744C, 0x1002, 0x0E3B, 0xC0, nullptr},
      {0x1002, 0x7550, 0x1043, 0x0613, 0xC0, "ASUS RX 9070 XT TUF OC"},
      {0x8086, 0xE20B, 0x8086, 0x1100, 0, "Intel Arc B580 Limited Edition"},
      {0x8086, 0x56A5, 0x172F, 0x4017, 5, "Sparkle Arc A380 Genie 6G"},
      {0x1ED5, 0x0201, 0x1ED5, 0x0201, 0, "Moore Threads MTT S80 16G"},
  };
  for (const Case& c : cases) {
    zev::GPU* g = db_.create_gpu();
    std::tie(g->vendor_id, g->device_id, g->subvendor_id, g->subdevice_id, g->revision_id) =
        std::make_tuple(c.vendor, c.device, c.subvendor, c.subdevice, c.revision);
    std::strcpy(g->marketing_name, "left over");
    g->use_marketing_name = true;
  }
  EXPECT_TRUE(db_.update_all_gpus_marketing_name());
  for (unsigned long i = 0; i < db_.get_num_gpus(); ++i) {
    const zev::GPU* g = db_.get_gpu(i);
    EXPECT_EQ(g->use_marketing_name, cases[i].marketing != nullptr) << i;
    EXPECT_STREQ(g->marketing_name, cases[i].marketing ? cases[i].marketing : "left over");
  }
  // Other vendors are left alone; one HD 5450 board is renamed.
  zev::GPU* vmware = db_.create_gpu();
  vmware->vendor_id = 0x15AD;
  vmware->use_marketing_name = true;
  EXPECT_FALSE(db_.update_gpu_marketing_name(vmware));
  EXPECT_TRUE(vmware->use_marketing_name);
  zev::GPU* hd = db_.create_gpu();
  std::tie(hd->vendor_id, hd->device_id, hd->subvendor_id, hd->subdevice_id) =
      std::make_tuple(0x1002, 0x68F9, 0x1028, 0x2126);
  db_.update_gpu_marketing_name(hd);
  EXPECT_STREQ(hd->name, "AMD Radeon HD 6350");
  EXPECT_FALSE(db_.update_gpu_marketing_name(nullptr));
  db_.cleanup_gpus_list();
}

// Hex digits are not validated: 'G' is 16, a NUL wraps to a 16-bit value.
TEST_F(GpuDb, HexDigits) {
  const std::pair<char, unsigned> digits[] = {{'0', 0},  {'9', 9},  {'a', 10}, {'A', 10},
                                              {'f', 15}, {'G', 16}, {'z', 35}, {'\0', 65481}};
  for (const auto& [c, v] : digits) EXPECT_EQ(db_.to_hex(c), v) << static_cast<int>(c);
  EXPECT_EQ(db_.str_to_hex('1', '0', 'd', 'e'), 0x10DEu);
  EXPECT_EQ(db_.str_to_hex('7', '4', '4', 'C'), 0x744Cu);
  EXPECT_EQ(db_.str_to_hex2('c', '1'), 0xC1u);
}

TEST_F(GpuDb, DeviceIdStrings) {
  const char kRtx4090[] = "PCI\\VEN_10DE&DEV_2684&SUBSYS_16F310DE&REV_A1";
  using Reader = bool (GpuMonitorVorn::*)(const char*, char*, unsigned long*);
  const std::tuple<Reader, const char*, const char*, unsigned long> fixed[] = {
      {&GpuMonitorVorn::getVendorID_From_FullDeviceIDString, kRtx4090, "10DE", 0x10DE},
      {&GpuMonitorVorn::getDeviceID_From_FullDeviceIDString, kRtx4090, "2684", 0x2684},
      {&GpuMonitorVorn::getSubDeviceID_From_FullDeviceIDString, kRtx4090, "16F3", 0x16F3},
      {&GpuMonitorVorn::getSubVendorID_From_FullDeviceIDString, kRtx4090, "10DE", 0x10DE},
      // Shorter than the layout: NULs for what it lacks, no read past its end.
      {&GpuMonitorVorn::getSubVendorID_From_FullDeviceIDString, "PCI\\VEN_10DE", "",
       db_.str_to_hex('\0', '\0', '\0', '\0')},
  };
  for (const auto& [reader, s, digits, value] : fixed) {
    char t[5] = {};
    unsigned long v = 0;
    EXPECT_TRUE((db_.*reader)(s, t, &v));
    EXPECT_STREQ(t, digits);
    EXPECT_EQ(v, value) << digits;
  }
  EXPECT_FALSE(db_.getVendorID_From_FullDeviceIDString(nullptr, nullptr, nullptr));

  // The lookup fills only the record's empty fields.
  zev::GPU empty, known;
  known.vendor_id = 0x10DE;
  known.revision_id = 0xA1;
  std::strcpy(known.revision_text, "A1");
  const char kGre[] = "PCI\\VEN_1002&DEV_7550&SUBSYS_04151002&REV_C2";
  EXPECT_EQ(name_of(0x1002, db_.gpu_db_get_index_from_device_id_string(kGre, &empty)),
            "AMD Radeon RX 9070 GRE");
  EXPECT_EQ(
      std::make_tuple(empty.vendor_id, empty.device_id, empty.subdevice_id, empty.subvendor_id,
                      empty.revision_id, std::string(empty.revision_text)),
      std::make_tuple(0x1002ul, 0x7550ul, 0x0415ul, 0x1002ul, 0xC2ul, std::string("C2")));
  db_.gpu_db_get_index_from_device_id_string(kGre, &known);
  EXPECT_EQ(std::make_tuple(known.vendor_id, known.device_id, known.revision_id),
            std::make_tuple(0x10DEul, 0x7550ul, 0xA1ul));
  EXPECT_STREQ(known.revision_text, "A1");

  const std::pair<const char*, const char*> lookups[] = {
      {"PCI\\VEN_1002&DEV_7550&SUBSYS_04151002&REV_c2", "(null)"},  // AMD compares exactly
      {"PCI\\VEN_1002&DEV_7422&REV_C7", "AMD Radeon Pro W6400"},    // row without revision
      {"PCI\\VEN_10DE&DEV_2B85&SUBSYS_205710DE&REV_A1", "NVIDIA GeForce RTX 5090"},
      {"PCI\\VEN_1039&DEV_0330", "(null)"},
      {"PCI\\VEN_10DE&SUBSYS_16F310DE", "(null)"},
      {"PCI\\DEV_2684", "(null)"},
  };
  for (const auto& [s, name] : lookups) {
    const unsigned int i = db_.gpu_db_get_index_from_device_id_string(s, nullptr);
    EXPECT_EQ(i == 0xFFFFFFFFu ? "(null)" : name_of(std::strstr(s, "1002") ? 0x1002 : 0x10DE, i),
              name)
        << s;
  }
}

TEST_F(GpuDb, MangledDeviceIdStringsNeverCrash) {
  std::mt19937 rng(1234);
  const std::string pieces[] = {"PCI\\", "VEN_", "DEV_", "SUBSYS_", "REV_", "&", "10DE",
                                "1002",  "7550", "C2",   "c2",      "0",    "Z", "\x80"};
  for (int n = 0; n < 5000; ++n) {
    std::string s;
    for (int k = static_cast<int>(rng() % 8); k > 0; --k) s += pieces[rng() % 14];
    zev::GPU gpu;
    const unsigned int i = db_.gpu_db_get_index_from_device_id_string(s.c_str(), &gpu);
    EXPECT_TRUE(i == 0xFFFFFFFFu || i < gpu_db_index_table(gpu.vendor_id).num_rows) << s;
    char t[4];
    unsigned long v;
    db_.getSubVendorID_From_FullDeviceIDString(s.c_str(), t, &v);
  }
}

}  // namespace
