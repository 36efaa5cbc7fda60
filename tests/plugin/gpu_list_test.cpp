// The GPU record (defaults, running minimum and maximum, sensor reset) and the
// two fixed-capacity GPU lists (insertion, ownership, sort, lookups).
#include <gtest/gtest.h>

#include <cmath>

#include "plugin/gpu_monitor_vorn.h"

namespace {

TEST(GpuRecord, NewRecordKnowsNothing) {
  zev::GPU g;
  const float unknown_floats[] = {
      g.temperatures[0].current, g.temperatures[8].min,  g.temperatures[8].max,
      g.core_usage[0],           g.core_usage[2],        g.memory_usage[1],
      g.core_clock.current,      g.core_clock.max_clock, g.memory_clock.reported_max_clock,
      g.power.current,           g.power.watts,          g.power.enforced_limit};
  for (float v : unknown_floats) EXPECT_EQ(v, -1.0f);
  const int32_t unknown_ints[] = {g.bus_id,          g.nvidia_gpu_index,     g.drm_card_index,
                                  g.drm_hwmon_index, g.drm_temp_input_index, g.drm_power_index,
                                  g.rop_check_code,  g.nvml_gpu_utilization, g.nvml_raw[0],
                                  g.nvml_raw[4]};
  for (int32_t v : unknown_ints) EXPECT_EQ(v, -1);
  EXPECT_EQ(g.total_energy, 0.0f);
  EXPECT_EQ(g.fans, nullptr);
  EXPECT_EQ(g.nvml_device, nullptr);
  EXPECT_FALSE(g.monitorable || g.use_marketing_name);
  EXPECT_STREQ(g.name, "");
  EXPECT_EQ(std::make_tuple(g.color.x, g.color.y, g.color.z, g.color.w),
            std::make_tuple(0.0f, 1.0f, 0.0f, 1.0f));
  EXPECT_EQ(g.gpu_kind, 2u);
  zev::gpuFanSpeed fan;
  EXPECT_EQ(fan.speed_percent + fan.rpm, -2.0f);
  zev::gpuProcessUtilization process;
  EXPECT_EQ(process.process_name[1279], '\0');
}

// Readings fed one after the other to a temperature, with the minimum and
// maximum expected after each. -1 is the "unknown" sentinel, not a reading;
// NaN replaces nothing.
TEST(GpuRecord, TemperatureKeepsARunningMinimumAndMaximum) {
  struct Step {
    float reading, min, max;
  };
  const Step steps[] = {{-1.0f, -1.0f, -1.0f}, {40.0f, 40.0f, 40.0f},
                        {35.0f, 35.0f, 40.0f}, {50.0f, 35.0f, 50.0f},
                        {-5.0f, -5.0f, 50.0f}, {std::nanf(""), -5.0f, 50.0f}};
  zev::gpuTemperature t;
  for (const Step& s : steps) {
    t.current = s.reading;
    t.update_min_max();
    EXPECT_EQ(t.min, s.min) << "after " << s.reading;
    EXPECT_EQ(t.max, s.max) << "after " << s.reading;
  }
}

TEST(GpuRecord, PowerAndUsageMaxima) {
  zev::gpuPower p;
  const float steps[][4] = {{120.0f, 0.12f, 120.0f, 0.12f}, {90.0f, 0.3f, 120.0f, 0.3f}};
  for (const auto& s : steps) {
    p.value = s[0];
    p.watts = s[1];
    p.update_max_in_test();
    EXPECT_EQ(p.value_max_in_test, s[2]);
    EXPECT_EQ(p.watts_max_in_test, s[3]);
  }
  p.reset();
  const float* slots = &p.value;
  for (int i = 0; i < 14; ++i) EXPECT_EQ(slots[i], -1.0f) << "power slot " << i;

  zev::GPU gpu;
  const float usages[][4] = {{30.0f, 10.0f, 30.0f, 10.0f}, {20.0f, 60.0f, 30.0f, 60.0f}};
  for (const auto& u : usages) {
    gpu.core_usage[0] = u[0];
    gpu.memory_usage[0] = u[1];
    gpu.update_usages_max();
    EXPECT_EQ(gpu.core_usage[2], u[2]);
    EXPECT_EQ(gpu.memory_usage[2], u[3]);
  }
  EXPECT_EQ(gpu.core_usage[1], -1.0f) << "the minimum is left alone";
}

TEST(GpuRecord, ResetForgetsReadingsWithItsDesignedAsymmetries) {
  zev::GPU gpu;
  gpu.device_id = 0x2684;
  gpu.bus_id = 1;
  gpu.drm_card_index = 1;
  gpu.num_fans = 2;
  gpu.fans = new zev::gpuFanSpeed[2];
  gpu.fans[0].speed_percent = 30.0f;
  gpu.fans[1].rpm = 1500.0f;
  gpu.core_usage[2] = 50.0f;
  gpu.carried_usage[0][0] = gpu.carried_usage[0][1] = 5.0f;
  gpu.core_clock.current = 2500.0f;
  gpu.core_clock.max_clock = 2600.0f;
  gpu.temperatures[8].max = 70.0f;
  gpu.total_energy = 12345.0f;
  gpu.nvml_gpu_utilization = 80;
  for (int i = 0; i < 5; ++i) gpu.nvml_raw[i] = 100 + i;

  gpu.reset_sensors();

  const float forgotten[] = {gpu.core_usage[2],         gpu.carried_usage[0][0],
                             gpu.core_clock.current,    gpu.temperatures[8].max,
                             gpu.fans[0].speed_percent, gpu.fans[1].rpm};
  for (float v : forgotten) EXPECT_EQ(v, -1.0f);
  EXPECT_EQ(gpu.carried_usage[0][1], 5.0f) << "only the first value of the third triple";
  EXPECT_EQ(gpu.core_clock.max_clock, 2600.0f);
  EXPECT_EQ(gpu.total_energy, 0.0f);
  EXPECT_EQ(gpu.nvml_gpu_utilization, 0) << "0, not the -1 of a new record";
  EXPECT_EQ(gpu.nvml_raw[0], 100) << "the raw fan value is kept";
  for (int i = 1; i < 5; ++i) EXPECT_EQ(gpu.nvml_raw[i], 0);
  EXPECT_EQ(gpu.device_id + gpu.bus_id + gpu.drm_card_index + gpu.num_fans, 0x2684u + 4);
  delete[] gpu.fans;
}

class GpuLists : public ::testing::Test {
 protected:
  ~GpuLists() override { monitor_.cleanup_gpus_list(); }

