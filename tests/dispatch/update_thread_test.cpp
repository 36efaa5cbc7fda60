// The update thread: started only with GPUs, refreshing every period while
// enabled, idling while disabled, stopped (and joined) within a period, not
// restartable once stopped (the quit flag stays set, by design), and stopped
// by terminate. Time bounds are generous liveness limits, not speed goals.
//
// The thread writes sensor values that these tests read without a lock, as
// the host does; tools/tsan.supp names exactly those races.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using Clock = std::chrono::steady_clock;
using drm_test::hwmon_dir;
using drm_test::put;
using std::chrono::milliseconds;
using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

const milliseconds kSlack(1500);

// The plug-in stays loaded for the whole run: sanitizer symbolizers learn the
// process's libraries once, so it has to be there before the first report
// for race reports (and their suppressions) to name its functions.
PluginHandle g_plugin_loaded_throughout;

bool wait_until(const std::function<bool()>& done, milliseconds limit = kSlack * 2) {
  const Clock::time_point end = Clock::now() + limit;
  while (Clock::now() < end) {
    if (done()) return true;
    std::this_thread::sleep_for(milliseconds(2));
  }
  return done();
}

milliseconds time_of(const std::function<void()>& action) {
  const Clock::time_point start = Clock::now();
  action();
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

void set_temperature(int celsius) {
  put(hwmon_dir(1, 3) + "/temp1_input", std::to_string(celsius * 1000) + "\n");
}

class UpdateThread : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(scope_.ok()) << scope_.error(); }
  void TearDown() override { monitor_.terminate(); }

  void initialize() {
    ASSERT_TRUE(monitor_.initialize());
    ASSERT_EQ(monitor_.get_num_gpus(), 1u);
  }
  float temperature() { return monitor_.get_gpu(0)->temperatures[0].current; }

  TraceCapture traces_;
  MachineScope scope_{"amd-rdna3-rx7900xtx"};
  GpuMonitorVorn monitor_;
};

TEST_F(UpdateThread, NotStartedWithoutGpus) {
  EXPECT_FALSE(monitor_.start_update_thread(10));
  EXPECT_EQ(monitor_.update_thread, pthread_t(0));
  EXPECT_EQ(monitor_.update_period_ms, 1000u);
  EXPECT_TRUE(monitor_.stop_update_thread());
}

TEST_F(UpdateThread, RefreshesEveryPeriodWhileRunning) {
  initialize();
  ASSERT_TRUE(monitor_.start_update_thread(20));
  EXPECT_NE(monitor_.update_thread, pthread_t(0));
  EXPECT_EQ(monitor_.update_period_ms, 20u);
  set_temperature(70);
  EXPECT_TRUE(wait_until([&] { return temperature() == 70.0f; }));
  set_temperature(45);
  EXPECT_TRUE(wait_until([&] { return temperature() == 45.0f; }));
  EXPECT_TRUE(monitor_.stop_update_thread());
  // The range was kept across the thread's readings.
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].min, 45.0f);
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].max, 70.0f);
}

TEST_F(UpdateThread, ADisabledThreadKeepsWakingButReadsNothing) {
  initialize();
  monitor_.update_enabled = false;
  ASSERT_TRUE(monitor_.start_update_thread(20));
  set_temperature(70);
  std::this_thread::sleep_for(milliseconds(200));  // ten periods
  EXPECT_EQ(temperature(), 52.0f);
  monitor_.update_enabled = true;  // taken up at the next pass
  EXPECT_TRUE(wait_until([&] { return temperature() == 70.0f; }));
  monitor_.update_enabled = false;
  std::this_thread::sleep_for(milliseconds(60));
  set_temperature(80);
  std::this_thread::sleep_for(milliseconds(200));
  EXPECT_EQ(temperature(), 70.0f);
  // Still alive: it answers the stop within its period.
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }),
            milliseconds(20 * 2) + kSlack);
}

TEST_F(UpdateThread, StopWaitsForTheCurrentSleepAndNoLonger) {
  initialize();
  ASSERT_TRUE(monitor_.start_update_thread(300));
  std::this_thread::sleep_for(milliseconds(30));
  const milliseconds took = time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); });
  EXPECT_LT(took, milliseconds(300 * 2) + kSlack);
  EXPECT_GE(took, milliseconds(150));  // the sleep is not cut short
  EXPECT_EQ(monitor_.update_thread, pthread_t(0));
  EXPECT_TRUE(monitor_.update_thread_quit);
  // Stopping again has nothing to wait for.
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }), milliseconds(50));
}

TEST_F(UpdateThread, ARestartedThreadLeavesAtOnce) {
  initialize();
  ASSERT_TRUE(monitor_.start_update_thread(20));
  ASSERT_TRUE(monitor_.stop_update_thread());
  set_temperature(70);
  // The quit flag is still set: the new thread ends before its first pass.
  ASSERT_TRUE(monitor_.start_update_thread(5000));
  EXPECT_NE(monitor_.update_thread, pthread_t(0));
  EXPECT_EQ(monitor_.update_period_ms, 5000u);
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(temperature(), 52.0f);
  // Nothing to wait for: the thread never slept its 5 s.
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }), kSlack);
}

TEST_F(UpdateThread, TerminateStopsARunningThread) {
  initialize();
  ASSERT_TRUE(monitor_.start_update_thread(50));
  set_temperature(70);
  EXPECT_TRUE(wait_until([&] { return temperature() == 70.0f; }));
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.terminate()); }), milliseconds(50 * 2) + kSlack);
  EXPECT_EQ(monitor_.update_thread, pthread_t(0));
  EXPECT_EQ(monitor_.get_num_gpus(), 0u);
}

TEST(UpdateThreadThroughThePlugin, StartRefreshTerminate) {
  TraceCapture traces;
  MachineScope scope("amd-rdna3-rx7900xtx");
  ASSERT_TRUE(scope.ok()) << scope.error();
  ASSERT_TRUE(g_plugin_loaded_throughout.ok());
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  zev::GpuMonitor* monitor = plugin.create();
  EXPECT_FALSE(monitor->start_update_thread(20));  // no GPUs before initialize
  ASSERT_TRUE(monitor->initialize());
  ASSERT_TRUE(monitor->start_update_thread(20));
  put(hwmon_dir(1, 3) + "/fan1_input", "1999\n");
  const zev::GPU* gpu = monitor->get_gpu(0);
  EXPECT_TRUE(wait_until([&] { return gpu->fans[0].rpm == 1999.0f; }));
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor->terminate()); }), milliseconds(20 * 2) + kSlack);
  EXPECT_EQ(monitor->get_num_gpus(), 0u);
  plugin.destroy_raw(monitor);
}

}  // namespace
