// Sensor dispatch, refresh and the update thread. Dispatch: which back-end
// each sensor of a record is read from, given the record's indices, and what
// lands in the record. Refresh: what update_dynamic_data stores as the
// machine's values move on. Thread: started only with GPUs, refreshing every
// period while enabled, stopped within a period, not restartable once stopped
// (the quit flag stays set, by design), one at a time (a second start only
// changes the period), and stopped by terminate.
//
// The thread writes sensor values that these tests read without a lock, as a
// host does; tools/tsan.supp names exactly those races.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "drm_host.h"
#include "plugin/gpu_monitor_vorn.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

const float kUnset = -1.0f;
const std::string kRx7900xtx = "amd-rdna3-rx7900xtx";  // card1, hwmon3
const std::string kHwmon = "/sys/class/drm/card1/device/hwmon/hwmon3/";

// The plug-in stays loaded for the whole run: sanitizer symbolizers learn the
// process's libraries once, so it has to be there before the first report
// for race reports (and their suppressions) to name its functions.
PluginHandle g_plugin_loaded_throughout;

// ------------------------------------------------------------- routing

struct Route {
  std::string machine;
  int nv_smi, card, hwmon, temp_input, power_input;
  uint64_t vendor;
  std::string reads;  // what clocks, usages, temperatures, power, fans return: 1 or 0
  float core_mhz, mem_mhz, usage, core_c, mem_c, watts, fan_rpm, fan_percent;
};

const float N = kUnset;  // not read

// clang-format off
const std::vector<Route> kRoutes = {
    {kRx7900xtx, -1, 1, 3, 1, 1, 0x1002, "11111", 1850, 1249, 7, 52, N, 86, 1102, N},
    {kRx7900xtx, -1, 1, 3, 2, 1, 0x1002, "11111", 1850, 1249, 7, 61, N, 86, 1102, N},
    // GPU busy percent belongs to the card: it needs no hwmon. A hwmon index
    // past the probe's limit (8) reads nothing, but the fan loop still runs.
    {kRx7900xtx, -1, 1, -1, 1, 1, 0x1002, "01000", N, N, 7, N, N, N, N, N},
    {kRx7900xtx, -1, 1, 8, 1, 1, 0x1002, "01001", N, N, 7, N, N, N, N, N},
    {kRx7900xtx, -1, 1, 3, -1, -1, 0x1002, "11001", 1850, 1249, 7, N, N, N, 1102, N},
    {kRx7900xtx, -1, -1, 3, 1, 1, 0x1002, "00000", N, N, N, N, N, N, N, N},
    // nvidia-smi and Raspberry Pi records on a machine without either.
    {kRx7900xtx, 0, -1, -1, -1, -1, 0x10DE, "00000", N, N, N, N, N, N, N, N},
    {kRx7900xtx, -1, -1, -1, -1, -1, 0x14E4, "00000", N, N, N, N, N, N, N, N},
    // nvidia-smi's GPU 0, with a memory temperature. Its fan answers "[N/A]"
    // (a passively cooled board): no reading, so no fan record.
    {std::string(ZEV_BIN_DIR) + "/../machines/nvidia-h100-sxm", 0, -1, -1, -1, -1, 0x10DE, "11110",
     345, 2619, 0, 32, 30, 71, N, N},
    // A board whose fan nvidia-smi reads: its one fan record is made on the
    // first reading, which is a percentage (no RPM); "N/A" is no memory
    // temperature.
    {std::string(ZEV_BIN_DIR) + "/../machines/nvidia-rtx5090-rtx4080s-smi", 0, -1, -1, -1, -1,
     0x10DE, "11111", 390, 405, 3, 38, N, 27, N, 30},
};
// clang-format on

