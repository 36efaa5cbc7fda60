// Built-in GPU identification data: per-vendor chip tables and board
// (sub-system) marketing-name tables.  The arrays are defined in the generated
// sources under gpudb/generated/ (tools/gpudb/generate.py); this header is
// written by hand.  Every table ends with a terminator row: device_id 0 (or all
// ids 0), null strings, zero numbers.  The *_num_rows constants count the rows
// including the terminator.
//
// The rows hold no pointers: each string is an offset into the table's text
// block (gpu_db_amd_text for gpu_db_amd...), where the strings lie one after
// the other, each ending in a NUL.  The loader thus has nothing to relocate in
// the tables, and they stay read-only pages that every process maps from the
// same file.  Read the strings through the table (GpuDbTable, BoardNameTable).
#ifndef GPUDB_GPU_DB_TABLES_H
#define GPUDB_GPU_DB_TABLES_H

#include <cstdint>

// Offset of a string in a table's text block.
using GpuDbText = uint32_t;
// The offset that stands for a null string (the terminator rows).
constexpr GpuDbText kGpuDbNoText = 0xFFFFFFFFu;

struct GpuDbRow {
  int device_id;  // PCI device id; -1 = id unknown (never matches)
  GpuDbText codename;
  GpuDbText variant;  // AMD: revision "C0"; NVIDIA: "" or "A1" on some laptop rows; Intel/S3/SiS:
                      // short model name
  GpuDbText adapter_name;
  int api_level;  // 80 NV30 family, 90 G70, 100 G8x..GT2xx, 110 GF100+ and all current; -1 unknown
  int num_unified_shader_processors;  // 0 for pre-unified chips, -1 unknown
  int num_vertex_shaders;             // pre-unified only, else 0; -1 unknown
  int num_pixel_shaders;              // pre-unified only, else 0; -1 unknown
  int num_texture_units;              // -1 unknown
  int num_rops;                       // -1 unknown
  int tdp;                            // watts, 0 unknown
};

struct BoardNameRow {
  unsigned int vendor;  // 0 only in the terminator
  unsigned int device;
  unsigned int subvendor;
  unsigned int subdevice;
  GpuDbText revision;  // two hex digits "A1", "C0", "00"
  GpuDbText marketing_name;
};

// The string at `offset` of a text block; null for kGpuDbNoText.
inline const char* gpu_db_text_at(const char* text, GpuDbText offset) {
  return offset == kGpuDbNoText ? nullptr : text + offset;
}

// One chip table: its rows and the text block their strings lie in.
struct GpuDbTable {
  const GpuDbRow* rows;    // null: no table
  unsigned long num_rows;  // terminator included
  const char* text;

  const char* codename(const GpuDbRow& row) const { return gpu_db_text_at(text, row.codename); }
  const char* variant(const GpuDbRow& row) const { return gpu_db_text_at(text, row.variant); }
  const char* adapter_name(const GpuDbRow& row) const {
    return gpu_db_text_at(text, row.adapter_name);
  }
};

// One board table, likewise.
struct BoardNameTable {
  const BoardNameRow* rows;  // null: no table
  unsigned long num_rows;    // terminator included
  const char* text;

  const char* revision(const BoardNameRow& row) const { return gpu_db_text_at(text, row.revision); }
  const char* marketing_name(const BoardNameRow& row) const {
    return gpu_db_text_at(text, row.marketing_name);
  }
};

// Each table: its rows, its row count and its text block.
extern const GpuDbRow gpu_db_nvidia[];
extern const unsigned long gpu_db_nvidia_num_rows;
extern const char gpu_db_nvidia_text[];
extern const GpuDbRow gpu_db_amd[];
extern const unsigned long gpu_db_amd_num_rows;
extern const char gpu_db_amd_text[];
extern const GpuDbRow gpu_db_intel[];
extern const unsigned long gpu_db_intel_num_rows;
extern const char gpu_db_intel_text[];
extern const GpuDbRow gpu_db_moore_threads[];
extern const unsigned long gpu_db_moore_threads_num_rows;
extern const char gpu_db_moore_threads_text[];
extern const GpuDbRow gpu_db_s3[];
extern const unsigned long gpu_db_s3_num_rows;
extern const char gpu_db_s3_text[];
extern const GpuDbRow gpu_db_vmware[];
extern const unsigned long gpu_db_vmware_num_rows;
extern const char gpu_db_vmware_text[];
extern const GpuDbRow gpu_db_sis[];
extern const unsigned long gpu_db_sis_num_rows;
extern const char gpu_db_sis_text[];
extern const GpuDbRow gpu_db_lisuan[];
extern const unsigned long gpu_db_lisuan_num_rows;
extern const char gpu_db_lisuan_text[];  // the unused two-row table

extern const BoardNameRow board_names_nvidia[];
extern const unsigned long board_names_nvidia_num_rows;
extern const char board_names_nvidia_text[];
extern const BoardNameRow board_names_amd[];
extern const unsigned long board_names_amd_num_rows;
extern const char board_names_amd_text[];
extern const BoardNameRow board_names_intel[];
extern const unsigned long board_names_intel_num_rows;
extern const char board_names_intel_text[];
extern const BoardNameRow board_names_moore_threads[];
extern const unsigned long board_names_moore_threads_num_rows;
extern const char board_names_moore_threads_text[];

// A table as its three generated definitions make it up.
#define GPUDB_TABLE(name) \
  { name, name##_num_rows, name##_text }

#endif  // GPUDB_GPU_DB_TABLES_H