  // A record in the general list; a bus number of 0 keeps the placeholder.
  zev::GPU* add(uint64_t vendor, uint64_t device, int32_t bus = 0) {
    zev::GPU* gpu = monitor_.create_gpu();
    gpu->vendor_id = vendor;
    gpu->device_id = device;
    if (bus != 0) gpu->bus_id = bus;
    return gpu;
  }

  std::vector<int32_t> sorted_buses() {
    monitor_.sort_gpus_by_bus_id();
    std::vector<int32_t> order;
    for (unsigned long i = 0; i < monitor_.get_num_gpus(); ++i)
      order.push_back(monitor_.get_gpu(i)->bus_id);
    return order;
  }

  GpuMonitorVorn monitor_;
};

TEST_F(GpuLists, SixteenRecordsWithSlotIndicesAndPlaceholderBusNumbers) {
  EXPECT_FALSE(monitor_.add_gpu(nullptr));
  for (int i = 0; i < 16; ++i) add(1, 1);
  ASSERT_EQ(monitor_.get_num_gpus(), 16u);
  for (unsigned long i = 0; i < 16; ++i) {
    EXPECT_EQ(monitor_.get_gpu(i)->index, i);
    EXPECT_EQ(monitor_.get_gpu(i)->bus_id, static_cast<int32_t>(1001 + i));
  }
  EXPECT_EQ(monitor_.get_gpu(16), nullptr);
  EXPECT_EQ(monitor_.get_gpu(~0ul), nullptr);
  // The seventeenth record is made and returned but belongs to no list.
  zev::GPU* extra = monitor_.create_gpu();
  EXPECT_EQ(monitor_.get_num_gpus(), 16u);
  EXPECT_FALSE(monitor_.add_gpu(extra));
  delete extra;
}

TEST_F(GpuLists, NvmlListRefersToRecordsWithoutOwningThem) {
  zev::GPU* shared = add(1, 1);
  EXPECT_TRUE(monitor_.add_nvml_gpu(shared));
  EXPECT_FALSE(monitor_.add_nvml_gpu(nullptr));
  zev::GPU* nvml_only = monitor_.create_nvml_gpu();
  EXPECT_EQ(nvml_only->bus_id, -1) << "no placeholder outside the general list";
  EXPECT_EQ(monitor_.nvml_get_gpu(1), nvml_only);
  for (int i = 0; i < 14; ++i) monitor_.add_nvml_gpu(shared);
  EXPECT_FALSE(monitor_.add_nvml_gpu(shared));
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 16u);
  EXPECT_EQ(monitor_.nvml_get_gpu(16), nullptr);
  // The clean-up frees the general list's records (and their arrays) only;
  // the address sanitizer sees a double or a missing free.
  shared->num_fans = 2;
  shared->fans = new zev::gpuFanSpeed[2];
  shared->process_utilization = new zev::gpuProcessUtilization[3];
  shared->perf_levels = new zev::gpuPerformanceState[4];
  EXPECT_TRUE(monitor_.cleanup_gpus_list());
  EXPECT_EQ(monitor_.get_num_gpus() + monitor_.nvml_get_num_gpus(), 0u);
  EXPECT_EQ(monitor_.nvml_get_gpu(0), nullptr);
  EXPECT_TRUE(monitor_.cleanup_gpus_list());
  delete nvml_only;
}

