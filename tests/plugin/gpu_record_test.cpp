// The GPU record: defaults, running minimum and maximum, sensor reset.
#include <gtest/gtest.h>

#include <cmath>

#include "zev/gpu.h"

namespace {

TEST(GpuRecord, NewRecordKnowsNothing) {
  zev::GPU gpu;
  for (const zev::gpuTemperature& t : gpu.temperatures) {
    EXPECT_EQ(t.current, -1.0f);
    EXPECT_EQ(t.min, -1.0f);
    EXPECT_EQ(t.max, -1.0f);
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(gpu.core_usage[i], -1.0f);
    EXPECT_EQ(gpu.memory_usage[i], -1.0f);
  }
  EXPECT_EQ(gpu.core_clock.current, -1.0f);
  EXPECT_EQ(gpu.core_clock.max_clock, -1.0f);
  EXPECT_EQ(gpu.memory_clock.reported_max_clock, -1.0f);
  EXPECT_EQ(gpu.power.current, -1.0f);
  EXPECT_EQ(gpu.power.watts, -1.0f);
  EXPECT_EQ(gpu.total_energy, 0.0f);
  EXPECT_EQ(gpu.bus_id, -1);
  EXPECT_EQ(gpu.nvidia_gpu_index, -1);
  EXPECT_EQ(gpu.drm_card_index, -1);
  EXPECT_EQ(gpu.drm_hwmon_index, -1);
  EXPECT_EQ(gpu.drm_temp_input_index, -1);
  EXPECT_EQ(gpu.drm_power_index, -1);
  EXPECT_EQ(gpu.rop_check_code, -1);
  EXPECT_EQ(gpu.nvml_gpu_utilization, -1);
  EXPECT_EQ(gpu.nvml_memory_utilization, -1);
  for (int32_t raw : gpu.nvml_raw) EXPECT_EQ(raw, -1);
  EXPECT_EQ(gpu.fans, nullptr);
  EXPECT_EQ(gpu.num_fans, 0u);
  EXPECT_EQ(gpu.nvml_device, nullptr);
  EXPECT_FALSE(gpu.monitorable);
  EXPECT_FALSE(gpu.use_marketing_name);
  EXPECT_STREQ(gpu.name, "");
  EXPECT_STREQ(gpu.marketing_name, "");
  EXPECT_EQ(gpu.color.x, 0.0f);
  EXPECT_EQ(gpu.color.y, 1.0f);
  EXPECT_EQ(gpu.color.z, 0.0f);
  EXPECT_EQ(gpu.color.w, 1.0f);
  // Carried fields with defaults of their own.
  EXPECT_EQ(gpu.gpu_kind, 2u);
  EXPECT_EQ(gpu.carried_u32_3, 2u);
  EXPECT_EQ(gpu.carried_u64_1, 1000u);
  EXPECT_TRUE(gpu.carried_bool_true);
  EXPECT_EQ(gpu.carried_f32_2[4], -1000.0f);
}

TEST(GpuRecord, SubRecordDefaults) {
  zev::gpuFanSpeed fan;
  EXPECT_EQ(fan.speed_percent, -1.0f);
  EXPECT_EQ(fan.rpm, -1.0f);
  zev::gpuPerformanceState state;
  EXPECT_EQ(state.state, 0u);
  EXPECT_EQ(state.core_clock, -1.0f);
  EXPECT_EQ(state.reserved, 0.0f);
  zev::gpuProcessUtilization process;
  EXPECT_EQ(process.pid, 0u);
  EXPECT_EQ(process.process_name[0], '\0');
  EXPECT_EQ(process.process_name[1279], '\0');
  zev::gpuBoostv2 boost;
  for (uint32_t v : boost.values) EXPECT_EQ(v, 0u);
}

TEST(GpuRecord, TemperatureKeepsARunningMinimumAndMaximum) {
  zev::gpuTemperature t;
  t.current = 40.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, 40.0f);
  EXPECT_EQ(t.max, 40.0f);
  t.current = 35.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, 35.0f);
  EXPECT_EQ(t.max, 40.0f);
  t.current = 50.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, 35.0f);
  EXPECT_EQ(t.max, 50.0f);
}

TEST(GpuRecord, TheUnknownValueIsASentinelNotAReading) {
  zev::gpuTemperature t;
  t.current = -1.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, -1.0f);
  EXPECT_EQ(t.max, -1.0f);
  t.current = 42.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, 42.0f) << "-1 must be replaced by the first real reading";
  EXPECT_EQ(t.max, 42.0f);
  // A negative reading other than the sentinel is a reading.
  t.current = -5.0f;
  t.update_min_max();
  EXPECT_EQ(t.min, -5.0f);
  // NaN is not the sentinel: it replaces nothing.
  t.current = std::nanf("");
  t.update_min_max();
  EXPECT_EQ(t.min, -5.0f);
  EXPECT_EQ(t.max, 42.0f);
}

