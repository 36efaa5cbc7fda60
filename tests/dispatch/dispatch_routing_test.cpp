// Sensor dispatch on hand-made records: which back-end each sensor is routed
// to for the record's indices, what is stored (current, minimum, maximum,
// the 0.001 power factor), what the dispatchers return, and the fan
// accessors. Records point at the RX 7900 XTX machine (card1, hwmon3),
// whose files the cases change between calls.
#include <gtest/gtest.h>

#include <string>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using drm_test::card_dir;
using drm_test::drop;
using drm_test::hwmon_dir;
using drm_test::put;

class Dispatch : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scope_.ok()) << scope_.error(); }
  void TearDown() override { monitor_.cleanup_gpus_list(); }

  // A record as the DRM scan of this machine leaves it.
  zev::GPU* drm_record() {
    zev::GPU* g = monitor_.create_gpu();
    g->vendor_id = 0x1002;
    g->device_id = 0x744C;
    g->drm_card_index = 1;
    g->drm_hwmon_index = 3;
    g->drm_temp_input_index = 1;
    g->drm_power_index = 1;
    g->num_fans = 1;
    g->fans = new zev::gpuFanSpeed[1];
    g->monitorable = true;
    return g;
  }
  void hwmon_file(const std::string& leaf, const std::string& text) {
    put(hwmon_dir(1, 3) + "/" + leaf, text);
  }

  testing_support::MachineScope scope_{"amd-rdna3-rx7900xtx"};
  GpuMonitorVorn monitor_;
};

// ------------------------------------------------------------- clocks

TEST_F(Dispatch, ClocksComeFromHwmonAndKeepTheirRange) {
  zev::GPU* g = drm_record();
  float core = 0, mem = 0;
  ASSERT_TRUE(monitor_.gpu_get_clocks(0, &core, &mem));
  EXPECT_EQ(core, 1850.0f);
  EXPECT_EQ(mem, 1249.0f);
  EXPECT_EQ(g->core_clock.current, 1850.0f);
  EXPECT_EQ(g->core_clock.min, 1850.0f);
  EXPECT_EQ(g->core_clock.max, 1850.0f);
  EXPECT_EQ(g->memory_clock.current, 1249.0f);

  hwmon_file("freq1_input", "2010000000\n");
  hwmon_file("freq2_input", "96000000\n");
  ASSERT_TRUE(monitor_.gpu_get_clocks(0, &core, &mem));
  EXPECT_EQ(core, 2010.0f);
  EXPECT_EQ(mem, 96.0f);
  EXPECT_EQ(g->core_clock.min, 1850.0f);
  EXPECT_EQ(g->core_clock.max, 2010.0f);
  EXPECT_EQ(g->memory_clock.min, 96.0f);
  EXPECT_EQ(g->memory_clock.max, 1249.0f);

  hwmon_file("freq1_input", "500000000\n");
  ASSERT_TRUE(monitor_.gpu_get_clocks(0, nullptr, nullptr));
  EXPECT_EQ(g->core_clock.current, 500.0f);
  EXPECT_EQ(g->core_clock.min, 500.0f);
  EXPECT_EQ(g->core_clock.max, 2010.0f);
  // The maximum-clock fields belong to the NVML path.
  EXPECT_EQ(g->core_clock.max_clock, -1.0f);
  EXPECT_EQ(g->core_clock.reported_max_clock, -1.0f);
}

TEST_F(Dispatch, OneClockIsEnoughAndAFailedOneKeepsItsValue) {
  zev::GPU* g = drm_record();
  ASSERT_TRUE(monitor_.gpu_get_clocks(0, nullptr, nullptr));
  drop(hwmon_dir(1, 3) + "/freq2_input");  // an APU has no memory clock
  hwmon_file("freq1_input", "900000000\n");
  float core = 0, mem = -5.0f;
  EXPECT_TRUE(monitor_.gpu_get_clocks(0, &core, &mem));
  EXPECT_EQ(core, 900.0f);
  EXPECT_EQ(mem, -5.0f);
  EXPECT_EQ(g->memory_clock.current, 1249.0f);
  drop(hwmon_dir(1, 3) + "/freq1_input");
  EXPECT_FALSE(monitor_.gpu_get_clocks(0, &core, &mem));
  EXPECT_EQ(g->core_clock.current, 900.0f);
}

// ------------------------------------------------------------- usage