TEST_F(GpuLists, SortPutsRealBusNumbersFirstThenPlaceholdersThenUnknown) {
  const std::vector<std::pair<std::vector<int32_t>, std::vector<int32_t>>> cases = {
      {{3, -1, 1}, {1, 3, -1}},
      {{0 /* 1001 */, 0 /* 1002 */, 7, -1, 5}, {5, 7, 1001, 1002, -1}},
      {{-1, 9, -1, 2, 4, -1, 8}, {2, 4, 8, 9, -1, -1, -1}},
  };
  for (const auto& [buses, expected] : cases) {
    for (int32_t bus : buses) add(1, 1, bus);
    EXPECT_EQ(sorted_buses(), expected);
    monitor_.cleanup_gpus_list();
  }
  // Sorting does not renumber: index still tells the insertion slot.
  add(1, 1, 3);
  add(1, 2, 1);
  sorted_buses();
  EXPECT_EQ(monitor_.get_gpu(0)->index, 1u);
}

TEST_F(GpuLists, LookupsByVendorDeviceAndBus) {
  zev::GPU* a = add(0x10DE, 0x2684, 65);
  zev::GPU* b = add(0x1002, 0x744C, 3);
  zev::GPU* c = add(0x10DE, 0x2684, 23);
  monitor_.sort_gpus_by_bus_id();  // slots now: b (3), c (23), a (65)
  const std::tuple<uint64_t, uint64_t, int, zev::GPU*> by_index[] = {{0x10DE, 0x2684, -1, c},
                                                                     {0x10DE, 0x2684, 0, a},
                                                                     {0x10DE, 0x2684, 2, c},
                                                                     {0x10DE, 0x2684, 1, nullptr},
                                                                     {0x8086, 0x56A0, -1, nullptr}};
  for (const auto& [vendor, device, index, gpu] : by_index)
    EXPECT_EQ(monitor_.get_gpu_v2(vendor, device, index), gpu) << index;
  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x10DE, 0x2684, 65), a);
  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x1002, 0x744C, 3), b);
  EXPECT_EQ(monitor_.get_gpu_by_devid_and_busid(0x1002, 0x744C, 4), nullptr);
  EXPECT_EQ(monitor_.get_num_gpus_by_vendor(0x10DE), 2u);
  EXPECT_EQ(monitor_.get_num_gpus_by_vendor(0x8086), 0u);
  // A reset of every record forgets readings and keeps identity.
  b->temperatures[0].current = 55.0f;
  EXPECT_TRUE(monitor_.reset_gpus_sensors());
  EXPECT_EQ(b->temperatures[0].current, -1.0f);
  EXPECT_EQ(b->bus_id, 3);
}

}  // namespace