TEST(Dispatch, EachSensorComesFromTheSourcesTheRecordAllows) {
  for (const Route& r : kRoutes) {
    SCOPED_TRACE("route " + std::to_string(&r - kRoutes.data()));
    MachineScope scope(r.machine);
    ASSERT_TRUE(scope.ok()) << scope.error();
    GpuMonitorVorn m;
    zev::GPU* g = m.create_gpu();
    g->vendor_id = r.vendor;
    g->nvidia_gpu_index = r.nv_smi;
    g->drm_card_index = r.card;
    g->drm_hwmon_index = r.hwmon;
    g->drm_temp_input_index = r.temp_input;
    g->drm_power_index = r.power_input;
    if (r.card >= 0) {  // the DRM scan allocates the fans it counted
      g->num_fans = 1;
      g->fans = new zev::gpuFanSpeed[1];
    }
    float core = kUnset, mem = kUnset, usage = kUnset, memory_usage = kUnset, core_c = kUnset,
          mem_c = kUnset, unused = kUnset, watts = kUnset;
    std::string reads;
    reads += m.gpu_get_clocks(0, &core, &mem) ? '1' : '0';
    reads += m.gpu_get_usages(0, &usage, &memory_usage, nullptr, nullptr) ? '1' : '0';
    reads += m.gpu_get_temperatures(0, &core_c, &mem_c, nullptr, nullptr) ? '1' : '0';
    reads += m.gpu_power_get_current_value(0, &unused, &watts) ? '1' : '0';
    reads += m.gpu_read_fan_speed(0) ? '1' : '0';
    EXPECT_EQ(reads, r.reads);
    // What the calls hand back, and what the record keeps: every reading
    // starts the running range of its triple.
    EXPECT_EQ(core, r.core_mhz);
    EXPECT_EQ(mem, r.mem_mhz);
    EXPECT_EQ(usage, r.usage);
    EXPECT_EQ(core_c, r.core_c);
    EXPECT_EQ(mem_c, r.mem_c);
    EXPECT_EQ(unused, kUnset);
    EXPECT_EQ(watts, r.watts == kUnset ? kUnset : 0.001f * r.watts);
    EXPECT_EQ(g->core_clock.min, r.core_mhz);
    EXPECT_EQ(g->core_clock.max, r.core_mhz);
    EXPECT_EQ(g->core_usage[1], r.usage);
    EXPECT_EQ(g->core_usage[2], r.usage);
    EXPECT_EQ(g->temperatures[0].min, r.core_c);
    EXPECT_EQ(g->temperatures[0].max, r.core_c);
    EXPECT_EQ(g->temperatures[2].current, r.mem_c);
    EXPECT_EQ(g->power.watts, r.watts);
    EXPECT_EQ(g->power.value, kUnset);  // power keeps no range
    if (g->fans != nullptr) {
      EXPECT_EQ(g->fans[0].rpm, r.fan_rpm);
      EXPECT_EQ(g->fans[0].speed_percent, r.fan_percent);
    }
    // Fans by position within the record's count; GPUs past the list.
    float percent = 0.0f, rpm = 0.0f;
    EXPECT_EQ(m.gpu_get_fan_speed(0, 0, &percent, &rpm), g->fans != nullptr);
    EXPECT_FALSE(m.gpu_get_fan_speed(0, g->num_fans, &percent, &rpm));
    EXPECT_FALSE(m.gpu_get_clocks(1, &core, &mem) ||
                 m.gpu_get_usages(1, &usage, nullptr, nullptr, nullptr) ||
                 m.gpu_get_temperatures(1, &core_c, nullptr, nullptr, nullptr) ||
                 m.gpu_power_get_current_value(1, nullptr, &watts) || m.gpu_read_fan_speed(1) ||
                 m.gpu_get_fan_speed(1, 0, &percent, &rpm));
    m.cleanup_gpus_list();
  }
}

// ------------------------------------------------------------- refresh

