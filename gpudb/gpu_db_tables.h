// Built-in GPU identification data: per-vendor chip tables and board
// (sub-system) marketing-name tables.  The arrays are defined in the generated
// sources under gpudb/generated/ (tools/gpudb/generate.py); this header is
// written by hand.  Every table ends with a terminator row: device_id 0 (or all
// ids 0), null strings, zero numbers.  The *_num_rows constants count the rows
// including the terminator.
#ifndef GPUDB_GPU_DB_TABLES_H
#define GPUDB_GPU_DB_TABLES_H

struct GpuDbRow {
    int device_id;            // PCI device id; -1 = id unknown (never matches)
    const char* codename;
    const char* variant;      // AMD: revision "C0"; NVIDIA: "" or "A1" on some laptop rows; Intel/S3/SiS: short model name
    const char* adapter_name;
    int api_level;            // 80 NV30 family, 90 G70, 100 G8x..GT2xx, 110 GF100+ and all current; -1 unknown
    int num_unified_shader_processors; // 0 for pre-unified chips, -1 unknown
    int num_vertex_shaders;   // pre-unified only, else 0; -1 unknown
    int num_pixel_shaders;    // pre-unified only, else 0; -1 unknown
    int num_texture_units;    // -1 unknown
    int num_rops;             // -1 unknown
    int tdp;                  // watts, 0 unknown
};

struct BoardNameRow {
    unsigned int vendor;      // 0 only in the terminator
    unsigned int device;
    unsigned int subvendor;
    unsigned int subdevice;
    const char* revision;     // two hex digits "A1", "C0", "00"
    const char* marketing_name;
};

extern const GpuDbRow gpu_db_nvidia[];        extern const unsigned long gpu_db_nvidia_num_rows;   // rows incl. terminator
extern const GpuDbRow gpu_db_amd[];           extern const unsigned long gpu_db_amd_num_rows;
extern const GpuDbRow gpu_db_intel[];         extern const unsigned long gpu_db_intel_num_rows;
extern const GpuDbRow gpu_db_moore_threads[]; extern const unsigned long gpu_db_moore_threads_num_rows;
extern const GpuDbRow gpu_db_s3[];            extern const unsigned long gpu_db_s3_num_rows;
extern const GpuDbRow gpu_db_vmware[];        extern const unsigned long gpu_db_vmware_num_rows;
extern const GpuDbRow gpu_db_sis[];           extern const unsigned long gpu_db_sis_num_rows;
extern const GpuDbRow gpu_db_lisuan[];        extern const unsigned long gpu_db_lisuan_num_rows; // the unused two-row table

extern const BoardNameRow board_names_nvidia[];        extern const unsigned long board_names_nvidia_num_rows;
extern const BoardNameRow board_names_amd[];           extern const unsigned long board_names_amd_num_rows;
extern const BoardNameRow board_names_intel[];         extern const unsigned long board_names_intel_num_rows;
extern const BoardNameRow board_names_moore_threads[]; extern const unsigned long board_names_moore_threads_num_rows;

#endif // GPUDB_GPU_DB_TABLES_H
