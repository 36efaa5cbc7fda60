// DRM discovery through the real plug-in, on each fake machine: the exact
// trace block the scan writes, and the records it leaves (identity, back-end
// indices, first readings). Names from the GPU database are checked apart
// (drm_naming_test.cpp).
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "tests/drm/drm_test_files.h"
#include "zev/gpu.h"

namespace {

using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

// A machine entered, a monitor initialised in it, and what it traced.
class Discovery {
 public:
  explicit Discovery(const std::string& machine) : scope_(machine) {
    if (!scope_.ok() || !plugin_.ok()) return;
    monitor_ = plugin_.create();
    if (monitor_ != nullptr) monitor_->initialize();
  }
  ~Discovery() {
    if (monitor_ != nullptr) {
      monitor_->terminate();
      plugin_.destroy_raw(monitor_);
    }
  }

  bool ok() const { return scope_.ok() && monitor_ != nullptr; }
  std::string error() const { return scope_.ok() ? "plug-in not loaded" : scope_.error(); }
  zev::GpuMonitor* monitor() { return monitor_; }
  std::vector<std::string> block() const { return drm_test::drm_block(traces_.texts()); }
  const zev::GPU& gpu(unsigned long slot) { return *monitor_->get_gpu(slot); }

 private:
  TraceCapture traces_;
  MachineScope scope_;
  PluginHandle plugin_;
  zev::GpuMonitor* monitor_ = nullptr;
};

#define ENTER(d, machine) \
  Discovery d(machine);   \
  ASSERT_TRUE(d.ok()) << d.error()

void expect_unread(const zev::gpuClock& c) {
  EXPECT_EQ(c.current, -1.0f);
  EXPECT_EQ(c.min, -1.0f);
  EXPECT_EQ(c.max, -1.0f);
}

void expect_no_hwmon_sensors(const zev::GPU& g) {
  EXPECT_STREQ(g.driver_name, "");
  expect_unread(g.core_clock);
  expect_unread(g.memory_clock);
  EXPECT_EQ(g.temperatures[0].current, -1.0f);
  EXPECT_EQ(g.drm_temp_input_index, -1);
  EXPECT_EQ(g.drm_power_index, -1);
  EXPECT_EQ(g.power.watts, -1.0f);
  EXPECT_EQ(g.power.current, -1.0f);
  EXPECT_EQ(g.num_fans, 0u);
  EXPECT_EQ(g.fans, nullptr);
  EXPECT_EQ(g.sensor_available[0], 0);
}

TEST(DrmDiscovery, Rdna3CardOneWithoutCardZero) {
  ENTER(d, "amd-rdna3-rx7900xtx");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 1",
                           "  - hwmon index: 3",
                           "  - device ID: 1002-744C",
                           "  - revision ID: C8",
                           "  - subdevice ID: 1DA2-471E",
                           "  - VBIOS: 113-D7020100-102",
                           "  - core usage: 7 %",
                           "  - driver: amdgpu",
                           "  - core clock: 1850 MHz",
                           "  - mem clock: 1249 MHz",
                           "  - core temperature: 52 °C",
                           "  - power: 86 W",
                           "  - num fans: 1",
                           "    > fan[1] speed: 1102 RPM",
                           "num GPUs in DRM: 1",
                       }));
  ASSERT_EQ(d.monitor()->get_num_gpus(), 1u);
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.drm_card_index, 1);
  EXPECT_EQ(g.drm_hwmon_index, 3);
  EXPECT_EQ(g.drm_temp_input_index, 1);
  EXPECT_EQ(g.drm_power_index, 1);
  EXPECT_EQ(g.nvidia_gpu_index, -1);
  EXPECT_EQ(g.vendor_id, 0x1002u);
  EXPECT_EQ(g.device_id, 0x744Cu);
  EXPECT_EQ(g.revision_id, 0xC8u);
  EXPECT_EQ(g.subvendor_id, 0x1DA2u);
  EXPECT_EQ(g.subdevice_id, 0x471Eu);
  EXPECT_STREQ(g.vbios_version, "113-D7020100-102");
  EXPECT_STREQ(g.driver_name, "amdgpu");
  // First readings: current values only, except the core temperature,
  // which folds into its minimum and maximum.
  EXPECT_EQ(g.core_usage[0], 7.0f);
  EXPECT_EQ(g.core_usage[1], -1.0f);
  EXPECT_EQ(g.core_usage[2], -1.0f);
  EXPECT_EQ(g.memory_usage[0], -1.0f);
  EXPECT_EQ(g.core_clock.current, 1850.0f);
  EXPECT_EQ(g.core_clock.min, -1.0f);
  EXPECT_EQ(g.memory_clock.current, 1249.0f);
  EXPECT_EQ(g.temperatures[0].current, 52.0f);
  EXPECT_EQ(g.temperatures[0].min, 52.0f);
  EXPECT_EQ(g.temperatures[0].max, 52.0f);
  EXPECT_EQ(g.temperatures[2].current, -1.0f);
  EXPECT_EQ(g.power.watts, 86.0f);
  EXPECT_EQ(g.power.current, 0.001f * 86.0f);
  EXPECT_EQ(g.power.value, -1.0f);
  ASSERT_EQ(g.num_fans, 1u);
  ASSERT_NE(g.fans, nullptr);
  EXPECT_EQ(g.fans[0].rpm, 1102.0f);
  EXPECT_EQ(g.fans[0].speed_percent, -1.0f);
  EXPECT_EQ(g.sensor_available[0], 1);
  EXPECT_EQ(g.sensor_available[2], 1);
  EXPECT_EQ(g.sensor_available[3], 0);
  EXPECT_EQ(g.sensor_available[4], 0);
  EXPECT_TRUE(g.monitorable);
  EXPECT_EQ(g.nvml_device, nullptr);
}

