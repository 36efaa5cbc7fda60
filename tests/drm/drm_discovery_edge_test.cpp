// Edges of the DRM scan, driven on the monitor's own code: the NVIDIA filter
// against nvidia-smi, sensor choice (first temperature and power input, fans
// counted and then read by position), probe limits, and damaged sysfs files.
// Each case starts from a real machine and changes its private copy.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using drm_test::card_dir;
using drm_test::drop;
using drm_test::hwmon_dir;
using drm_test::put;
using testing_support::MachineScope;
using testing_support::TraceCapture;

const char kDegrees[] = "°C";

class DrmScan : public ::testing::Test {
 protected:
  void enter(const std::string& machine) {
    scope_.reset(new MachineScope(machine));
    ASSERT_TRUE(scope_->ok()) << scope_->error();
  }
  void TearDown() override {
    monitor_.cleanup_gpus_list();
    scope_.reset();
  }
  // Runs the scan alone and returns its trace lines.
  std::vector<std::string> scan(bool* found = nullptr) {
    traces_.clear();
    const bool ok = monitor_.linux_drm_init_gpus();
    if (found != nullptr) *found = ok;
    return traces_.texts();
  }
  static bool has(const std::vector<std::string>& lines, const std::string& line) {
    for (const std::string& l : lines)
      if (l == line) return true;
    return false;
  }

  TraceCapture traces_;
  std::unique_ptr<MachineScope> scope_;
  GpuMonitorVorn monitor_;
};

// ------------------------------------------------------------- NVIDIA filter

TEST_F(DrmScan, NvidiaCardsAreLeftToNvidiaSmiWhenItFoundGpus) {
  enter("nvidia-gtx1060-nouveau");
  monitor_.num_nv_smi_detected = 1;
  bool found = true;
  EXPECT_EQ(scan(&found), (std::vector<std::string>{"DRM: scanning GPUs...",
                                                    "DRM: no GPU other than NVIDIA found."}));
  EXPECT_FALSE(found);
  EXPECT_EQ(monitor_.get_num_gpus(), 0u);
  EXPECT_EQ(monitor_.num_gpus_drm, 0u);
}

TEST_F(DrmScan, OtherCardsBesideASkippedNvidiaCardAreKept) {
  enter("nvidia-gtx1060-nouveau");
  // An AMD card appears at card3 (plain folders are enough for the scan).
  const std::string dir = machine::staged_root() + "/sys/class/drm/card3/device";
  std::filesystem::create_directories(dir);
  put("/sys/class/drm/card3/device/vendor", "0x1002\n");
  put("/sys/class/drm/card3/device/device", "0x73ff\n");
  put("/sys/class/drm/card3/device/gpu_busy_percent", "15\n");
  monitor_.num_nv_smi_detected = 2;
  monitor_.num_monitorable_gpus = 0;
  bool found = false;
  const std::vector<std::string> lines = scan(&found);
  EXPECT_TRUE(found);
  EXPECT_EQ(lines[1], "> GPU 3");
  EXPECT_FALSE(has(lines, "> GPU 0"));
  ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  EXPECT_EQ(monitor_.get_gpu(0)->vendor_id, 0x1002u);
  EXPECT_EQ(monitor_.num_gpus_drm, 1u);
  EXPECT_EQ(monitor_.num_monitorable_gpus, 1u);
}

// ------------------------------------------------------------- counters

TEST_F(DrmScan, CountsCreatedAndMonitorableRecords) {
  enter("intel-arc-a770-i915");
  monitor_.num_monitorable_gpus = 0;
  bool found = false;
  scan(&found);
  EXPECT_TRUE(found);
  EXPECT_EQ(monitor_.num_gpus_drm, 2u);
  EXPECT_EQ(monitor_.num_monitorable_gpus, 0u);  // neither Intel card has a sensor
  monitor_.cleanup_gpus_list();

  scope_.reset();
  enter("amd-multi-card-gaps");
  monitor_.num_monitorable_gpus = 0;
  scan(&found);
  EXPECT_EQ(monitor_.num_gpus_drm, 2u);
  EXPECT_EQ(monitor_.num_monitorable_gpus, 2u);
}

// ------------------------------------------------------------- sensor choice

