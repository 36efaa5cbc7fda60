// zev::GPU: the record that describes one graphics adapter, and its
// sub-records. Hosts read these records by layout: the order and width of
// every field below, the carried ones included, is part of the interface.
// Sensor values are floats; -1.0 means "not read yet".
#pragma once

#include <cstdint>

#include "zev/math.h"

namespace zev {

class gpuTemperature {
 public:
  float current, min, max;  // degrees Celsius

  gpuTemperature() { reset(); }
  void reset();
  void update_min_max();
};

class gpuPower {
 public:
  float value;              // 0: a power reading
  float value_max_in_test;  // 1: its maximum during a test
  float current;            // 2: power as returned to callers (unit depends on the back-end)
  float reserved3;          // 3
  float limit_min;          // 4: NVML limit constraint
  float reserved5;          // 5
  float limit_max;          // 6: NVML limit constraint
  float reserved7;          // 7
  float reserved8;          // 8
  float reserved9;          // 9
  float default_limit;      // 10
  float enforced_limit;     // 11
  float watts;              // 12: power in watts on every path
  float watts_max_in_test;  // 13: maximum of watts during a test

  gpuPower() { reset(); }
  void reset();
  void update_max_in_test();
};

class gpuFanSpeed {
 public:
  float speed_percent;  // 0
  float reserved1;      // 1
  float reserved2;      // 2
  float rpm;            // 3: speed as read
  float reserved4;      // 4
  float reserved5;      // 5

  gpuFanSpeed();
};

class gpuBoostv2 {
 public:
  uint32_t values[6];

  gpuBoostv2();
};

class gpuPerformanceState {
 public:
  uint32_t state;
  float core_clock;
  float memory_clock;
  float voltage;
  float reserved;

  gpuPerformanceState();
};

class gpuProcessUtilization {
 public:
  uint32_t pid;
  char process_name[1280];
  uint64_t timestamp;  // microseconds
  uint32_t sm_util;
  uint32_t mem_util;

  gpuProcessUtilization();
};

class gpuClock {
 public:
  float current, min, max;  // MHz
  float reserved3;
  float reported_max_clock;
  int32_t reserved5;
  float max_clock;

  gpuClock();
};

class GPU {
 public:
  GPU();
  GPU(const GPU&) = delete;
  GPU& operator=(const GPU&) = delete;

  // Forgets readings, keeping identity, handles and back-end indices.
  void reset_sensors();
  // Keeps the maximum of core_usage and memory_usage (maximum only).
  void update_usages_max();

  // Identity.
  uint64_t index;  // list slot at insertion; not renumbered by sorting
  uint64_t vendor_id;
  uint64_t device_id;
  uint64_t subvendor_id;
  uint64_t subdevice_id;
  uint64_t revision_id;
  char revision_text[16];
  char name[128];
  char codename[128];
  char vbios_version[128];
  char architecture[32];
  char carried_text0[128];
  char marketing_name[128];
  bool use_marketing_name;
  int32_t bus_id;  // -1 unknown; 1000 and above: placeholder keeping discovery order
  int32_t carried_i32_0[3];
  uint32_t num_shader_cores;
  uint32_t db_num_shader_cores;
  uint32_t carried_u32_0[2];
  uint32_t num_texture_units;
  uint32_t num_rops;
  uint32_t db_num_rops;
  uint32_t tdp_w;
  uint8_t carried_u8_0[2];
  uint32_t carried_u32_1;
  int64_t vram_size_mb;  // video memory, MiB (0: unknown)
  // Video memory in use, MiB; -1 unknown. It takes the first of two carried
  // 8-byte fields, which held 0 and which no host reads, so the layout and
  // every other field's offset are unchanged. Refreshed with the sensors.
  int64_t vram_used_mb;
  uint64_t carried_u64_0;
  uint32_t carried_u32_2;
  uint32_t memory_bus_width;
  uint32_t gpu_kind;       // carried; 2 unless a back-end says otherwise
  uint32_t carried_u32_3;  // carried; defaults to 2
  char carried_text1[3][64];
  uint64_t carried_u64_1;  // carried; defaults to 1000
  char carried_text2[4][128];
  char driver_version[128];
  char driver_name[128];
  char identifier[64];  // carried identifier text
  char carried_text3[64];
  char driver_version_short[64];
  char carried_text4[2][64];
  char carried_text5[128];
  uint64_t carried_u64_2[2];

