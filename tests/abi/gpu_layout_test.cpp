// The GPU record is read by hosts by layout. The table below lists every
// field in order with its width, as hosts expect it; offsets are computed
// from it with the platform's alignment rules and compared with the record.
#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "zev/gpu.h"

namespace {

struct Field {
  const char* name;  // "" for carried fields
  size_t size;       // of one element
  size_t align;
  size_t count;
};

constexpr size_t kTemperature = 12, kPower = 56, kBoost = 24, kClock = 28, kVec4 = 16;

const std::vector<Field>& field_table() {
  static const std::vector<Field> table = {
      {"index", 8, 8, 1},
      {"vendor_id", 8, 8, 1},
      {"device_id", 8, 8, 1},
      {"subvendor_id", 8, 8, 1},
      {"subdevice_id", 8, 8, 1},
      {"revision_id", 8, 8, 1},
      {"revision_text", 1, 1, 16},
      {"name", 1, 1, 128},
      {"codename", 1, 1, 128},
      {"vbios_version", 1, 1, 128},
      {"architecture", 1, 1, 32},
      {"", 1, 1, 128},
      {"marketing_name", 1, 1, 128},
      {"use_marketing_name", 1, 1, 1},
      {"bus_id", 4, 4, 1},
      {"", 4, 4, 3},
      {"num_shader_cores", 4, 4, 1},
      {"db_num_shader_cores", 4, 4, 1},
      {"", 4, 4, 2},
      {"num_texture_units", 4, 4, 1},
      {"num_rops", 4, 4, 1},
      {"db_num_rops", 4, 4, 1},
      {"tdp_w", 4, 4, 1},
      {"", 1, 1, 2},
      {"", 4, 4, 1},
      {"vram_size_mb", 8, 8, 1},
      {"", 8, 8, 2},
      {"", 4, 4, 1},
      {"memory_bus_width", 4, 4, 1},
      {"", 4, 4, 2},
      {"", 1, 1, 3 * 64},
      {"", 8, 8, 1},
      {"", 1, 1, 4 * 128},
      {"driver_version", 1, 1, 128},
      {"driver_name", 1, 1, 128},
      {"", 1, 1, 64},
      {"", 1, 1, 64},
      {"driver_version_short", 1, 1, 64},
      {"", 1, 1, 2 * 64},
      {"", 1, 1, 128},
      {"", 8, 8, 2},
      {"temperatures", kTemperature, 4, 9},
      {"sensor_available", 1, 1, 5},
      {"core_usage", 4, 4, 3},
      {"memory_usage", 4, 4, 3},
      {"", 4, 4, 6},
      {"power", kPower, 4, 1},
      {"total_energy", 4, 4, 1},
      {"", 4, 4, 3},
      {"boost", kBoost, 4, 1},
      {"", 4, 4, 1},
      {"", 4, 4, 1},
      {"fans", 8, 8, 1},
      {"num_fans", 8, 8, 1},
      {"core_clock", kClock, 4, 1},
      {"memory_clock", kClock, 4, 1},
      {"", kClock, 4, 1},
      {"color", kVec4, 4, 1},
      {"", 8, 8, 1},
      {"nvml_device", 8, 8, 1},
      {"", 1, 1, 1},
      {"", 4, 4, 2},
      {"", 1, 1, 64},
      {"", 1, 1, 32},
      {"", 1, 1, 1},
      {"rop_check_code", 4, 4, 1},
      {"", 1, 1, 32},
      {"", 4, 4, 1},
      {"", 1, 1, 32},
      {"", 4, 4, 1},
      {"", 1, 1, 32},
      {"", 4, 4, 6},
      {"num_multiprocessors", 4, 4, 1},
      {"", 4, 4, 1},
      {"nvml_num_cores", 4, 4, 1},
      {"", 4, 4, 1},
      {"cuda_compute_capability", 4, 4, 2},
      {"temperature_thresholds", 4, 4, 3},
      {"pcie_rx_throughput", 4, 4, 1},
      {"pcie_tx_throughput", 4, 4, 1},
      {"throttle_reasons", 8, 8, 1},
      {"throttle_reason_text", 1, 1, 128},
      {"nvml_gpu_utilization", 4, 4, 1},
      {"nvml_memory_utilization", 4, 4, 1},
      {"process_utilization", 8, 8, 1},
      {"num_process_utilization", 4, 4, 1},
      {"nvml_raw", 4, 4, 5},
      {"", 1, 1, 5},
      {"", 4, 4, 1},
      {"", 4, 4, 1},
      {"", 4, 4, 5},
      {"", 4, 4, 9},
      {"", 4, 4, 7},
      {"", 8, 8, 1},
      {"", 1, 1, 32},
      {"", 1, 1, 128},
      // AMD display-library block: handle, adapter index, overdrive version,
      // adapter id text, buffer.
      {"", 8, 8, 1},
      {"", 4, 4, 2},
      {"", 1, 1, 256},
      {"", 1, 1, 512},
      // Intel control-library block: handle, buffer.
      {"", 8, 8, 1},
      {"", 1, 1, 256},
      {"", 1, 1, 5 * 64},
      {"", 4, 4, 3},
      {"", 1, 1, 3 * 64},
      {"", 1, 1, 128},
      {"", 1, 1, 3 * 64},
      {"", 1, 1, 24},
      {"num_perf_levels", 4, 4, 1},
      {"perf_levels", 8, 8, 1},
      {"", 1, 1, 1},
      {"monitorable", 1, 1, 1},
      {"nvidia_gpu_index", 4, 4, 1},
      {"drm_card_index", 4, 4, 1},
      {"drm_hwmon_index", 4, 4, 1},
      {"drm_temp_input_index", 4, 4, 1},
      {"", 4, 4, 1},
      {"drm_power_index", 4, 4, 1},
      {"", 4, 4, 1},
      {"rpi_usage_method", 4, 4, 1},
      {"v3d_last_timestamp", 8, 8, 1},
      {"v3d_last_runtime", 8, 8, 5},
  };
  return table;
}

struct Layout {
  std::map<std::string, size_t> offsets;
  size_t size = 0;
};

Layout compute_layout() {
  Layout layout;
  size_t offset = 0, max_align = 1;
  for (const Field& f : field_table()) {
    offset = (offset + f.align - 1) / f.align * f.align;
    if (f.name[0] != '\0') layout.offsets[f.name] = offset;
    offset += f.size * f.count;
    max_align = std::max(max_align, f.align);
  }
  layout.size = (offset + max_align - 1) / max_align * max_align;
  return layout;
}

#define EXPECT_FIELD_AT(field) \
  EXPECT_EQ(offsetof(zev::GPU, field), layout.offsets.at(#field)) << #field

TEST(GpuLayout, NamedFieldsSitWhereTheFieldTablePutsThem) {
  const Layout layout = compute_layout();
  EXPECT_FIELD_AT(index);
  EXPECT_FIELD_AT(vendor_id);
  EXPECT_FIELD_AT(device_id);
  EXPECT_FIELD_AT(subvendor_id);
  EXPECT_FIELD_AT(subdevice_id);
  EXPECT_FIELD_AT(revision_id);
  EXPECT_FIELD_AT(revision_text);
  EXPECT_FIELD_AT(name);
  EXPECT_FIELD_AT(codename);
  EXPECT_FIELD_AT(vbios_version);
  EXPECT_FIELD_AT(architecture);
  EXPECT_FIELD_AT(marketing_name);
  EXPECT_FIELD_AT(use_marketing_name);
  EXPECT_FIELD_AT(bus_id);
  EXPECT_FIELD_AT(num_shader_cores);
  EXPECT_FIELD_AT(db_num_shader_cores);
  EXPECT_FIELD_AT(num_texture_units);
  EXPECT_FIELD_AT(num_rops);
  EXPECT_FIELD_AT(db_num_rops);
  EXPECT_FIELD_AT(tdp_w);
  EXPECT_FIELD_AT(vram_size_mb);
  EXPECT_FIELD_AT(memory_bus_width);
  EXPECT_FIELD_AT(driver_version);
  EXPECT_FIELD_AT(driver_name);
  EXPECT_FIELD_AT(driver_version_short);
  EXPECT_FIELD_AT(temperatures);
  EXPECT_FIELD_AT(sensor_available);
  EXPECT_FIELD_AT(core_usage);
  EXPECT_FIELD_AT(memory_usage);
  EXPECT_FIELD_AT(power);
  EXPECT_FIELD_AT(total_energy);
  EXPECT_FIELD_AT(boost);
  EXPECT_FIELD_AT(fans);
  EXPECT_FIELD_AT(num_fans);
  EXPECT_FIELD_AT(core_clock);
  EXPECT_FIELD_AT(memory_clock);
  EXPECT_FIELD_AT(color);
  EXPECT_FIELD_AT(nvml_device);
  EXPECT_FIELD_AT(rop_check_code);
  EXPECT_FIELD_AT(num_multiprocessors);
  EXPECT_FIELD_AT(nvml_num_cores);
  EXPECT_FIELD_AT(cuda_compute_capability);
  EXPECT_FIELD_AT(temperature_thresholds);
  EXPECT_FIELD_AT(pcie_rx_throughput);
  EXPECT_FIELD_AT(pcie_tx_throughput);
  EXPECT_FIELD_AT(throttle_reasons);
  EXPECT_FIELD_AT(throttle_reason_text);
  EXPECT_FIELD_AT(nvml_gpu_utilization);
  EXPECT_FIELD_AT(nvml_memory_utilization);
  EXPECT_FIELD_AT(process_utilization);
  EXPECT_FIELD_AT(num_process_utilization);
  EXPECT_FIELD_AT(nvml_raw);
  EXPECT_FIELD_AT(num_perf_levels);
  EXPECT_FIELD_AT(perf_levels);
  EXPECT_FIELD_AT(monitorable);
  EXPECT_FIELD_AT(nvidia_gpu_index);
  EXPECT_FIELD_AT(drm_card_index);
  EXPECT_FIELD_AT(drm_hwmon_index);
  EXPECT_FIELD_AT(drm_temp_input_index);
  EXPECT_FIELD_AT(drm_power_index);
  EXPECT_FIELD_AT(rpi_usage_method);
  EXPECT_FIELD_AT(v3d_last_timestamp);
  EXPECT_FIELD_AT(v3d_last_runtime);
  EXPECT_EQ(sizeof(zev::GPU), layout.size);
}

TEST(GpuLayout, SubRecordsHaveTheirWidths) {
  EXPECT_EQ(sizeof(zev::gpuTemperature), kTemperature);
  EXPECT_EQ(sizeof(zev::gpuPower), kPower);
  EXPECT_EQ(sizeof(zev::gpuBoostv2), kBoost);
  EXPECT_EQ(sizeof(zev::gpuClock), kClock);
  EXPECT_EQ(sizeof(zev::vec4), kVec4);
  EXPECT_EQ(sizeof(zev::gpuFanSpeed), 6 * sizeof(float));
  EXPECT_EQ(sizeof(zev::gpuPerformanceState), 5 * 4u);
  EXPECT_EQ(offsetof(zev::gpuPower, current), 2 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuPower, limit_min), 4 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuPower, limit_max), 6 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuPower, default_limit), 10 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuPower, enforced_limit), 11 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuPower, watts), 12 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuFanSpeed, rpm), 3 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuClock, reported_max_clock), 4 * sizeof(float));
  EXPECT_EQ(offsetof(zev::gpuClock, max_clock), 6 * sizeof(float));
  // pid, name, time stamp (8-aligned), SM and memory utilization.
  EXPECT_EQ(offsetof(zev::gpuProcessUtilization, process_name), 4u);
  EXPECT_EQ(offsetof(zev::gpuProcessUtilization, timestamp), 1288u);
  EXPECT_EQ(offsetof(zev::gpuProcessUtilization, mem_util), 1300u);
  EXPECT_EQ(sizeof(zev::gpuProcessUtilization), 1304u);
}

}  // namespace