TEST_F(Dispatch, UsageNeedsTheCardOnly) {
  zev::GPU* g = drm_record();
  g->drm_hwmon_index = -1;
  float core = 0, mem = -5.0f, u3 = -6.0f, u4 = -7.0f;
  ASSERT_TRUE(monitor_.gpu_get_usages(0, &core, &mem, &u3, &u4));
  EXPECT_EQ(core, 7.0f);
  EXPECT_EQ(mem, -5.0f);  // DRM has no memory load
  EXPECT_EQ(u3, -6.0f);
  EXPECT_EQ(u4, -7.0f);
  EXPECT_EQ(g->core_usage[0], 7.0f);
  EXPECT_EQ(g->core_usage[1], 7.0f);
  EXPECT_EQ(g->core_usage[2], 7.0f);
  EXPECT_EQ(g->memory_usage[0], -1.0f);

  put(card_dir(1) + "/gpu_busy_percent", "100\n");
  ASSERT_TRUE(monitor_.gpu_get_usages(0, nullptr, nullptr, nullptr, nullptr));
  put(card_dir(1) + "/gpu_busy_percent", "0\n");
  ASSERT_TRUE(monitor_.gpu_get_usages(0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->core_usage[0], 0.0f);
  EXPECT_EQ(g->core_usage[1], 0.0f);
  EXPECT_EQ(g->core_usage[2], 100.0f);

  put(card_dir(1) + "/gpu_busy_percent", "");
  EXPECT_FALSE(monitor_.gpu_get_usages(0, &core, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->core_usage[0], 0.0f);
}

// A card index without a hwmon directory gets its usage and nothing else,
// whether the hwmon index is unset (-1) or past the probe's limit (8).
TEST_F(Dispatch, CardWithoutHwmonGetsUsageOnly) {
  for (int hwmon : {-1, 8}) {
    SCOPED_TRACE(hwmon);
    monitor_.cleanup_gpus_list();
    zev::GPU* g = drm_record();
    g->drm_hwmon_index = hwmon;
    EXPECT_TRUE(monitor_.gpu_get_usages(0, nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(monitor_.gpu_get_clocks(0, nullptr, nullptr));
    EXPECT_FALSE(monitor_.gpu_get_temperatures(0, nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(monitor_.gpu_power_get_current_value(0, nullptr, nullptr));
    EXPECT_EQ(monitor_.gpu_read_fan_speed(0), hwmon >= 0);  // reads fail, loop still ran
    EXPECT_EQ(g->core_usage[0], 7.0f);
    EXPECT_EQ(g->core_clock.current, -1.0f);
    EXPECT_EQ(g->temperatures[0].current, -1.0f);
    EXPECT_EQ(g->power.watts, -1.0f);
    EXPECT_EQ(g->fans[0].rpm, -1.0f);
  }
}

// ------------------------------------------------------------- temperature

TEST_F(Dispatch, TemperatureFromTheChosenInputWithRunningRange) {
  zev::GPU* g = drm_record();
  g->drm_temp_input_index = 2;  // junction
  float core = 0, mem = -5.0f;
  ASSERT_TRUE(monitor_.gpu_get_temperatures(0, &core, &mem, nullptr, nullptr));
  EXPECT_EQ(core, 61.0f);
  EXPECT_EQ(mem, -5.0f);
  EXPECT_EQ(g->temperatures[2].current, -1.0f);
  hwmon_file("temp2_input", "45500\n");
  ASSERT_TRUE(monitor_.gpu_get_temperatures(0, &core, nullptr, nullptr, nullptr));
  hwmon_file("temp2_input", "88000\n");
  ASSERT_TRUE(monitor_.gpu_get_temperatures(0, &core, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->temperatures[0].current, 88.0f);
  EXPECT_EQ(g->temperatures[0].min, 45.0f);
  EXPECT_EQ(g->temperatures[0].max, 88.0f);
  // Below zero is a reading too; -1 °C is the "unset" sentinel of the range.
  hwmon_file("temp2_input", "-1500\n");
  ASSERT_TRUE(monitor_.gpu_get_temperatures(0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->temperatures[0].current, -1.0f);
  EXPECT_EQ(g->temperatures[0].min, -1.0f);
}

TEST_F(Dispatch, TemperatureNeedsAllThreeIndices) {
  zev::GPU* g = drm_record();
  g->drm_temp_input_index = -1;
  EXPECT_FALSE(monitor_.gpu_get_temperatures(0, nullptr, nullptr, nullptr, nullptr));
  g->drm_temp_input_index = 1;
  g->drm_card_index = -1;
  EXPECT_FALSE(monitor_.gpu_get_temperatures(0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->temperatures[0].current, -1.0f);
}

// ------------------------------------------------------------- power

TEST_F(Dispatch, PowerKeepsWattsAndAThousandthOfThem) {
  zev::GPU* g = drm_record();
  float unused = -5.0f, watts = 0;
  ASSERT_TRUE(monitor_.gpu_power_get_current_value(0, &unused, &watts));
  EXPECT_EQ(unused, -5.0f);
  EXPECT_EQ(g->power.watts, 86.0f);
  EXPECT_EQ(g->power.current, 0.001f * 86.0f);
  EXPECT_EQ(watts, g->power.current);
  // No range is kept for power, and the test slots stay untouched.
  EXPECT_EQ(g->power.value, -1.0f);
  EXPECT_EQ(g->power.value_max_in_test, -1.0f);
  EXPECT_EQ(g->power.watts_max_in_test, -1.0f);

  hwmon_file("power1_average", "0\n");
  ASSERT_TRUE(monitor_.gpu_power_get_current_value(0, nullptr, &watts));
  EXPECT_EQ(g->power.watts, 0.0f);
  EXPECT_EQ(watts, 0.0f);

  hwmon_file("power1_average", "-3\n");
  EXPECT_FALSE(monitor_.gpu_power_get_current_value(0, nullptr, &watts));
  EXPECT_EQ(g->power.watts, 0.0f);
  g->drm_power_index = -1;
  hwmon_file("power1_average", "86000000\n");
  EXPECT_FALSE(monitor_.gpu_power_get_current_value(0, nullptr, nullptr));
  EXPECT_EQ(g->power.watts, 0.0f);
}

// ------------------------------------------------------------- fans

TEST_F(Dispatch, FansAreReadByPositionIntoTheScansArray) {
  zev::GPU* g = drm_record();
  delete[] g->fans;
  g->num_fans = 2;
  g->fans = new zev::gpuFanSpeed[2];
  g->fans[0].speed_percent = 40.0f;
  g->fans[1].speed_percent = 41.0f;
  g->fans[1].rpm = 1234.0f;
  const zev::gpuFanSpeed* array = g->fans;
  // fan2_input is missing: fan 1 keeps what it had, and the call succeeds.
  ASSERT_TRUE(monitor_.gpu_read_fan_speed(0));
  EXPECT_EQ(g->fans, array);
  EXPECT_EQ(g->fans[0].rpm, 1102.0f);
  EXPECT_EQ(g->fans[0].speed_percent, -1.0f);
  EXPECT_EQ(g->fans[1].rpm, 1234.0f);
  EXPECT_EQ(g->fans[1].speed_percent, 41.0f);
  hwmon_file("fan2_input", "2000\n");
  hwmon_file("fan1_input", "0\n");
  ASSERT_TRUE(monitor_.gpu_read_fan_speed(0));
  EXPECT_EQ(g->fans[0].rpm, 0.0f);
  EXPECT_EQ(g->fans[1].rpm, 2000.0f);
  // Every read failing still counts.
  drop(hwmon_dir(1, 3) + "/fan1_input");
  drop(hwmon_dir(1, 3) + "/fan2_input");
  EXPECT_TRUE(monitor_.gpu_read_fan_speed(0));
  EXPECT_EQ(g->fans[1].rpm, 2000.0f);
}

TEST_F(Dispatch, NoFanArrayNoFanReading) {
  zev::GPU* g = drm_record();
  delete[] g->fans;
  g->fans = nullptr;
  g->num_fans = 0;
  EXPECT_FALSE(monitor_.gpu_read_fan_speed(0));
  EXPECT_EQ(g->fans, nullptr);  // the DRM path never allocates
  EXPECT_EQ(g->num_fans, 0u);
}

TEST_F(Dispatch, GetFanSpeedCopiesStoredValuesOnly) {
  zev::GPU* g = drm_record();
  g->fans[0].speed_percent = 30.0f;
  g->fans[0].rpm = 950.0f;
  hwmon_file("fan1_input", "3000\n");
  float percent = 0, rpm = 0;
  ASSERT_TRUE(monitor_.gpu_get_fan_speed(0, 0, &percent, &rpm));
  EXPECT_EQ(percent, 30.0f);
  EXPECT_EQ(rpm, 950.0f);
  EXPECT_TRUE(monitor_.gpu_get_fan_speed(0, 0, nullptr, &rpm));
  EXPECT_TRUE(monitor_.gpu_get_fan_speed(0, 0, &percent, nullptr));
  percent = rpm = -9.0f;
  EXPECT_FALSE(monitor_.gpu_get_fan_speed(0, 1, &percent, &rpm));  // fan == num_fans
  EXPECT_FALSE(monitor_.gpu_get_fan_speed(0, ~0ul, &percent, &rpm));
  EXPECT_EQ(percent, -9.0f);
  EXPECT_EQ(rpm, -9.0f);
}

// ------------------------------------------------------------- routing

TEST_F(Dispatch, DrmOverwritesWhatNvidiaSmiGaveForTheSameRecord) {
  // An NVIDIA card found by nvidia-smi that also carries DRM indices. This
  // machine has no nvidia-smi, so only DRM can answer; its readings land.
  zev::GPU* g = drm_record();
  g->vendor_id = 0x10DE;
  g->nvidia_gpu_index = 0;
  g->core_clock.current = 111.0f;
  float core = 0;
  EXPECT_TRUE(monitor_.gpu_get_clocks(0, &core, nullptr));
  EXPECT_EQ(core, 1850.0f);
  EXPECT_TRUE(monitor_.gpu_get_usages(0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->core_usage[0], 7.0f);
  EXPECT_TRUE(monitor_.gpu_get_temperatures(0, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(g->temperatures[0].current, 52.0f);
  EXPECT_TRUE(monitor_.gpu_power_get_current_value(0, nullptr, nullptr));
  EXPECT_EQ(g->power.watts, 86.0f);
  EXPECT_TRUE(monitor_.gpu_read_fan_speed(0));
  EXPECT_EQ(g->num_fans, 1u);
  EXPECT_EQ(g->fans[0].rpm, 1102.0f);
}

TEST_F(Dispatch, RecordsNoSourceAnswersForKeepTheirUnknowns) {
  // nvidia-smi only (no tool on this machine), a Raspberry Pi record (no V3D
  // here) and a record with no back-end at all.
  zev::GPU* nv = monitor_.create_gpu();
  nv->vendor_id = 0x10DE;
  nv->nvidia_gpu_index = 0;
  zev::GPU* pi = monitor_.create_gpu();
  pi->vendor_id = 0x14E4;
  monitor_.create_gpu();
  for (unsigned long i = 0; i < 3; ++i) {
    SCOPED_TRACE(i);
    float a = -5.0f, b = -6.0f;
    EXPECT_FALSE(monitor_.gpu_get_clocks(i, &a, &b));
    EXPECT_FALSE(monitor_.gpu_get_usages(i, &a, &b, nullptr, nullptr));
    EXPECT_FALSE(monitor_.gpu_get_temperatures(i, &a, &b, nullptr, nullptr));
    EXPECT_FALSE(monitor_.gpu_power_get_current_value(i, &a, &b));
    EXPECT_FALSE(monitor_.gpu_read_fan_speed(i));
    EXPECT_EQ(a, -5.0f);
    EXPECT_EQ(b, -6.0f);
    const zev::GPU* g = monitor_.get_gpu(i);
    EXPECT_EQ(g->core_usage[0], -1.0f);
    EXPECT_EQ(g->core_clock.current, -1.0f);
    EXPECT_EQ(g->temperatures[0].current, -1.0f);
    EXPECT_EQ(g->power.watts, -1.0f);
    EXPECT_EQ(g->fans, nullptr);
  }
  EXPECT_EQ(pi->rpi_usage_method, 0u);
}

TEST_F(Dispatch, AGpuIndexPastTheListReadsNothing) {
  drm_record();
  float v = -5.0f;
  EXPECT_FALSE(monitor_.gpu_get_clocks(1, &v, &v));
  EXPECT_FALSE(monitor_.gpu_get_usages(1, &v, &v, nullptr, nullptr));
  EXPECT_FALSE(monitor_.gpu_get_temperatures(1, &v, &v, nullptr, nullptr));
  EXPECT_FALSE(monitor_.gpu_power_get_current_value(1, &v, &v));
  EXPECT_FALSE(monitor_.gpu_read_fan_speed(1));
  EXPECT_FALSE(monitor_.gpu_get_fan_speed(1, 0, &v, &v));
  EXPECT_EQ(v, -5.0f);
}

}  // namespace