TEST(DrmDiscovery, Rdna4CardZeroIdleWithStoppedFan) {
  ENTER(d, "amd-rdna4-rx9070xt");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - hwmon index: 2",
                           "  - device ID: 1002-7550",
                           "  - revision ID: C0",
                           "  - subdevice ID: 1DA2-E490",
                           "  - VBIOS: 113-EXT90181-001",
                           "  - core usage: 0 %",
                           "  - driver: amdgpu",
                           "  - core clock: 134 MHz",
                           "  - mem clock: 96 MHz",
                           "  - core temperature: 38 °C",
                           "  - power: 19 W",
                           "  - num fans: 1",
                           "    > fan[1] speed: 0 RPM",
                           "num GPUs in DRM: 1",
                       }));
  ASSERT_EQ(d.monitor()->get_num_gpus(), 1u);
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.drm_card_index, 0);
  EXPECT_EQ(g.drm_hwmon_index, 2);
  EXPECT_EQ(g.revision_id, 0xC0u);
  // A reading of 0 is a reading.
  EXPECT_EQ(g.core_usage[0], 0.0f);
  EXPECT_EQ(g.fans[0].rpm, 0.0f);
  EXPECT_EQ(g.power.watts, 19.0f);
  EXPECT_TRUE(g.monitorable);
}

TEST(DrmDiscovery, PolarisPowerFromInputOnly) {
  ENTER(d, "amd-polaris-rx580");
  const std::vector<std::string> block = d.block();
  ASSERT_EQ(block.size(), 16u);
  EXPECT_EQ(block[1], "> GPU 0");
  EXPECT_EQ(block[2], "  - hwmon index: 0");
  EXPECT_EQ(block[3], "  - device ID: 1002-67DF");
  EXPECT_EQ(block[4], "  - revision ID: E7");
  EXPECT_EQ(block[5], "  - subdevice ID: 1DA2-E366");
  EXPECT_EQ(block[10], "  - mem clock: 2000 MHz");
  EXPECT_EQ(block[11], "  - core temperature: 57 °C");
  EXPECT_EQ(block[12], "  - power: 97 W");
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.drm_hwmon_index, 0);
  EXPECT_EQ(g.drm_power_index, 1);
  EXPECT_EQ(g.power.watts, 97.0f);
  EXPECT_EQ(g.drm_temp_input_index, 1);
}

