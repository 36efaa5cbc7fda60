// The monitor's GPU database members: each hands its call to the database's
// functions (gpudb/gpu_db.h).
#include "gpudb/gpu_db.h"
#include "plugin/gpu_monitor_vorn.h"

const char* GpuMonitorVorn::get_gpu_name_from_device_id(unsigned long vendor, unsigned long device,
                                                        unsigned long revision) {
  return gpudb::name_from_device_id(vendor, device, revision);
}
unsigned int GpuMonitorVorn::gpu_db_get_index(unsigned long vendor, unsigned long device) {
  return gpudb::index_of(vendor, device);
}
unsigned int GpuMonitorVorn::gpu_db_get_index_v2(unsigned long vendor, unsigned long device,
                                                 const char* revision) {
  return gpudb::index_of_revision(vendor, device, revision);
}
unsigned int GpuMonitorVorn::gpu_db_get_index_v3(unsigned long vendor, unsigned long device,
                                                 unsigned long value) {
  return gpudb::index_of_variant(vendor, device, value);
}
const char* GpuMonitorVorn::gpu_db_get_adapter_name(unsigned long vendor, int index) {
  return gpudb::adapter_name(vendor, index);
}
const char* GpuMonitorVorn::gpu_db_get_gpu_codename(unsigned long vendor, int index) {
  return gpudb::codename(vendor, index);
}
int GpuMonitorVorn::gpu_db_get_tdp(unsigned long vendor, int index) {
  return gpudb::tdp(vendor, index);
}
int GpuMonitorVorn::gpu_db_get_num_unified_shader_processors(unsigned long vendor, int index) {
  return gpudb::num_unified_shader_processors(vendor, index);
}
int GpuMonitorVorn::gpu_db_get_num_texture_units(unsigned long vendor, int index) {
  return gpudb::num_texture_units(vendor, index);
}
int GpuMonitorVorn::gpu_db_get_num_rops(unsigned long vendor, int index) {
  return gpudb::num_rops(vendor, index);
}
const char* GpuMonitorVorn::get_gpu_name_from_devices_table(const void* table,
                                                            unsigned long row_count,
                                                            unsigned long device,
                                                            unsigned long revision) {
  return gpudb::name_from_devices_table(static_cast<const GpuDbTable*>(table), row_count, device,
                                        revision);
}

bool GpuMonitorVorn::update_all_gpus_marketing_name() {
  for (unsigned long i = 0; i < get_num_gpus(); ++i) update_gpu_marketing_name(get_gpu(i));
  return true;
}
bool GpuMonitorVorn::update_gpu_marketing_name(zev::GPU* gpu) {
  return gpudb::update_marketing_name(gpu);
}
bool GpuMonitorVorn::update_gpu_marketing_name_nvidia(zev::GPU* gpu) {
  return gpudb::update_marketing_name_nvidia(gpu);
}
bool GpuMonitorVorn::update_gpu_marketing_name_amd(zev::GPU* gpu) {
  return gpudb::update_marketing_name_amd(gpu);
}
bool GpuMonitorVorn::update_gpu_marketing_name_intel(zev::GPU* gpu) {
  return gpudb::update_marketing_name_intel(gpu);
}
bool GpuMonitorVorn::update_gpu_marketing_name_moore_threads(zev::GPU* gpu) {
  return gpudb::update_marketing_name_moore_threads(gpu);
}

unsigned int GpuMonitorVorn::to_hex(char c) { return gpudb::to_hex(c); }
unsigned int GpuMonitorVorn::str_to_hex(char a, char b, char c, char d) {
  return gpudb::str_to_hex(a, b, c, d);
}
unsigned int GpuMonitorVorn::str_to_hex2(char a, char b) { return gpudb::str_to_hex2(a, b); }
bool GpuMonitorVorn::getVendorID_From_FullDeviceIDString(const char* s, char* text,
                                                         unsigned long* value) {
  return gpudb::vendor_id_from_device_id_string(s, text, value);
}
bool GpuMonitorVorn::getDeviceID_From_FullDeviceIDString(const char* s, char* text,
                                                         unsigned long* value) {
  return gpudb::device_id_from_device_id_string(s, text, value);
}
bool GpuMonitorVorn::getSubVendorID_From_FullDeviceIDString(const char* s, char* text,
                                                            unsigned long* value) {
  return gpudb::subvendor_id_from_device_id_string(s, text, value);
}
bool GpuMonitorVorn::getSubDeviceID_From_FullDeviceIDString(const char* s, char* text,
                                                            unsigned long* value) {
  return gpudb::subdevice_id_from_device_id_string(s, text, value);
}
unsigned int GpuMonitorVorn::gpu_db_get_index_from_device_id_string(const char* s, zev::GPU* gpu) {
  return gpudb::index_from_device_id_string(s, gpu);
}
