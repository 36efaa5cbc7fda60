// The GPU database as functions over its tables: lookups of a PCI id, a
// row's names and numbers, PCI id text, board marketing names. Nothing here
// knows the monitor; the monitor's gpu_db_* members hand their calls on.
// Index functions answer kNotFound; callers hold the result in an int and
// test for a negative value.
#pragma once

#include "gpudb/gpu_db_tables.h"
#include "zev/gpu.h"

namespace gpudb {

constexpr unsigned int kNotFound = 0xFFFFFFFFu;

// The first row of the vendor's table with this device id.
unsigned int index_of(unsigned long vendor, unsigned long device);
// AMD: the first row whose revision matches (rows without one match any);
// the other vendors as index_of.
unsigned int index_of_revision(unsigned long vendor, unsigned long device, const char* revision);
// NVIDIA: the row whose variant, read as four hex digits, is `value`.
unsigned int index_of_variant(unsigned long vendor, unsigned long device, unsigned long value);

// What row `index` of the vendor's table holds.
const char* adapter_name(unsigned long vendor, int index);
const char* codename(unsigned long vendor, int index);
int tdp(unsigned long vendor, int index);
int num_unified_shader_processors(unsigned long vendor, int index);
int num_texture_units(unsigned long vendor, int index);
int num_rops(unsigned long vendor, int index);

// The adapter name of a device (and revision, 0 for any) in at most
// `row_count` rows of `table`, or in the vendor's table.
const char* name_from_devices_table(const GpuDbTable* table, unsigned long row_count,
                                    unsigned long device, unsigned long revision);
const char* name_from_device_id(unsigned long vendor, unsigned long device, unsigned long revision);

// Hex digits of PCI ids (pci_strings.cpp).
unsigned int to_hex(char c);
unsigned int str_to_hex(char a, char b, char c, char d);
unsigned int str_to_hex2(char a, char b);

// Full PCI device-id strings, PCI\VEN_vvvv&DEV_dddd&SUBSYS_ssssvvvv&REV_rr
// (device_id_string.cpp).
bool vendor_id_from_device_id_string(const char* s, char* text, unsigned long* value);
bool device_id_from_device_id_string(const char* s, char* text, unsigned long* value);
bool subvendor_id_from_device_id_string(const char* s, char* text, unsigned long* value);
bool subdevice_id_from_device_id_string(const char* s, char* text, unsigned long* value);
unsigned int index_from_device_id_string(const char* s, zev::GPU* gpu);

// Board marketing names (marketing_names.cpp): each true when a board row
// named the record.
bool update_marketing_name(zev::GPU* gpu);
bool update_marketing_name_nvidia(zev::GPU* gpu);
bool update_marketing_name_amd(zev::GPU* gpu);
bool update_marketing_name_intel(zev::GPU* gpu);
bool update_marketing_name_moore_threads(zev::GPU* gpu);

// Copies the adapter name and the codename of row `index` of the record's
// vendor table into the record, each only when the database has a non-empty
// text for it: the database's names win over a driver's (record_names.cpp).
void copy_names(zev::GPU* gpu, int index);

}  // namespace gpudb