TEST_F(DrmScan, FirstTemperatureInputThatReadsWins) {
  enter("amd-rdna3-rx7900xtx");
  drop(hwmon_dir(1, 3) + "/temp1_input");
  const std::vector<std::string> lines = scan();
  EXPECT_TRUE(has(lines, std::string("  - core temperature: 61 ") + kDegrees));
  EXPECT_EQ(monitor_.get_gpu(0)->drm_temp_input_index, 2);
}

TEST_F(DrmScan, SensorZeroAndSensorEightAreNeverTried) {
  enter("amd-rdna3-rx7900xtx");
  for (int s = 1; s <= 3; ++s) drop(hwmon_dir(1, 3) + "/temp" + std::to_string(s) + "_input");
  put(hwmon_dir(1, 3) + "/temp0_input", "40000\n");
  put(hwmon_dir(1, 3) + "/temp8_input", "40000\n");
  drop(hwmon_dir(1, 3) + "/power1_average");
  put(hwmon_dir(1, 3) + "/power8_average", "50000000\n");
  put(hwmon_dir(1, 3) + "/fan0_input", "900\n");
  const std::vector<std::string> lines = scan();
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->drm_temp_input_index, -1);
  EXPECT_EQ(g->temperatures[0].current, -1.0f);
  EXPECT_EQ(g->drm_power_index, -1);
  EXPECT_EQ(g->num_fans, 1u);
  EXPECT_FALSE(has(lines, std::string("  - core temperature: 40 ") + kDegrees));
  // Still monitorable through its usage.
  EXPECT_TRUE(g->monitorable);
}

TEST_F(DrmScan, PowerInputOfZeroFallsBackToTheAverage) {
  enter("amd-polaris-rx580");
  put(hwmon_dir(0, 0) + "/power1_input", "0\n");
  put(hwmon_dir(0, 0) + "/power1_average", "35000000\n");
  const std::vector<std::string> lines = scan();
  EXPECT_TRUE(has(lines, "  - power: 35 W"));
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->drm_power_index, 1);
  EXPECT_EQ(g->power.watts, 35.0f);
  EXPECT_EQ(g->power.current, 0.001f * 35.0f);
}

TEST_F(DrmScan, FirstPowerSensorThatReadsWins) {
  enter("amd-rdna3-rx7900xtx");
  drop(hwmon_dir(1, 3) + "/power1_average");
  put(hwmon_dir(1, 3) + "/power3_input", "120000000\n");
  put(hwmon_dir(1, 3) + "/power5_average", "80000000\n");
  const std::vector<std::string> lines = scan();
  EXPECT_TRUE(has(lines, "  - power: 120 W"));
  EXPECT_EQ(monitor_.get_gpu(0)->drm_power_index, 3);
}

TEST_F(DrmScan, FansAreCountedThenReadByPosition) {
  enter("intel-arc-b580-xe");
  // Sensors at fan1 and fan3: two fans, the second of which reads fan2.
  drop(hwmon_dir(0, 5) + "/fan2_input");
  put(hwmon_dir(0, 5) + "/fan3_input", "1400\n");
  const std::vector<std::string> lines = scan();
  EXPECT_TRUE(has(lines, "  - num fans: 2"));
  EXPECT_TRUE(has(lines, "    > fan[1] speed: 1320 RPM"));
  EXPECT_FALSE(has(lines, "    > fan[2] speed: 1400 RPM"));
  const zev::GPU* g = monitor_.get_gpu(0);
  ASSERT_EQ(g->num_fans, 2u);
  EXPECT_EQ(g->fans[0].rpm, 1320.0f);
  EXPECT_EQ(g->fans[1].rpm, -1.0f);
  EXPECT_EQ(g->fans[1].speed_percent, -1.0f);
}

TEST_F(DrmScan, SevenFansAtMost) {
  enter("amd-rdna3-rx7900xtx");
  for (int s = 1; s <= 9; ++s) {
    put(hwmon_dir(1, 3) + "/fan" + std::to_string(s) + "_input", std::to_string(1000 + s) + "\n");
  }
  const std::vector<std::string> lines = scan();
  const zev::GPU* g = monitor_.get_gpu(0);
  ASSERT_EQ(g->num_fans, 7u);
  EXPECT_EQ(g->fans[6].rpm, 1007.0f);
  EXPECT_TRUE(has(lines, "    > fan[7] speed: 1007 RPM"));
}

// ------------------------------------------------------------- probes

