// Hosts read the GPU record by layout and call the monitor by slot. The
// layout below lists every field of zev::GPU in order as hosts expect it;
// offsets follow from it by the platform's alignment rules.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>
#include <string>

#include "plugin/gpu_monitor_vorn.h"

namespace {

// "name:TN": field `name` ("_" for a carried one) of N elements of type T:
// c char, i 4-byte int or float, q 8-byte int or pointer, T temperature,
// P power, B boost, K clock, V vec4.
const char kGpuLayout[] =
    "index:q vendor_id:q device_id:q subvendor_id:q subdevice_id:q revision_id:q "
    "revision_text:c16 name:c128 codename:c128 vbios_version:c128 architecture:c32 _:c128 "
    "marketing_name:c128 use_marketing_name:c1 bus_id:i _:i3 num_shader_cores:i "
    "db_num_shader_cores:i _:i2 num_texture_units:i num_rops:i db_num_rops:i tdp_w:i _:c2 _:i "
    "vram_size_mb:q vram_used_mb:q _:q _:i memory_bus_width:i _:i2 _:c192 _:q _:c512 "
    "driver_version:c128 "
    "driver_name:c128 _:c64 _:c64 driver_version_short:c64 _:c128 _:c128 _:q2 temperatures:T9 "
    "sensor_available:c5 core_usage:i3 memory_usage:i3 _:i6 power:P total_energy:i _:i3 boost:B "
    "_:i _:i fans:q num_fans:q core_clock:K memory_clock:K _:K color:V _:q nvml_device:q _:c1 "
    "_:i2 pci_bus_id:c64 _:c32 _:c1 rop_check_code:i _:c32 _:i _:c32 _:i _:c32 _:i6 "
    "num_multiprocessors:i _:i nvml_num_cores:i _:i cuda_compute_capability:i2 "
    "temperature_thresholds:i3 "
    "pcie_rx_throughput:i pcie_tx_throughput:i throttle_reasons:q throttle_reason_text:c128 "
    "nvml_gpu_utilization:i nvml_memory_utilization:i process_utilization:q "
    "num_process_utilization:i nvml_raw:i5 _:c5 _:i _:i _:i5 _:i9 _:i7 _:q _:c32 _:c128 "
    // AMD display-library block, then the Intel control-library block.
    "_:q _:i2 _:c256 _:c512 _:q _:c256 _:c320 _:i3 _:c192 _:c128 _:c192 _:c24 "
    "num_perf_levels:i perf_levels:q _:c1 monitorable:c1 nvidia_gpu_index:i drm_card_index:i "
    "drm_hwmon_index:i drm_temp_input_index:i _:i drm_power_index:i _:i rpi_usage_method:i "
    "v3d_last_timestamp:q v3d_last_runtime:q5";

struct Type {
  size_t size, align;
};

Type type_of(char code) {
  switch (code) {
    case 'c': return {1, 1};
    case 'i': return {4, 4};
    case 'q': return {8, 8};
    case 'T': return {12, 4};
    case 'P': return {56, 4};
    case 'B': return {24, 4};
    case 'K': return {28, 4};
    case 'V': return {16, 4};
    default: return {0, 1};
  }
}

// clang-format off
#define NAMED_FIELDS(X)                                                                         \
  X(index) X(vendor_id) X(device_id) X(subvendor_id) X(subdevice_id) X(revision_id)             \
  X(revision_text) X(name) X(codename) X(vbios_version) X(architecture) X(marketing_name)       \
  X(use_marketing_name) X(bus_id) X(num_shader_cores) X(db_num_shader_cores)                    \
  X(num_texture_units) X(num_rops) X(db_num_rops) X(tdp_w) X(vram_size_mb) X(vram_used_mb) X(memory_bus_width)  \
  X(driver_version) X(driver_name) X(driver_version_short) X(temperatures) X(sensor_available)  \
  X(core_usage) X(memory_usage) X(power) X(total_energy) X(boost) X(fans) X(num_fans)           \
  X(core_clock) X(memory_clock) X(color) X(nvml_device) X(pci_bus_id) X(rop_check_code)        \
  X(num_multiprocessors) X(nvml_num_cores) X(cuda_compute_capability)                           \
  X(temperature_thresholds) X(pcie_rx_throughput) X(pcie_tx_throughput) X(throttle_reasons)     \
  X(throttle_reason_text) X(nvml_gpu_utilization) X(nvml_memory_utilization)                    \
  X(process_utilization) X(num_process_utilization) X(nvml_raw) X(num_perf_levels)              \
  X(perf_levels) X(monitorable) X(nvidia_gpu_index) X(drm_card_index) X(drm_hwmon_index)        \
  X(drm_temp_input_index) X(drm_power_index) X(rpi_usage_method) X(v3d_last_timestamp)          \
  X(v3d_last_runtime)
#define OFFSET_OF(field) {#field, offsetof(zev::GPU, field)},
// clang-format on

TEST(GpuLayout, EveryFieldSitsWhereHostsReadIt) {
  std::map<std::string, size_t> actual = {NAMED_FIELDS(OFFSET_OF)};
  std::istringstream fields(kGpuLayout);
  size_t offset = 0, max_align = 1;
  for (std::string field; fields >> field;) {
    const size_t colon = field.find(':');
    const Type t = type_of(field[colon + 1]);
    ASSERT_NE(t.size, 0u) << field;
    const size_t count = colon + 2 < field.size() ? std::stoul(field.substr(colon + 2)) : 1;
    offset = (offset + t.align - 1) / t.align * t.align;
    const std::string name = field.substr(0, colon);
    if (name != "_") {
      ASSERT_EQ(actual.count(name), 1u) << name;
      EXPECT_EQ(actual[name], offset) << name;
      actual.erase(name);
    }
    offset += t.size * count;
    max_align = std::max(max_align, t.align);
  }
  EXPECT_TRUE(actual.empty()) << actual.begin()->first << " is not in the layout";
  EXPECT_EQ(sizeof(zev::GPU), (offset + max_align - 1) / max_align * max_align);
}

TEST(GpuLayout, SubRecordsHaveTheirWidths) {
  const std::pair<size_t, size_t> checks[] = {
      {sizeof(zev::gpuTemperature), 12},
      {sizeof(zev::gpuPower), 56},
      {sizeof(zev::gpuBoostv2), 24},
      {sizeof(zev::gpuClock), 28},
      {sizeof(zev::vec4), 16},
      {sizeof(zev::gpuFanSpeed), 24},
      {sizeof(zev::gpuPerformanceState), 20},
      {offsetof(zev::gpuPower, current), 8},
      {offsetof(zev::gpuPower, limit_min), 16},
      {offsetof(zev::gpuPower, limit_max), 24},
      {offsetof(zev::gpuPower, default_limit), 40},
      {offsetof(zev::gpuPower, enforced_limit), 44},
      {offsetof(zev::gpuPower, watts), 48},
      {offsetof(zev::gpuFanSpeed, rpm), 12},
      {offsetof(zev::gpuClock, reported_max_clock), 16},
      {offsetof(zev::gpuClock, max_clock), 24},
      {offsetof(zev::gpuProcessUtilization, process_name), 4},
      {offsetof(zev::gpuProcessUtilization, timestamp), 1288},
      {offsetof(zev::gpuProcessUtilization, mem_util), 1300},
      {sizeof(zev::gpuProcessUtilization), 1304}};
  for (size_t i = 0; i < sizeof checks / sizeof checks[0]; ++i)
    EXPECT_EQ(checks[i].first, checks[i].second) << "check " << i;
}

// For a virtual member function the Itanium ABI stores 1 + its byte offset in
// the virtual table in the member pointer; slots count from 1 with the two
// destructor entries first. -1 for a function that is not virtual.
template <typename F>
long slot_of(F member) {
  long words[2];
  static_assert(sizeof(F) == sizeof words, "Itanium member function pointer");
  std::memcpy(words, &member, sizeof words);
  return (words[0] & 1) == 0 ? -1 : (words[0] - 1) / static_cast<long>(sizeof(void*)) + 1;
}

// clang-format off
#define SLOT_ORDER(X)                                                                           \
  X(tracef) X(tracef_warning) X(tracef_error) X(tracef_debug) X(initialize) X(terminate)        \
  X(start) X(stop) X(update_dynamic_data) X(update_dynamic_data_rt) X(start_update_thread)      \
  X(stop_update_thread) X(graph2d_init) X(graph2d_cleanup) X(set_viewport) X(get_viewport)      \
  X(draw_gpu_info_simplified) X(draw_gpu_data_v1) X(draw_gpu_data_v2) X(draw_gpu_data_v3)       \
  X(draw_gpu_data_v4) X(draw_gpu_data_v5) X(draw_set_bkg_quad_color)                            \
  X(draw_set_bkg_quad_vertex_color) X(set_gpu_data_color) X(set_cpu_data_color)                 \
  X(get_num_gpus) X(get_gpu) X(get_gpu_name_from_device_id) X(reset_gpus_sensors)               \
  X(gpu_power_set_power_target) X(geforce_logo_is_illumination_supported)                       \
  X(geforce_logo_set_illumination) X(geforce_logo_get_illumination)                             \
  X(driver_settings_get_vsync_status) X(driver_settings_set_vsync_status) X(get_cpu_name)       \
  X(get_cpu_speed_mhz) X(get_cpu_mem_kb) X(get_physical_cpu_mem_mb)                             \
  X(get_available_cpu_mem_kb) X(get_cpu_logical_cores) X(get_cpu_physical_cores)                \
  X(get_os_name) X(opengl_get_vendor) X(opengl_get_renderer) X(opengl_get_version)              \
  X(opengl_get_version_major) X(opengl_get_version_minor) X(opengl_get_num_extensions)          \
  X(opengl_get_extension) X(opengl_init) X(opengl_get_capability_4i) X(rt_init) X(rt_cleanup)   \
  X(rt_connect) X(rt_disconnect) X(rt_read_gpu_data) X(rt_init_gpus_list) X(rt_get_num_gpus)    \
  X(rt_get_gpu_name) X(rt_get_gpu_core_temperature) X(rt_get_gpu_mem_temperature)               \
  X(rt_get_gpu_vrm_temperature) X(rt_get_gpu_core_usage) X(rt_get_gpu_mem_usage)               \
  X(rt_get_gpu_core_clock) X(rt_get_gpu_mem_clock) X(rt_get_gpu_power) X(rt_get_gpu_abs_power)  \
  X(rt_get_gpu_rel_power) X(rt_get_policy_limit_power) X(rt_get_policy_limit_temperature)       \
  X(rt_get_policy_limit_voltage) X(rt_get_policy_limit_overvoltage) X(rt_get_all_policy_limits) \
  X(rt_get_cpu_temperature_and_usage) X(nvml_get_num_gpus) X(nvml_get_gpu)                      \
  X(nvml_update_dynamic_data) X(nvml_update_power_usage) X(nvml_update_process_utilization)     \
  X(nvml_get_pcie_throughput) X(get_gpu_v2)
#define SLOT_OF(name) {#name, slot_of(&GpuMonitorVorn::name)},
// clang-format on

TEST(ClassSlots, OperationsSitInTheSlotsHostsCall) {
  const std::pair<const char*, long> slots[] = {SLOT_ORDER(SLOT_OF)};
  ASSERT_EQ(sizeof slots / sizeof slots[0], 84u);
  for (long i = 0; i < 84; ++i) EXPECT_EQ(slots[i].second, i + 3) << slots[i].first;
  EXPECT_EQ(slot_of(&GpuMonitorVorn::create_gpu), -1);
  EXPECT_EQ(slot_of(&GpuMonitorVorn::init_gpus_linux), -1);
  // The framework's two lifecycle flags follow the table pointer.
  GpuMonitorVorn monitor;
  const char* base = reinterpret_cast<const char*>(&monitor);
  EXPECT_EQ(reinterpret_cast<const char*>(&monitor.initialized) - base, 8);
  EXPECT_EQ(reinterpret_cast<const char*>(&monitor.started) - base, 9);
}

}  // namespace