TEST(DrmDiscovery, IntelI915CardsHaveNoReadableSensors) {
  ENTER(d, "intel-arc-a770-i915");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - device ID: 8086-4680",
                           "  - revision ID:  C",
                           "  - subdevice ID: 1043-8882",
                           "> GPU 1",
                           "  - hwmon index: 4",
                           "  - device ID: 8086-56A0",
                           "  - revision ID:  8",
                           "  - subdevice ID: 8086-1020",
                           "  - driver: i915",
                           "num GPUs in DRM: 2",
                       }));
  ASSERT_EQ(d.monitor()->get_num_gpus(), 2u);
  // The integrated GPU has no hwmon: the probe loop ran to its limit.
  const zev::GPU& igpu = d.gpu(0);
  EXPECT_EQ(igpu.drm_card_index, 0);
  EXPECT_EQ(igpu.drm_hwmon_index, 8);
  EXPECT_EQ(igpu.revision_id, 0x0Cu);
  EXPECT_STREQ(igpu.vbios_version, "");
  EXPECT_EQ(igpu.core_usage[0], -1.0f);
  expect_no_hwmon_sensors(igpu);
  EXPECT_FALSE(igpu.monitorable);
  // The Arc card's hwmon holds limits and energy only.
  const zev::GPU& arc = d.gpu(1);
  EXPECT_EQ(arc.drm_card_index, 1);
  EXPECT_EQ(arc.drm_hwmon_index, 4);
  EXPECT_EQ(arc.revision_id, 0x08u);
  EXPECT_STREQ(arc.driver_name, "i915");
  expect_unread(arc.core_clock);
  EXPECT_EQ(arc.drm_temp_input_index, -1);
  EXPECT_EQ(arc.drm_power_index, -1);
  EXPECT_EQ(arc.num_fans, 0u);
  EXPECT_FALSE(arc.monitorable);
}

TEST(DrmDiscovery, IntelXeTemperatureFromSensorTwoAndThreeFans) {
  ENTER(d, "intel-arc-b580-xe");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - hwmon index: 5",
                           "  - device ID: 8086-E20B",
                           "  - revision ID:  0",
                           "  - subdevice ID: 8086-1100",
                           "  - driver: xe",
                           "  - core temperature: 47 °C",
                           "  - num fans: 3",
                           "    > fan[1] speed: 1320 RPM",
                           "    > fan[2] speed: 1315 RPM",
                           "    > fan[3] speed: 0 RPM",
                           "num GPUs in DRM: 1",
                       }));
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.drm_temp_input_index, 2);
  EXPECT_EQ(g.temperatures[0].current, 47.0f);
  EXPECT_EQ(g.drm_power_index, -1);
  EXPECT_EQ(g.power.watts, -1.0f);
  ASSERT_EQ(g.num_fans, 3u);
  EXPECT_EQ(g.fans[0].rpm, 1320.0f);
  EXPECT_EQ(g.fans[1].rpm, 1315.0f);
  EXPECT_EQ(g.fans[2].rpm, 0.0f);
  EXPECT_EQ(g.core_usage[0], -1.0f);
  EXPECT_EQ(g.sensor_available[2], 0);
  EXPECT_TRUE(g.monitorable);  // through its temperature
}

TEST(DrmDiscovery, ApuWithoutMemoryClockOrFans) {
  ENTER(d, "amd-apu-phoenix-780m");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - hwmon index: 6",
                           "  - device ID: 1002-15BF",
                           "  - revision ID: C1",
                           "  - subdevice ID: 17AA-3881",
                           "  - VBIOS: 113-PHXGENERIC-001",
                           "  - core usage: 12 %",
                           "  - driver: amdgpu",
                           "  - core clock: 800 MHz",
                           "  - core temperature: 45 °C",
                           "  - power: 9 W",
                           "num GPUs in DRM: 1",
                       }));
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.core_clock.current, 800.0f);
  expect_unread(g.memory_clock);
  EXPECT_EQ(g.num_fans, 0u);
  EXPECT_EQ(g.fans, nullptr);
  EXPECT_EQ(g.power.watts, 9.0f);
}

