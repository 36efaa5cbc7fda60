// The monitor class declares its operations in the slot order hosts call.
// For a virtual member function the Itanium ABI stores 1 + its byte offset
// in the virtual table in the member pointer, which gives its slot.
#include <gtest/gtest.h>

#include <cstring>

#include "plugin/gpu_monitor_vorn.h"

namespace {

template <typename F>
long slot_of(F member) {
  static_assert(sizeof(F) == 2 * sizeof(long), "Itanium member function pointer");
  long words[2];
  std::memcpy(words, &member, sizeof words);
  if ((words[0] & 1) == 0) return -1;  // not virtual
  // Slots count from 1 with the two destructor entries first.
  return (words[0] - 1) / static_cast<long>(sizeof(void*)) + 1;
}

#define SLOT(n, name) \
  { n, #name, slot_of(&GpuMonitorVorn::name) }

struct Expected {
  long slot;
  const char* name;
  long actual;
};

TEST(ClassSlots, EveryOperationSitsInItsSlot) {
  const Expected table[] = {
      SLOT(3, tracef),
      SLOT(4, tracef_warning),
      SLOT(5, tracef_error),
      SLOT(6, tracef_debug),
      SLOT(7, initialize),
      SLOT(8, terminate),
      SLOT(9, start),
      SLOT(10, stop),
      SLOT(11, update_dynamic_data),
      SLOT(12, update_dynamic_data_rt),
      SLOT(13, start_update_thread),
      SLOT(14, stop_update_thread),
      SLOT(15, graph2d_init),
      SLOT(16, graph2d_cleanup),
      SLOT(17, set_viewport),
      SLOT(18, get_viewport),
      SLOT(19, draw_gpu_info_simplified),
      SLOT(20, draw_gpu_data_v1),
      SLOT(21, draw_gpu_data_v2),
      SLOT(22, draw_gpu_data_v3),
      SLOT(23, draw_gpu_data_v4),
      SLOT(24, draw_gpu_data_v5),
      SLOT(25, draw_set_bkg_quad_color),
      SLOT(26, draw_set_bkg_quad_vertex_color),
      SLOT(27, set_gpu_data_color),
      SLOT(28, set_cpu_data_color),
      SLOT(29, get_num_gpus),
      SLOT(30, get_gpu),
      SLOT(31, get_gpu_name_from_device_id),
      SLOT(32, reset_gpus_sensors),
      SLOT(33, gpu_power_set_power_target),
      SLOT(34, geforce_logo_is_illumination_supported),
      SLOT(35, geforce_logo_set_illumination),
      SLOT(36, geforce_logo_get_illumination),
      SLOT(37, driver_settings_get_vsync_status),
      SLOT(38, driver_settings_set_vsync_status),
      SLOT(39, get_cpu_name),
      SLOT(40, get_cpu_speed_mhz),
      SLOT(41, get_cpu_mem_kb),
      SLOT(42, get_physical_cpu_mem_mb),
      SLOT(43, get_available_cpu_mem_kb),
      SLOT(44, get_cpu_logical_cores),
      SLOT(45, get_cpu_physical_cores),
      SLOT(46, get_os_name),
      SLOT(47, opengl_get_vendor),
      SLOT(48, opengl_get_renderer),
      SLOT(49, opengl_get_version),
      SLOT(50, opengl_get_version_major),
      SLOT(51, opengl_get_version_minor),
      SLOT(52, opengl_get_num_extensions),
      SLOT(53, opengl_get_extension),
      SLOT(54, opengl_init),
      SLOT(55, opengl_get_capability_4i),
      SLOT(56, rt_init),
      SLOT(57, rt_cleanup),
      SLOT(58, rt_connect),
      SLOT(59, rt_disconnect),
      SLOT(60, rt_read_gpu_data),
      SLOT(61, rt_init_gpus_list),
      SLOT(62, rt_get_num_gpus),
      SLOT(63, rt_get_gpu_name),
      SLOT(64, rt_get_gpu_core_temperature),
      SLOT(65, rt_get_gpu_mem_temperature),
      SLOT(66, rt_get_gpu_vrm_temperature),
      SLOT(67, rt_get_gpu_core_usage),
      SLOT(68, rt_get_gpu_mem_usage),
      SLOT(69, rt_get_gpu_core_clock),
      SLOT(70, rt_get_gpu_mem_clock),
      SLOT(71, rt_get_gpu_power),
      SLOT(72, rt_get_gpu_abs_power),
      SLOT(73, rt_get_gpu_rel_power),
      SLOT(74, rt_get_policy_limit_power),
      SLOT(75, rt_get_policy_limit_temperature),
      SLOT(76, rt_get_policy_limit_voltage),
      SLOT(77, rt_get_policy_limit_overvoltage),
      SLOT(78, rt_get_all_policy_limits),
      SLOT(79, rt_get_cpu_temperature_and_usage),
      SLOT(80, nvml_get_num_gpus),
      SLOT(81, nvml_get_gpu),
      SLOT(82, nvml_update_dynamic_data),
      SLOT(83, nvml_update_power_usage),
      SLOT(84, nvml_update_process_utilization),
      SLOT(85, nvml_get_pcie_throughput),
      SLOT(86, get_gpu_v2),
  };
  for (const Expected& e : table) EXPECT_EQ(e.actual, e.slot) << e.name;
}

TEST(ClassSlots, InternalOperationsAreNotInTheTable) {
  EXPECT_EQ(slot_of(&GpuMonitorVorn::create_gpu), -1);
  EXPECT_EQ(slot_of(&GpuMonitorVorn::sort_gpus_by_bus_id), -1);
  EXPECT_EQ(slot_of(&GpuMonitorVorn::init_gpus_linux), -1);
  EXPECT_EQ(slot_of(&GpuMonitorVorn::_init_system_info), -1);
}

TEST(ClassSlots, LifecycleFlagsLeadThePluginBase) {
  GpuMonitorVorn monitor;
  const unsigned char* base = reinterpret_cast<const unsigned char*>(&monitor);
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(&monitor.initialized) - base, 8);
  EXPECT_EQ(reinterpret_cast<const unsigned char*>(&monitor.started) - base, 9);
}

}  // namespace