TEST_F(DrmScan, HwmonBeyondTheLimitOrWithoutANameIsNotFound) {
  enter("amd-rdna3-rx7900xtx");
  const std::string device = machine::staged_root() + "/sys/class/drm/card1/device/hwmon";
  std::filesystem::rename(device + "/hwmon3", device + "/hwmon9");
  std::vector<std::string> lines = scan();
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->drm_hwmon_index, 8);
  EXPECT_STREQ(g->driver_name, "");
  EXPECT_EQ(g->core_clock.current, -1.0f);
  EXPECT_EQ(lines[2], "  - device ID: 1002-744C");
  monitor_.cleanup_gpus_list();

  // A name file without content does not count, and the next one does.
  std::filesystem::rename(device + "/hwmon9", device + "/hwmon5");
  std::filesystem::create_directories(device + "/hwmon2");
  put("/sys/class/drm/card1/device/hwmon/hwmon2/name", "");
  put("/sys/class/drm/card1/device/hwmon/hwmon2/temp1_input", "99000\n");
  lines = scan();
  EXPECT_EQ(lines[2], "  - hwmon index: 5");
  EXPECT_EQ(monitor_.get_gpu(0)->drm_hwmon_index, 5);
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].current, 52.0f);
}

TEST_F(DrmScan, RevisionBelow16GetsALeadingBlank) {
  enter("amd-rdna3-rx7900xtx");
  put(card_dir(1) + "/revision", "0x07\n");
  const std::vector<std::string> lines = scan();
  EXPECT_EQ(lines[4], "  - revision ID:  7");
  EXPECT_EQ(monitor_.get_gpu(0)->revision_id, 0x07u);
}

// ------------------------------------------------------------- damaged files

TEST_F(DrmScan, FailedIdentityReadsKeepTheCardAndTraceZeros) {
  enter("amd-rdna3-rx7900xtx");
  for (const char* leaf : {"device", "revision", "subsystem_vendor", "subsystem_device",
                           "vbios_version", "gpu_busy_percent"}) {
    drop(card_dir(1) + "/" + leaf);
  }
  put(hwmon_dir(1, 3) + "/freq1_input", "");
  drop(hwmon_dir(1, 3) + "/freq2_input");
  bool found = false;
  const std::vector<std::string> lines = scan(&found);
  EXPECT_TRUE(found);
  ASSERT_GE(lines.size(), 6u);
  EXPECT_EQ(lines[1], "> GPU 1");
  EXPECT_EQ(lines[2], "  - hwmon index: 3");
  EXPECT_EQ(lines[3], "  - device ID: 1002-   0");
  EXPECT_EQ(lines[4], "  - subdevice ID:    0-   0");
  EXPECT_EQ(lines[5], "  - driver: amdgpu");
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->device_id, 0u);
  EXPECT_EQ(g->revision_id, 0u);
  EXPECT_STREQ(g->vbios_version, "");
  EXPECT_EQ(g->core_usage[0], -1.0f);
  EXPECT_EQ(g->sensor_available[2], 0);
  EXPECT_EQ(g->core_clock.current, -1.0f);
  EXPECT_TRUE(g->monitorable);  // the temperature still reads
}

TEST_F(DrmScan, GarbageAndOutOfRangeSensorFilesNeverCrash) {
  enter("amd-rdna3-rx7900xtx");
  const std::string hw = hwmon_dir(1, 3);
  put(card_dir(1) + "/vendor", "0x\n");  // passes the probe: no digit check
  put(card_dir(1) + "/gpu_busy_percent", "busy\n");
  put(hw + "/name", std::string(4000, 'n'));
  put(hw + "/freq1_input", "-99999999999999999999\n");
  put(hw + "/temp1_input", "\x01\x02\xff\n");
  put(hw + "/power1_average", "-1\n");
  put(hw + "/fan1_input", std::string(1000, '7'));
  bool found = false;
  const std::vector<std::string> lines = scan(&found);
  EXPECT_TRUE(found);
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->drm_card_index, 1);
  EXPECT_EQ(g->core_usage[0], 0.0f);
  EXPECT_EQ(std::string(g->driver_name), std::string(127, 'n'));
  EXPECT_EQ(g->temperatures[0].current, 0.0f);
  EXPECT_EQ(g->drm_temp_input_index, 1);
  EXPECT_EQ(g->drm_power_index, -1);  // a negative power is no reading
  EXPECT_EQ(g->num_fans, 1u);
  EXPECT_TRUE(g->monitorable);
}

}  // namespace