  // Sensors.
  gpuTemperature temperatures[9];  // 0 core, 2 memory
  uint8_t sensor_available[5];     // 0 temperature, 2 usage, 3 fan, 4 power
  float core_usage[3];             // percent: current, min, max
  float memory_usage[3];
  float carried_usage[2][3];
  gpuPower power;
  float total_energy;
  float carried_f32_0[3];
  gpuBoostv2 boost;
  float carried_f32_1;
  uint32_t carried_u32_4;
  gpuFanSpeed* fans;  // owned, num_fans records
  uint64_t num_fans;
  gpuClock core_clock;
  gpuClock memory_clock;
  gpuClock carried_clock;
  vec4 color;  // drawing colour of the overlay graphs
  uint64_t carried_u64_3;

  // NVIDIA.
  void* nvml_device;
  uint8_t carried_u8_1;
  uint32_t carried_u32_5[2];
  // PCI address as NVML gives it ("0000:18:00.0"); empty for GPUs found
  // otherwise. It takes a carried text, which held "" and which no host
  // reads, so the layout is unchanged. Written by NVML discovery.
  char pci_bus_id[64];
  char carried_text7[32];
  bool carried_bool_true;  // carried; defaults to true
  int32_t rop_check_code;
  char carried_text8[32];
  int32_t carried_i32_1;
  char carried_text9[32];
  int32_t carried_i32_2;
  char carried_text10[32];
  uint32_t carried_u32_6[6];
  uint32_t num_multiprocessors;
  uint32_t carried_u32_7;
  uint32_t nvml_num_cores;
  uint32_t carried_u32_8;
  int32_t cuda_compute_capability[2];
  int32_t temperature_thresholds[3];  // shutdown, slowdown, GPU maximum
  uint32_t pcie_rx_throughput;        // KB/s, read on demand (NVML); 0xFFFFFFFF: not readable
  uint32_t pcie_tx_throughput;
  uint64_t throttle_reasons;
  char throttle_reason_text[128];
  int32_t nvml_gpu_utilization;
  int32_t nvml_memory_utilization;
  gpuProcessUtilization* process_utilization;  // owned
  uint32_t num_process_utilization;
  int32_t nvml_raw[5];  // fan percent, temperature, graphics clock, memory clock, power mW

  // Carried for other platforms' back-ends.
  uint8_t carried_u8_2[5];
  int32_t carried_i32_3;
  uint32_t carried_u32_9;
  float carried_f32_2[5];  // 0.0 x4, -1000.0
  float carried_f32_3[9];  // -1.0, also reset by reset_sensors
  int32_t carried_i32_4[7];
  int64_t carried_i64_0;
  char carried_text11[32];
  char carried_text12[128];

  // AMD display-library back-end (not reached on Linux).
  void* adl_context;
  int32_t adl_adapter_index;
  int32_t adl_overdrive_version;
  char adl_udid[256];
  uint8_t adl_buffer[512];

  // Intel control-library back-end (not reached on Linux).
  void* igcl_device;
  uint8_t igcl_buffer[256];

  char carried_text13[5][64];
  uint32_t carried_u32_10[3];
  char carried_text14[3][64];
  char carried_text15[128];
  char carried_text16[3][64];
  uint8_t carried_u8_3[24];
  uint32_t num_perf_levels;
  gpuPerformanceState* perf_levels;  // owned
  bool carried_bool_0;

  // Back-end routing.
  bool monitorable;  // at least one sensor can be read
  int32_t nvidia_gpu_index;
  int32_t drm_card_index;
  int32_t drm_hwmon_index;
  int32_t drm_temp_input_index;
  int32_t carried_i32_5;
  int32_t drm_power_index;
  float carried_f32_4;
  uint32_t rpi_usage_method;
  uint64_t v3d_last_timestamp;
  uint64_t v3d_last_runtime[5];
};

}  // namespace zev