TEST(DrmDiscovery, NvidiaCardSeenOnlyThroughDrmIsKept) {
  ENTER(d, "nvidia-gtx1060-nouveau");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - hwmon index: 1",
                           "  - device ID: 10DE-1C03",
                           "  - revision ID: A1",
                           "  - subdevice ID: 1462-3285",
                           "  - driver: nouveau",
                           "  - core temperature: 38 °C",
                           "  - num fans: 1",
                           "    > fan[1] speed: 1020 RPM",
                           "num GPUs in DRM: 1",
                       }));
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.vendor_id, 0x10DEu);
  EXPECT_EQ(g.nvidia_gpu_index, -1);
  EXPECT_EQ(g.nvml_device, nullptr);
  EXPECT_STREQ(g.vbios_version, "");
  EXPECT_TRUE(g.monitorable);
}

TEST(DrmDiscovery, CardWithoutHwmonIsMonitoredByItsUsageOnly) {
  ENTER(d, "amd-sriov-vf-no-hwmon");
  EXPECT_EQ(d.block(), (std::vector<std::string>{
                           "DRM: scanning GPUs...",
                           "> GPU 0",
                           "  - device ID: 1002-7362",
                           "  - revision ID: C3",
                           "  - subdevice ID: 1002- A34",
                           "  - VBIOS: 113-D3980100-O00",
                           "  - core usage: 0 %",
                           "num GPUs in DRM: 1",
                       }));
  const zev::GPU& g = d.gpu(0);
  EXPECT_EQ(g.drm_card_index, 0);
  EXPECT_EQ(g.drm_hwmon_index, 8);
  expect_no_hwmon_sensors(g);
  EXPECT_EQ(g.core_usage[0], 0.0f);
  EXPECT_EQ(g.sensor_available[2], 1);
  EXPECT_TRUE(g.monitorable);
}

TEST(DrmDiscovery, GapsInCardNumbersAndTheEightCardLimit) {
  ENTER(d, "amd-multi-card-gaps");
  const std::vector<std::string> block = d.block();
  ASSERT_EQ(block.size(), 30u);
  EXPECT_EQ(block[1], "> GPU 2");
  EXPECT_EQ(block[2], "  - hwmon index: 6");
  EXPECT_EQ(block[3], "  - device ID: 1002-73FF");
  EXPECT_EQ(block[15], "> GPU 4");
  EXPECT_EQ(block[16], "  - hwmon index: 7");
  EXPECT_EQ(block[17], "  - device ID: 1002-743F");
  EXPECT_EQ(block[28], "    > fan[1] speed: 0 RPM");
  EXPECT_EQ(block[29], "num GPUs in DRM: 2");
  // card9 lies beyond card0..card7 and is never tried.
  ASSERT_EQ(d.monitor()->get_num_gpus(), 2u);
  EXPECT_EQ(d.gpu(0).drm_card_index, 2);
  EXPECT_EQ(d.gpu(0).device_id, 0x73FFu);
  EXPECT_EQ(d.gpu(0).core_clock.current, 2089.0f);
  EXPECT_EQ(d.gpu(1).drm_card_index, 4);
  EXPECT_EQ(d.gpu(1).drm_hwmon_index, 7);
  EXPECT_EQ(d.gpu(1).device_id, 0x743Fu);
}

TEST(DrmDiscovery, NoGpuTraces) {
  for (const char* machine : {"drm-vendor-zero", "desktop-no-gpu"}) {
    SCOPED_TRACE(machine);
    ENTER(d, machine);
    EXPECT_EQ(d.block(), (std::vector<std::string>{"DRM: scanning GPUs...", "DRM: no GPU found."}));
    EXPECT_EQ(d.monitor()->get_num_gpus(), 0u);
  }
}

}  // namespace