// The machine's sequences, stepped by hand: each refresh through the plug-in
// reads the next value of every sensor, and the ranges follow.
TEST(Dispatch, EachRefreshStoresTheNextValuesAndTheirRange) {
  ENTER_HOST(host, kRx7900xtx);
  ASSERT_EQ(host->get_num_gpus(), 1u);
  const zev::GPU& g = host.gpu(0);
  const std::vector<float> celsius = {52, 54, 57, 61, 64, 66, 63, 59};
  const std::vector<float> usage = {7, 35, 68, 99, 100, 97, 74, 40};
  const std::vector<float> mhz = {1850, 1925, 2010, 2105, 2482, 2430, 1700, 1200};
  const std::vector<float> watts = {86, 142, 265, 339, 331, 310, 220, 120};
  const std::vector<float> rpm = {1102, 1180, 1350, 1620, 1700, 1760, 1550, 1400};
  float t_min = 52, t_max = 52, u_min = 1e9, u_max = -1e9, c_min = 1e9, c_max = -1e9;
  for (size_t step = 1; step <= celsius.size(); ++step) {
    SCOPED_TRACE(step);
    const size_t k = step % celsius.size();
    ASSERT_TRUE(machine::step_sequences());
    EXPECT_TRUE(host->update_dynamic_data());
    t_min = std::min(t_min, celsius[k]), t_max = std::max(t_max, celsius[k]);
    u_min = std::min(u_min, usage[k]), u_max = std::max(u_max, usage[k]);
    c_min = std::min(c_min, mhz[k]), c_max = std::max(c_max, mhz[k]);
    EXPECT_EQ(g.temperatures[0].current, celsius[k]);
    EXPECT_EQ(g.temperatures[0].min, t_min);  // since the scan's first reading
    EXPECT_EQ(g.temperatures[0].max, t_max);
    EXPECT_EQ(g.core_usage[0], usage[k]);
    EXPECT_EQ(g.core_usage[1], u_min);
    EXPECT_EQ(g.core_usage[2], u_max);
    EXPECT_EQ(g.core_clock.current, mhz[k]);
    EXPECT_EQ(g.core_clock.min, c_min);
    EXPECT_EQ(g.core_clock.max, c_max);
    EXPECT_EQ(g.memory_clock.current, 1249.0f);
    EXPECT_EQ(g.power.watts, watts[k]);
    EXPECT_EQ(g.power.current, 0.001f * watts[k]);
    EXPECT_EQ(g.fans[0].rpm, rpm[k]);
    EXPECT_EQ(g.fans[0].speed_percent, kUnset);
  }
  EXPECT_TRUE(host->terminate());
  EXPECT_FALSE(host->update_dynamic_data());  // no GPU left
}

// Records that are not monitorable, or that NVML refreshes, are left alone;
// sensors that vanish keep their last values.
TEST(UpdateLoop, RefreshSkipsWhatItMustAndKeepsLastValues) {
  MachineScope scope(kRx7900xtx);
  ASSERT_TRUE(scope.ok()) << scope.error();
  TraceCapture traces;
  GpuMonitorVorn m;
  EXPECT_FALSE(m.update_dynamic_data());
  ASSERT_TRUE(m.initialize());
  zev::GPU* g = m.get_gpu(0);
  drm_test::edit({{kHwmon + "temp1_input", "70000\n"}});
  int handle = 0;
  for (bool monitorable : {false, true}) {
    g->monitorable = monitorable;
    g->nvml_device = monitorable ? &handle : nullptr;
    EXPECT_TRUE(m.update_dynamic_data());
    EXPECT_EQ(g->temperatures[0].current, 52.0f);
  }
  g->nvml_device = nullptr;
  EXPECT_TRUE(m.update_dynamic_data());
  EXPECT_EQ(g->temperatures[0].current, 70.0f);
  drm_test::edit({{"/sys/class/drm/card1/device/hwmon", nullptr},
                  {"/sys/class/drm/card1/device/gpu_busy_percent", ""}});
  EXPECT_TRUE(m.update_dynamic_data());
  EXPECT_EQ(g->temperatures[0].current, 70.0f);
  EXPECT_EQ(g->core_usage[0], 7.0f);
  EXPECT_EQ(g->power.watts, 86.0f);
  m.terminate();
}

// ------------------------------------------------------------- update thread

const milliseconds kSlack(1500);

bool wait_until(const std::function<bool()>& done) {
  const Clock::time_point end = Clock::now() + kSlack * 2;
  while (Clock::now() < end && !done()) std::this_thread::sleep_for(milliseconds(2));
  return done();
}

milliseconds time_of(const std::function<void()>& action) {
  const Clock::time_point start = Clock::now();
  action();
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

void set_temperature(int celsius) {
  drm_test::edit({{kHwmon + "temp1_input", (std::to_string(celsius * 1000) + "\n").c_str()}});
}

class UpdateThread : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(scope_.ok()) << scope_.error();
    EXPECT_FALSE(monitor_.start_update_thread(10));  // no GPU yet
    EXPECT_EQ(monitor_.update_thread, pthread_t(0));
    ASSERT_TRUE(monitor_.initialize());
  }
  void TearDown() override { monitor_.terminate(); }
  float temperature() { return monitor_.get_gpu(0)->temperatures[0].current; }

  TraceCapture traces_;
  MachineScope scope_{kRx7900xtx};
  GpuMonitorVorn monitor_;
};

