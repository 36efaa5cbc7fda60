// Entry points, identity and lifecycle of the monitor, loaded from the
// plug-in library as a host loads it.
#include <gtest/gtest.h>

#include <cstdio>

#include "test_support.h"

namespace {

using namespace testing_support;

TEST(EntryPoints, EachCreateMakesItsOwnMonitorAndDestroyTakesNull) {
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  void* a = plugin.create_raw();
  void* b = plugin.create_raw();
  EXPECT_NE(a, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(plugin.destroy_raw(a), 1);
  EXPECT_EQ(plugin.destroy_raw(b), 1);
  EXPECT_EQ(plugin.destroy_raw(nullptr), 0);
}

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(machine_.ok()) << machine_.error();
    ASSERT_TRUE(plugin_.ok());
    monitor_ = plugin_.create();
    ASSERT_NE(monitor_, nullptr);
  }
  void TearDown() override {
    monitor_->terminate();
    EXPECT_EQ(plugin_.destroy_raw(monitor_), 1);
  }

  MachineScope machine_{"desktop-no-gpu"};
  TraceCapture traces_;
  PluginHandle plugin_;
  zev::GpuMonitor* monitor_ = nullptr;
};

TEST_F(Lifecycle, RegistersItsIdentityAndTracesNothingUntilInitialize) {
  EXPECT_STREQ(monitor_->get_name(), "GpuMonitor");
  EXPECT_STREQ(monitor_->get_description(), "GPU monitoring plugin for NVIDIA, AMD and Intel GPUs");
  EXPECT_STRNE(monitor_->get_author(), "");
  int version[3] = {-1, -1, -1};
  monitor_->get_version(&version[0], &version[1], &version[2]);
  EXPECT_EQ(version[0] * 10000 + version[1] * 100 + version[2], 100);
  EXPECT_EQ(monitor_->get_type(), 12);
  // "BUILD_DATE: [Nov 23 2026] - BUILD_TIME: [21:05:09]", as the compiler writes them.
  char month[4] = {};
  int date[5] = {};
  char tail = 0;
  EXPECT_EQ(
      std::sscanf(monitor_->get_build_info(), "BUILD_DATE: [%3s %d %d] - BUILD_TIME: [%d:%d:%d]%c",
                  month, &date[0], &date[1], &date[2], &date[3], &date[4], &tail),
      6)
      << monitor_->get_build_info();
  EXPECT_TRUE(traces_.lines().empty());
  EXPECT_FALSE(monitor_->initialized || monitor_->started);
}

// initialize once, again (no rescan), terminate twice, initialize again.
TEST_F(Lifecycle, InitializeTerminateCycles) {
  const std::vector<std::string> scan = {
      "Linux x86_64 - CPU name: AMD Ryzen 7 7700X 8-Core Processor, CPU speed: 4491MHz, RAM: "
      "15932MB",
      "Operating system detected: Linux 6.1.0-26-amd64 64-bit", "DRM: scanning GPUs...",
      "DRM: no GPU found.", "Num GPUs detected: 0"};
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(monitor_->initialized);
  EXPECT_EQ(traces_.texts(), scan);
  EXPECT_TRUE(traces_.texts(zev::TRACE_DEBUG).empty());
  traces_.clear();
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(traces_.lines().empty()) << "a second initialize must not rescan";
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_FALSE(monitor_->initialized);
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_EQ(traces_.texts(), scan);
}

TEST_F(Lifecycle, StartAndStopOnlyFlipTheStartedFlag) {
  EXPECT_TRUE(monitor_->start());
  EXPECT_TRUE(monitor_->start());
  EXPECT_TRUE(monitor_->started);
  EXPECT_FALSE(monitor_->initialized);
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_TRUE(monitor_->started) << "terminate leaves the started flag alone";
  EXPECT_TRUE(monitor_->stop());
  EXPECT_TRUE(monitor_->stop());
  EXPECT_FALSE(monitor_->started);
}

}  // namespace