TEST(GpuRecord, PowerMaximaDuringATest) {
  zev::gpuPower p;
  p.value = 120.0f;
  p.watts = 0.12f;
  p.update_max_in_test();
  EXPECT_EQ(p.value_max_in_test, 120.0f);
  EXPECT_EQ(p.watts_max_in_test, 0.12f);
  p.value = 90.0f;
  p.watts = 0.3f;
  p.update_max_in_test();
  EXPECT_EQ(p.value_max_in_test, 120.0f);
  EXPECT_EQ(p.watts_max_in_test, 0.3f);
  p.reset();
  EXPECT_EQ(p.value_max_in_test, -1.0f);
  EXPECT_EQ(p.watts, -1.0f);
}

TEST(GpuRecord, UsageMaximaOnly) {
  zev::GPU gpu;
  gpu.core_usage[0] = 30.0f;
  gpu.memory_usage[0] = 10.0f;
  gpu.update_usages_max();
  EXPECT_EQ(gpu.core_usage[2], 30.0f);
  EXPECT_EQ(gpu.memory_usage[2], 10.0f);
  gpu.core_usage[0] = 20.0f;
  gpu.memory_usage[0] = 60.0f;
  gpu.update_usages_max();
  EXPECT_EQ(gpu.core_usage[2], 30.0f);
  EXPECT_EQ(gpu.memory_usage[2], 60.0f);
  EXPECT_EQ(gpu.core_usage[1], -1.0f) << "the minimum is left alone";
}

TEST(GpuRecord, ResetForgetsReadingsWithItsDesignedAsymmetries) {
  zev::GPU gpu;
  gpu.vendor_id = 0x10DE;
  gpu.device_id = 0x2684;
  gpu.bus_id = 1;
  gpu.drm_card_index = 1;
  gpu.nvidia_gpu_index = 0;
  gpu.num_fans = 2;
  gpu.fans = new zev::gpuFanSpeed[2];
  gpu.fans[0].speed_percent = 30.0f;
  gpu.fans[1].rpm = 1500.0f;
  gpu.fans[1].reserved1 = 9.0f;
  gpu.core_usage[0] = gpu.core_usage[1] = gpu.core_usage[2] = 50.0f;
  gpu.memory_usage[0] = 20.0f;
  gpu.carried_usage[0][0] = gpu.carried_usage[0][1] = 5.0f;
  gpu.carried_usage[1][0] = gpu.carried_usage[1][1] = 6.0f;
  gpu.core_clock.current = 2500.0f;
  gpu.core_clock.max_clock = 2600.0f;
  gpu.temperatures[0].current = 60.0f;
  gpu.temperatures[8].max = 70.0f;
  gpu.power.watts = 300.0f;
  gpu.total_energy = 12345.0f;
  gpu.nvml_gpu_utilization = 80;
  gpu.nvml_memory_utilization = 40;
  for (int i = 0; i < 5; ++i) gpu.nvml_raw[i] = 100 + i;

  gpu.reset_sensors();

  EXPECT_EQ(gpu.core_usage[0], -1.0f);
  EXPECT_EQ(gpu.core_usage[2], -1.0f);
  EXPECT_EQ(gpu.memory_usage[0], -1.0f);
  EXPECT_EQ(gpu.carried_usage[0][0], -1.0f);
  EXPECT_EQ(gpu.carried_usage[0][1], 5.0f) << "only the first value of the third triple";
  EXPECT_EQ(gpu.carried_usage[1][0], -1.0f);
  EXPECT_EQ(gpu.carried_usage[1][1], 6.0f) << "only the first value of the fourth triple";
  EXPECT_EQ(gpu.core_clock.current, -1.0f);
  EXPECT_EQ(gpu.core_clock.max_clock, 2600.0f);
  EXPECT_EQ(gpu.temperatures[0].current, -1.0f);
  EXPECT_EQ(gpu.temperatures[8].max, -1.0f);
  EXPECT_EQ(gpu.power.watts, -1.0f);
  EXPECT_EQ(gpu.total_energy, 0.0f);
  // NVML utilization goes to 0, not to the -1 of a new record.
  EXPECT_EQ(gpu.nvml_gpu_utilization, 0);
  EXPECT_EQ(gpu.nvml_memory_utilization, 0);
  EXPECT_EQ(gpu.nvml_raw[0], 100) << "the raw fan value is kept";
  for (int i = 1; i < 5; ++i) EXPECT_EQ(gpu.nvml_raw[i], 0);
  // Fans are forgotten, the array is kept.
  ASSERT_EQ(gpu.num_fans, 2u);
  EXPECT_EQ(gpu.fans[0].speed_percent, -1.0f);
  EXPECT_EQ(gpu.fans[1].rpm, -1.0f);
  EXPECT_EQ(gpu.fans[1].reserved1, 9.0f);
  // Identity, handles and indices stay.
  EXPECT_EQ(gpu.vendor_id, 0x10DEu);
  EXPECT_EQ(gpu.bus_id, 1);
  EXPECT_EQ(gpu.drm_card_index, 1);
  EXPECT_EQ(gpu.nvidia_gpu_index, 0);
  delete[] gpu.fans;
}

}  // namespace