TEST_F(UpdateThread, RefreshesEveryPeriodWhileEnabled) {
  ASSERT_TRUE(monitor_.start_update_thread(20));
  set_temperature(70);
  EXPECT_TRUE(wait_until([&] { return temperature() == 70.0f; }));
  monitor_.update_enabled = false;
  std::this_thread::sleep_for(milliseconds(60));
  set_temperature(80);
  std::this_thread::sleep_for(milliseconds(200));  // ten periods
  EXPECT_EQ(temperature(), 70.0f);
  monitor_.update_enabled = true;  // taken up at the next pass
  EXPECT_TRUE(wait_until([&] { return temperature() == 80.0f; }));
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }),
            milliseconds(40) + kSlack);
  EXPECT_EQ(monitor_.update_thread, pthread_t(0));
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].min, 52.0f);
  EXPECT_EQ(monitor_.get_gpu(0)->temperatures[0].max, 80.0f);
}

TEST_F(UpdateThread, StopWaitsForTheSleepAndARestartLeavesAtOnce) {
  ASSERT_TRUE(monitor_.start_update_thread(300));
  std::this_thread::sleep_for(milliseconds(30));
  const milliseconds took = time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); });
  EXPECT_GE(took, milliseconds(150));  // the sleep is not cut short
  EXPECT_LT(took, milliseconds(600) + kSlack);
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }), milliseconds(50));
  // The quit flag is still set: the new thread ends before its first pass.
  set_temperature(70);
  ASSERT_TRUE(monitor_.start_update_thread(5000));
  EXPECT_NE(monitor_.update_thread, pthread_t(0));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ(temperature(), 52.0f);
  EXPECT_LT(time_of([&] { EXPECT_TRUE(monitor_.stop_update_thread()); }), kSlack);
}

TEST_F(UpdateThread, ASecondStartOnlyChangesThePeriod) {
  ASSERT_TRUE(monitor_.start_update_thread(20));
  const pthread_t first = monitor_.update_thread;
  ASSERT_TRUE(monitor_.start_update_thread(30));
  EXPECT_TRUE(pthread_equal(monitor_.update_thread, first));
  EXPECT_EQ(monitor_.update_period_ms, 30u);
  EXPECT_TRUE(monitor_.stop_update_thread());
  EXPECT_EQ(monitor_.update_thread, pthread_t(0));
}

// A long run at a short period while the host reads what the thread writes:
// long enough for the sanitizers to lose old stacks (the races it has are
// named by tools/tsan.supp on the writing side).
TEST(UpdateThreadThroughThePlugin, LongRunAtAShortPeriod) {
  ASSERT_TRUE(g_plugin_loaded_throughout.ok());
  ENTER_HOST(host, kRx7900xtx);
  ASSERT_TRUE(host->start_update_thread(2));
  ASSERT_TRUE(host->start_update_thread(2));
  const zev::GPU* gpu = host->get_gpu(0);
  float seen = 0.0f;
  for (const Clock::time_point end = Clock::now() + milliseconds(2000); Clock::now() < end;) {
    seen += gpu->temperatures[0].current + gpu->core_usage[0] + gpu->power.watts;
    std::this_thread::sleep_for(milliseconds(1));
  }
  EXPECT_GT(seen, 0.0f);
  EXPECT_TRUE(host->terminate());
}

TEST(UpdateThreadThroughThePlugin, StartRefreshTerminate) {
  ASSERT_TRUE(g_plugin_loaded_throughout.ok());
  ENTER_HOST(host, kRx7900xtx);
  ASSERT_TRUE(host->start_update_thread(20));
  drm_test::edit({{kHwmon + "fan1_input", "1999\n"}});
  const zev::GPU* gpu = host->get_gpu(0);
  EXPECT_TRUE(wait_until([&] { return gpu->fans[0].rpm == 1999.0f; }));
  EXPECT_LT(time_of([&] { EXPECT_TRUE(host->terminate()); }), milliseconds(40) + kSlack);
  EXPECT_EQ(host->get_num_gpus(), 0u);
}

}  // namespace
