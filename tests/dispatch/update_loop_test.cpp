// update_dynamic_data: which records one refresh reads, and what it stores,
// on the monitor's own code and through the real plug-in.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using drm_test::card_dir;
using drm_test::hwmon_dir;
using drm_test::put;
using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

// The RX 7900 XTX machine moved to new readings.
void warm_up_rdna3() {
  put(card_dir(1) + "/gpu_busy_percent", "99\n");
  put(hwmon_dir(1, 3) + "/freq1_input", "2105000000\n");
  put(hwmon_dir(1, 3) + "/freq2_input", "1250000000\n");
  put(hwmon_dir(1, 3) + "/temp1_input", "61000\n");
  put(hwmon_dir(1, 3) + "/power1_average", "339000000\n");
  put(hwmon_dir(1, 3) + "/fan1_input", "1620\n");
}

void expect_warm(const zev::GPU& g) {
  EXPECT_EQ(g.core_usage[0], 99.0f);
  EXPECT_EQ(g.core_usage[2], 99.0f);
  EXPECT_EQ(g.core_clock.current, 2105.0f);
  EXPECT_EQ(g.core_clock.max, 2105.0f);
  EXPECT_EQ(g.memory_clock.current, 1250.0f);
  EXPECT_EQ(g.temperatures[0].current, 61.0f);
  EXPECT_EQ(g.temperatures[0].min, 52.0f);  // from the scan's first reading
  EXPECT_EQ(g.temperatures[0].max, 61.0f);
  EXPECT_EQ(g.power.watts, 339.0f);
  EXPECT_EQ(g.power.current, 0.001f * 339.0f);
  EXPECT_EQ(g.fans[0].rpm, 1620.0f);
}

void expect_as_scanned(const zev::GPU& g) {
  EXPECT_EQ(g.core_usage[0], 7.0f);
  EXPECT_EQ(g.core_clock.current, 1850.0f);
  EXPECT_EQ(g.temperatures[0].current, 52.0f);
  EXPECT_EQ(g.power.watts, 86.0f);
  EXPECT_EQ(g.fans[0].rpm, 1102.0f);
}

class UpdateLoop : public ::testing::Test {
 protected:
  void SetUp() override { enter("amd-rdna3-rx7900xtx"); }
  void TearDown() override {
    monitor_.terminate();
    scope_.reset();
  }
  void enter(const std::string& machine) {
    scope_.reset();
    scope_.reset(new MachineScope(machine));
    ASSERT_TRUE(scope_->ok()) << scope_->error();
  }

  TraceCapture traces_;
  std::unique_ptr<MachineScope> scope_;
  GpuMonitorVorn monitor_;
};

TEST_F(UpdateLoop, NothingToRefreshWithoutGpus) {
  EXPECT_FALSE(monitor_.update_dynamic_data());
  EXPECT_FALSE(monitor_.update_dynamic_data_rt(0));
}

TEST_F(UpdateLoop, RefreshesEverySensorOfADrmGpu) {
  ASSERT_TRUE(monitor_.initialize());
  ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  const zev::GPU& g = *monitor_.get_gpu(0);
  // The scan stored current values only; the first refresh starts the
  // ranges of usage and clocks.
  EXPECT_EQ(g.core_usage[1], -1.0f);
  EXPECT_EQ(g.core_clock.min, -1.0f);
  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_as_scanned(g);
  EXPECT_EQ(g.core_usage[1], 7.0f);
  EXPECT_EQ(g.core_clock.min, 1850.0f);
  EXPECT_EQ(g.memory_clock.min, 1249.0f);
  warm_up_rdna3();
  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_warm(g);
  EXPECT_EQ(g.core_usage[1], 7.0f);
  EXPECT_EQ(g.core_clock.min, 1850.0f);
  EXPECT_EQ(g.memory_clock.min, 1249.0f);
  EXPECT_EQ(g.memory_clock.max, 1250.0f);
}

TEST_F(UpdateLoop, SkipsRecordsThatAreNotMonitorableOrBelongToNvml) {
  ASSERT_TRUE(monitor_.initialize());
  zev::GPU* g = monitor_.get_gpu(0);
  warm_up_rdna3();

  g->monitorable = false;
  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_as_scanned(*g);

  // A record with an NVML handle is refreshed by the NVML path only.
  int handle = 0;
  g->monitorable = true;
  g->nvml_device = &handle;
  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_as_scanned(*g);
  g->nvml_device = nullptr;

  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_warm(*g);
}

TEST_F(UpdateLoop, ARefreshAfterSensorsVanishKeepsTheLastValues) {
  ASSERT_TRUE(monitor_.initialize());
  const std::string root = machine::staged_root();
  std::error_code ec;
  // The card's hwmon goes away (e.g. a GPU reset), and its busy file empties.
  ASSERT_TRUE(std::filesystem::remove_all(root + "/sys/class/drm/card1/device/hwmon/hwmon3", ec) >
              0);
  put(card_dir(1) + "/gpu_busy_percent", "");
  EXPECT_TRUE(monitor_.update_dynamic_data());
  expect_as_scanned(*monitor_.get_gpu(0));
}

TEST_F(UpdateLoop, EveryGpuOfTheMachineIsRefreshed) {
  enter("amd-multi-card-gaps");
  ASSERT_TRUE(monitor_.initialize());
  ASSERT_EQ(monitor_.get_num_gpus(), 2u);
  put(hwmon_dir(2, 6) + "/temp1_input", "70000\n");
  put(hwmon_dir(4, 7) + "/temp1_input", "44000\n");
  put(hwmon_dir(4, 7) + "/fan1_input", "800\n");
  EXPECT_TRUE(monitor_.update_dynamic_data());
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].current, 70.0f);
  EXPECT_EQ(monitor_.get_gpu(1)->temperatures[0].current, 44.0f);
  EXPECT_EQ(monitor_.get_gpu(1)->fans[0].rpm, 800.0f);
}

TEST(UpdateThroughThePlugin, AHostRefreshSeesNewValues) {
  TraceCapture traces;
  MachineScope scope("amd-rdna3-rx7900xtx");
  ASSERT_TRUE(scope.ok()) << scope.error();
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  zev::GpuMonitor* monitor = plugin.create();
  ASSERT_TRUE(monitor->initialize());
  ASSERT_EQ(monitor->get_num_gpus(), 1u);
  warm_up_rdna3();
  EXPECT_TRUE(monitor->update_dynamic_data());
  expect_warm(*monitor->get_gpu(0));
  EXPECT_TRUE(monitor->terminate());
  EXPECT_EQ(monitor->get_num_gpus(), 0u);
  EXPECT_FALSE(monitor->update_dynamic_data());
  plugin.destroy_raw(monitor);
}

}  // namespace
