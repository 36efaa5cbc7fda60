// The database tables: rows that hosts and tests rely on, and invariants of
// every table.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "gpudb/gpu_db_tables.h"

namespace {

struct Table {
  const char* vendor;
  GpuDbTable table;
};

const Table kTables[] = {
    {"NVIDIA", GPUDB_TABLE(gpu_db_nvidia)}, {"AMD", GPUDB_TABLE(gpu_db_amd)},
    {"Intel", GPUDB_TABLE(gpu_db_intel)},   {"Moore Threads", GPUDB_TABLE(gpu_db_moore_threads)},
    {"S3", GPUDB_TABLE(gpu_db_s3)},         {"VMware", GPUDB_TABLE(gpu_db_vmware)},
    {"SiS", GPUDB_TABLE(gpu_db_sis)},       {"Lisuan", GPUDB_TABLE(gpu_db_lisuan)},
};

struct BoardTable {
  const char* vendor;
  unsigned int vendor_id;
  BoardNameTable table;
};

const BoardTable kBoardTables[] = {
    {"NVIDIA", 0x10DE, GPUDB_TABLE(board_names_nvidia)},
    {"AMD", 0x1002, GPUDB_TABLE(board_names_amd)},
    {"Intel", 0x8086, GPUDB_TABLE(board_names_intel)},
    {"Moore Threads", 0x1ED5, GPUDB_TABLE(board_names_moore_threads)},
};

// A row with its strings, as the tests write rows down.
struct Row {
  int device_id;
  const char* codename;
  const char* variant;
  const char* adapter_name;
  int api_level, num_unified_shader_processors, num_vertex_shaders, num_pixel_shaders,
      num_texture_units, num_rops, tdp;
};

Row read_row(const GpuDbTable& t, unsigned long i) {
  const GpuDbRow& r = t.rows[i];
  return {r.device_id,
          t.codename(r),
          t.variant(r),
          t.adapter_name(r),
          r.api_level,
          r.num_unified_shader_processors,
          r.num_vertex_shaders,
          r.num_pixel_shaders,
          r.num_texture_units,
          r.num_rops,
          r.tdp};
}

// Every value of a row, as text.
std::string describe(const Row& r) {
  auto t = [](const char* s) { return std::string(s ? s : "(null)"); };
  return std::to_string(r.device_id) + "/" + t(r.codename) + "/" + t(r.variant) + "/" +
         t(r.adapter_name) + "/" + std::to_string(r.api_level) + "/" +
         std::to_string(r.num_unified_shader_processors) + "/" +
         std::to_string(r.num_vertex_shaders) + "/" + std::to_string(r.num_pixel_shaders) + "/" +
         std::to_string(r.num_texture_units) + "/" + std::to_string(r.num_rops) + "/" +
         std::to_string(r.tdp);
}

// Rows whose every value is fixed: the first row of their table with the same
// name must equal them.
TEST(GpuDbTables, RowsHostsRelyOnAreExact) {
  const std::pair<const Table*, Row> expected[] = {
      {&kTables[0],
       {0x2BB1, "GB202", "", "NVIDIA RTX PRO 6000 Blackwell Workstation", 110, 24064, 0, 0, 752,
        192, 600}},
      {&kTables[0],
       {0x2B85, "GB202-300", "", "NVIDIA GeForce RTX 5090", 110, 21760, 0, 0, 680, 176, 575}},
      {&kTables[0],
       {0x2C58, "GB203", "A1", "NVIDIA GeForce RTX 5090 Laptop GPU", 110, 10496, 0, 0, 328, 112,
        150}},
      {&kTables[0],
       {-1, "GB203", "", "NVIDIA RTX PRO 4500 Blackwell Server Edition", 110, 10496, 0, 0, 328, 112,
        160}},
      {&kTables[0], {0x06C0, "GF100", "", "NVIDIA GeForce GTX 480", 110, 480, 0, 0, 60, 48, 250}},
      {&kTables[0], {0x0090, "G70", "", "NVIDIA GeForce 7800 GTX", 90, 0, 8, 24, 24, 16, 81}},
      {&kTables[0], {0x0201, "NV20", "", "NVIDIA GeForce3 Ti 200", -1, -1, -1, -1, -1, -1, 0}},
      {&kTables[1],
       {0x7551, "Navi 48", "C0", "AMD Radeon AI PRO R9700", 110, 4096, 0, 0, 256, 128, 300}},
      {&kTables[1], {0x7422, "Navi 24", "", "AMD Radeon Pro W6400", 110, 768, 0, 0, 48, 32, 50}},
      {&kTables[2],
       {0xE20B, "Battlemage BMG-G21", "", "Intel Arc B580", 110, 2560, 0, 0, 160, 80, 190}},
      {&kTables[2], {0x27A6, "GMA 950", "GMA 950", "Intel GMA 950", 90, 0, 0, 4, -1, -1, 0}},
      {&kTables[3],
       {0x0201, "Chunxiao", "", "Moore Threads MTT S80", 110, 4096, -1, -1, 256, 256, 255}},
      {&kTables[4],
       {0x9042, "Chrome 440/430", "Chrome 440/430", "S3 Graphics Chrome 430/440 Series", 100, 64, 0,
        0, 16, 4, 0}},
      {&kTables[5], {0x0405, "", "", "SVGA II Adapter", 100, 0, 0, 0, 0, 0, 0}},
      {&kTables[6], {-1, "X328", "Xabre80", "SiS Xabre 80", -1, 0, 1, 2, -1, -1, 0}},
  };
  for (const auto& [table, row] : expected) {
    const GpuDbTable& t = table->table;
    unsigned long found = t.num_rows;
    for (unsigned long i = 0; i < t.num_rows && found == t.num_rows; ++i) {
      const Row r = read_row(t, i);
      if (r.adapter_name && std::strcmp(r.adapter_name, row.adapter_name) == 0 &&
          r.device_id == row.device_id)
        found = i;
    }
    ASSERT_LT(found, t.num_rows) << table->vendor << ": " << row.adapter_name;
    EXPECT_EQ(describe(read_row(t, found)), describe(row)) << table->vendor;
  }
}

TEST(GpuDbTables, RowsWhoseOrderMatters) {
  // Newest generation first; 0x7550 as C0, C2, C3, the XT first.
  const GpuDbTable& nvidia = kTables[0].table;
  const GpuDbTable& amd = kTables[1].table;
  EXPECT_STREQ(read_row(nvidia, 0).codename, "GB202");
  EXPECT_STREQ(read_row(amd, 0).codename, "Navi 48");
  std::string variants;
  for (unsigned long i = 0; i < amd.num_rows; ++i)
    if (amd.rows[i].device_id == 0x7550) variants += read_row(amd, i).variant;
  EXPECT_EQ(variants, "C0C2C3");
  // Irregular values of the data are kept as they are.
  int irregular = 0;
  for (unsigned long i = 0; i + 1 < nvidia.num_rows; ++i) {
    const Row r = read_row(nvidia, i);
    if (r.device_id == 0x0CA0 && std::strcmp(r.codename, "G92/GT215") == 0 &&
        r.num_unified_shader_processors == -16)
      ++irregular;
    if (std::strcmp(r.adapter_name, "NVIDIA GeForce FX Go 5700 ") == 0) ++irregular;
  }
  EXPECT_EQ(irregular, 2);
  ASSERT_EQ(gpu_db_lisuan_num_rows, 2u);
  EXPECT_STREQ(read_row(kTables[7].table, 0).adapter_name, "LISUAN LX 7G100");
}

// Terminated tables of complete, plausible rows; a device and variant appear
// once (NVIDIA repeats an id only under another name).
TEST(GpuDbTables, EveryTableHoldsTogether) {
  for (const auto& [vendor, t] : kTables) {
    SCOPED_TRACE(vendor);
    ASSERT_GE(t.num_rows, 2u);
    const Row end = read_row(t, t.num_rows - 1);
    EXPECT_TRUE(end.device_id == 0 && end.codename == nullptr && end.variant == nullptr &&
                end.adapter_name == nullptr && end.num_rops + end.tdp + end.api_level == 0);
    std::set<std::string> seen;
    for (unsigned long i = 0; i + 1 < t.num_rows; ++i) {
      const Row r = read_row(t, i);
      ASSERT_TRUE(r.adapter_name && r.codename && r.variant) << "row " << i;
      EXPECT_NE(r.device_id, 0) << "a row before the terminator ends the table: " << i;
      EXPECT_TRUE(r.adapter_name[0] != '\0' && !std::strchr(r.adapter_name, '%')) << describe(r);
      const std::string key = std::to_string(r.device_id) + "|" + r.variant +
                              (t.rows == gpu_db_nvidia ? std::string("|") + r.adapter_name : "");
      EXPECT_TRUE(r.device_id == -1 || t.rows == gpu_db_sis || seen.insert(key).second)
          << "duplicate: " << describe(r);
      EXPECT_LE(r.num_rops, 256) << describe(r);
      EXPECT_TRUE(r.num_unified_shader_processors <= 0 || r.num_texture_units <= 0 ||
                  r.num_texture_units <= r.num_unified_shader_processors)
          << describe(r);
      EXPECT_TRUE(r.tdp >= 0 && r.tdp <= 1500) << describe(r);
      EXPECT_TRUE(r.api_level == -1 ||
                  (r.api_level >= 70 && r.api_level <= 110 && r.api_level % 10 == 0))
          << describe(r);
    }
  }
}

TEST(GpuDbTables, BoardTablesHoldTogether) {
  for (const auto& [vendor, vendor_id, t] : kBoardTables) {
    SCOPED_TRACE(vendor);
    ASSERT_GE(t.num_rows, 2u);
    const BoardNameRow& end = t.rows[t.num_rows - 1];
    EXPECT_EQ(end.vendor | end.device | end.subvendor | end.subdevice, 0u);
    EXPECT_EQ(t.marketing_name(end), nullptr);
    for (unsigned long i = 0; i + 1 < t.num_rows; ++i) {
      const BoardNameRow& r = t.rows[i];
      const char* name = t.marketing_name(r);
      const char* revision = t.revision(r);
      EXPECT_EQ(r.vendor, vendor_id) << "row " << i;
      ASSERT_TRUE(name && revision) << "row " << i;
      EXPECT_EQ(std::strlen(revision), 2u) << name;
      const size_t n = std::strlen(name);
      EXPECT_TRUE(n > 0 && n < 128 && !std::strchr(name, '%')) << name;
    }
  }
}

}  // namespace
