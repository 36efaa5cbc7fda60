// NVML refresh: the periodic refresh that update_dynamic_data() runs first,
// and the three on-demand refreshes (power, per-process utilization, PCIe
// throughput). The machines' NVML data hands out lists of values in turn, so
// every refresh sees the next reading; failures are configured per call
// ("from <n>": from the n-th call on, so that discovery still succeeds).
// Each case runs in a child inside its machine (see nvml_discovery_test).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

namespace {

using nvidia_test::lines_of;
using nvidia_test::Machine;
using nvidia_test::nvml_calls;
using nvidia_test::nvml_calls_of;
using nvidia_test::nvml_reset_calls;
using nvidia_test::run_inside;
using testing_support::read_file;
using testing_support::TraceCapture;

const char kNvml[] = "nvidia/nvml.conf";

// A monitor whose NVML discovery ran.
struct Nvml {
  GpuMonitorVorn monitor;
  TraceCapture traces;

  Nvml() { EXPECT_TRUE(monitor.nvml_initialize()); }
  ~Nvml() { monitor.cleanup_gpus_list(); }
  zev::GPU* gpu(unsigned long i) { return monitor.nvml_get_gpu(i); }
  bool refresh() { return monitor.nvml_update_dynamic_data(); }
};

std::vector<int32_t> raw(const zev::GPU* g) { return {g->nvml_raw, g->nvml_raw + 5}; }

TEST(NvmlRefresh, WithoutTheLibraryNothingIsRefreshed) {
  GpuMonitorVorn monitor;
  zev::GPU* gpu = monitor.create_gpu();
  monitor.add_nvml_gpu(gpu);
  EXPECT_FALSE(monitor.nvml_update_dynamic_data());
  EXPECT_FALSE(monitor.nvml_update_power_usage(0));
  EXPECT_FALSE(monitor.nvml_update_process_utilization(0));
  EXPECT_FALSE(monitor.nvml_get_pcie_throughput(0));
  EXPECT_EQ(gpu->nvml_raw[1], -1);
  EXPECT_EQ(gpu->temperatures[0].current, -1.0f);
  EXPECT_STREQ(gpu->throttle_reason_text, "");
  monitor.cleanup_gpus_list();
}

TEST(NvmlRefresh, EachRefreshTakesTheNextReadings) {
  if (run_inside([] { return Machine("nvidia-h100-sxm"); })) return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.refresh());
  EXPECT_EQ(g->temperatures[0].current, 33.0f);
  EXPECT_EQ(g->temperatures[0].min, 32.0f);
  EXPECT_EQ(g->temperatures[0].max, 33.0f);
  EXPECT_EQ(g->core_clock.current, 1755.0f);
  EXPECT_EQ(g->memory_clock.current, 2619.0f);
  EXPECT_EQ(g->core_clock.max_clock, 1980.0f);
  EXPECT_EQ(g->core_clock.reported_max_clock, 1980.0f);
  EXPECT_EQ(g->memory_clock.max_clock, 2619.0f);
  EXPECT_EQ(g->memory_clock.reported_max_clock, 2619.0f);
  EXPECT_EQ(g->nvml_gpu_utilization, 37);
  EXPECT_EQ(g->nvml_memory_utilization, 12);
  EXPECT_EQ(g->core_usage[0], 37.0f);
  EXPECT_EQ(g->memory_usage[0], 12.0f);
  EXPECT_EQ(g->power.current, 305778.0f);
  EXPECT_EQ(g->power.watts, 305.778f);
  EXPECT_EQ(g->total_energy, static_cast<float>(4578213456ull));
  EXPECT_EQ(g->power.enforced_limit, 700000.0f);
  EXPECT_EQ(g->throttle_reasons, 1u);  // discovery does not read the reasons
  EXPECT_STREQ(g->throttle_reason_text, "GPU Idle");
  // No fan: its raw reading is -1; the others are the fresh values.
  EXPECT_EQ(raw(g), (std::vector<int32_t>{-1, 33, 1755, 2619, 305778}));

  ASSERT_TRUE(n.refresh());
  EXPECT_EQ(g->temperatures[0].current, 35.0f);
  EXPECT_EQ(g->temperatures[0].max, 35.0f);
  EXPECT_EQ(g->throttle_reasons, 0u);
  EXPECT_STREQ(g->throttle_reason_text, "None");
  ASSERT_TRUE(n.refresh());
  EXPECT_EQ(g->temperatures[0].current, 34.0f);
  EXPECT_EQ(g->temperatures[0].min, 32.0f);
  EXPECT_EQ(g->temperatures[0].max, 35.0f);
  EXPECT_EQ(g->throttle_reasons, 4u);
  EXPECT_STREQ(g->throttle_reason_text, "Software Power Cap");
  // The limits, thresholds and description are discovery's alone.
  EXPECT_EQ(g->temperature_thresholds[0], 92);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetTemperatureThreshold"), 3u);
}

TEST(NvmlRefresh, OneRefreshMakesElevenCallsPerGpu) {
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-nvml"); })) return;
  Nvml n;
  nvml_reset_calls();
  ASSERT_TRUE(n.refresh());
  // Temperature, fan, 2 maximum clocks, 2 clocks, power, energy, limit,
  // utilization, throttle reasons.
  EXPECT_EQ(nvml_calls(), 2u * 11);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetMaxClockInfo"), 4u);  // graphics is not read
}

TEST(NvmlRefresh, ThrottleMasksAreNamedOnlyWhenTheyAreASingleReason) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .replace(kNvml, "throttle 0x1 0x0 0x4 0x1\n",
                     "throttle 0 1 2 4 8 16 32 64 128 256 5 3 0x100 0x200 0x100000000\n");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  const std::vector<std::string> expected = {
      "None", "GPU Idle", "Applications Clocks Setting", "Software Power Cap",
      "Hardware Slowdown", "Sync Boost", "Software Thermal Slowdown",
      "Hardware Thermal Slowdown", "Hardware Power Brake Slowdown", "Display Clock Setting",
      "Unknown", "Unknown", "Display Clock Setting", "Unknown", "Unknown"};
  std::vector<std::string> texts;
  for (size_t i = 0; i < expected.size(); ++i) {
    n.refresh();
    texts.push_back(g->throttle_reason_text);
  }
  EXPECT_EQ(texts, expected);
  EXPECT_EQ(g->throttle_reasons, 0x100000000ull);
}

TEST(NvmlRefresh, AFailingThrottleReadIsNone) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").append(kNvml, "fail nvmlDeviceGetCurrentClocksThrottleReasons 15\n");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  g->throttle_reasons = 77;
  n.refresh();
  EXPECT_EQ(g->throttle_reasons, 0u);
  EXPECT_STREQ(g->throttle_reason_text, "None");
}

TEST(NvmlRefresh, FailedReadingsKeepTheirValuesAndMarkTheRawFields) {
  // Everything the refresh reads fails from its second call on: discovery
  // read once, the first refresh reads, the second one fails.
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .append(kNvml,
                    "fail nvmlDeviceGetTemperature 15 from 3\n"
                    "fail nvmlDeviceGetMaxClockInfo.1 15 from 3\n"
                    "fail nvmlDeviceGetMaxClockInfo.2 15 from 3\n"
                    "fail nvmlDeviceGetClock.1 15 from 3\n"
                    "fail nvmlDeviceGetClock.2 15 from 3\n"
                    "fail nvmlDeviceGetPowerUsage 15 from 3\n"
                    "fail nvmlDeviceGetTotalEnergyConsumption 15 from 3\n"
                    "fail nvmlDeviceGetEnforcedPowerLimit 15 from 3\n"
                    "fail nvmlDeviceGetUtilizationRates 15 from 3\n");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.refresh());
  ASSERT_EQ(raw(g), (std::vector<int32_t>{-1, 33, 1755, 2619, 305778}));

  ASSERT_TRUE(n.refresh());  // the GPU is lost
  EXPECT_EQ(raw(g), (std::vector<int32_t>{-1, -1, 1755, 2619, -1}));
  EXPECT_EQ(g->temperatures[0].current, 33.0f);
  EXPECT_EQ(g->core_clock.max_clock, -1.0f);
  EXPECT_EQ(g->core_clock.reported_max_clock, 1980.0f);
  EXPECT_EQ(g->memory_clock.max_clock, -1.0f);
  EXPECT_EQ(g->memory_clock.reported_max_clock, 2619.0f);
  EXPECT_EQ(g->core_clock.current, 1755.0f);
  EXPECT_EQ(g->memory_clock.current, 2619.0f);
  EXPECT_EQ(g->power.current, 305778.0f);
  EXPECT_EQ(g->power.watts, 305.778f);
  EXPECT_EQ(g->total_energy, -1.0f);
  EXPECT_EQ(g->power.enforced_limit, -1.0f);
  EXPECT_EQ(g->nvml_gpu_utilization, -1);
  EXPECT_EQ(g->nvml_memory_utilization, -1);
  EXPECT_EQ(g->core_usage[0], 37.0f);
  EXPECT_EQ(g->memory_usage[0], 12.0f);
}

TEST(NvmlRefresh, OnlyTheFirstFanIsRefreshedThroughTheSingleFanReading) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-full"); })) return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_EQ(g->num_fans, 2u);
  nvml_reset_calls();
  n.refresh();  // fan_speed: 30 (discovery did not use it), then 30, 44, 36
  n.refresh();
  n.refresh();
  EXPECT_EQ(g->fans[0].speed_percent, 44.0f);
  EXPECT_EQ(g->nvml_raw[0], 44);
  EXPECT_EQ(g->fans[1].speed_percent, 31.0f);
  EXPECT_EQ(g->fans[0].rpm, 1122.0f);  // RPMs stay those of discovery
  EXPECT_EQ(g->fans[1].rpm, 1139.0f);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed"), 3u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed_v2"), 0u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeedRPM_v2"), 0u);
}

TEST(NvmlRefresh, TheMonitorsRefreshLeavesNvmlGpusToNvml) {
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-nvml"); })) return;
  GpuMonitorVorn monitor;
  monitor.initialize();
  ASSERT_EQ(monitor.get_num_gpus(), 2u);
  ASSERT_TRUE(monitor.update_dynamic_data());
  EXPECT_EQ(monitor.get_gpu(0)->temperatures[0].current, 39.0f);
  EXPECT_EQ(monitor.get_gpu(0)->power.watts, 28.11f);
  // No nvidia-smi process for GPUs that NVML refreshes.
  const std::string smi_log = nvidia_test::staged_root_here() + "/nvidia/nvidia-smi.log";
  EXPECT_TRUE(read_file(smi_log).empty()) << read_file(smi_log);
  monitor.terminate();
}

// ------------------------------------------------------------------ power

TEST(NvmlPower, ThePowerRefreshKeepsTheMaximumOfTheTest) {
  if (run_inside([] { return Machine("nvidia-h100-sxm"); })) return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.monitor.nvml_update_power_usage(0));  // 305778 mW
  EXPECT_EQ(g->power.watts, 305.778f);
  EXPECT_EQ(g->power.watts_max_in_test, 305.778f);
  ASSERT_TRUE(n.monitor.nvml_update_power_usage(0));  // 688412 mW
  ASSERT_TRUE(n.monitor.nvml_update_power_usage(0));  // 72011 mW
  EXPECT_EQ(g->power.current, 72011.0f);
  EXPECT_EQ(g->power.watts, 72.011f);
  EXPECT_EQ(g->power.watts_max_in_test, 688.412f);
  EXPECT_EQ(g->nvml_raw[4], 72011);
  EXPECT_EQ(g->power.enforced_limit, 700000.0f);
  EXPECT_EQ(g->total_energy, static_cast<float>(4578213456ull));
  EXPECT_FALSE(n.monitor.nvml_update_power_usage(1));
}

TEST(NvmlPower, AFailingPowerReadingMarksTheRawField) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").append(kNvml, "fail nvmlDeviceGetPowerUsage 15 from 2\n");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.monitor.nvml_update_power_usage(0));
  EXPECT_EQ(g->nvml_raw[4], -1);
  EXPECT_EQ(g->power.watts, 71.234f);
  EXPECT_EQ(g->power.watts_max_in_test, -1.0f);
}

TEST(NvmlPower, MissingEntryPointsAreSkipped) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlDeviceGetPowerUsage"); }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.monitor.nvml_update_power_usage(0));
  EXPECT_EQ(g->nvml_raw[4], -1);  // as discovery left it
  EXPECT_EQ(g->power.watts, -1.0f);
  EXPECT_EQ(g->power.enforced_limit, 700000.0f);
  // The periodic refresh calls it without a test: a failed reading.
  g->nvml_raw[4] = 5;
  n.refresh();
  EXPECT_EQ(g->nvml_raw[4], -1);
}

TEST(NvmlPower, WithoutTheLimitEntryTheLimitStays) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlDeviceGetEnforcedPowerLimit");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  g->power.enforced_limit = 123.0f;
  EXPECT_TRUE(n.monitor.nvml_update_power_usage(0));
  EXPECT_EQ(g->power.enforced_limit, 123.0f);
  EXPECT_EQ(g->power.watts, 305.778f);
}

TEST(NvmlPower, WithoutTheEnergyEntryTheEnergyStays) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlDeviceGetTotalEnergyConsumption");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  EXPECT_EQ(g->total_energy, 0.0f);  // never read
  EXPECT_TRUE(n.monitor.nvml_update_power_usage(0));
  EXPECT_EQ(g->total_energy, 0.0f);
  n.refresh();  // the periodic refresh: a failed reading
  EXPECT_EQ(g->total_energy, -1.0f);
}

// -------------------------------------------------------------- processes

TEST(NvmlProcesses, ASizingCallAnsweredWithInsufficientSizeRefreshesNothing) {
  // What real libraries answer whenever samples exist.
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-nvml"); })) return;
  Nvml n;
  EXPECT_FALSE(n.monitor.nvml_update_process_utilization(0));
  EXPECT_EQ(n.gpu(0)->process_utilization, nullptr);
  EXPECT_EQ(n.gpu(0)->num_process_utilization, 0u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetProcessUtilization"), 1u);
  // No samples at all: NOT_FOUND, also false.
  EXPECT_FALSE(n.monitor.nvml_update_process_utilization(1));
}

TEST(NvmlProcesses, ASuccessfulSizingCallReplacesTheTable) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml")
            .replace(kNvml, "processes ", "process_sizing 0\nprocesses ");
      }))
    return;
  Nvml n;
  zev::GPU* g = n.gpu(0);
  ASSERT_TRUE(n.monitor.nvml_update_process_utilization(0));
  ASSERT_EQ(g->num_process_utilization, 2u);
  ASSERT_NE(g->process_utilization, nullptr);
  const zev::gpuProcessUtilization& a = g->process_utilization[0];
  EXPECT_EQ(a.pid, 4242u);
  EXPECT_STREQ(a.process_name, "/usr/bin/blender");
  EXPECT_EQ(a.timestamp, 1732700000000000ull);
  EXPECT_EQ(a.sm_util, 35u);
  EXPECT_EQ(a.mem_util, 12u);
  const zev::gpuProcessUtilization& b = g->process_utilization[1];
  EXPECT_EQ(b.pid, 5151u);
  EXPECT_STREQ(b.process_name, "/usr/lib/xorg/Xorg");
  EXPECT_EQ(b.timestamp, 1732700000000500ull);
  EXPECT_EQ(b.sm_util, 9u);
  EXPECT_EQ(b.mem_util, 3u);
  // A second refresh replaces the table (the old one is freed: the
  // sanitizer build would report it otherwise).
  ASSERT_TRUE(n.monitor.nvml_update_process_utilization(0));
  EXPECT_EQ(g->num_process_utilization, 2u);
  EXPECT_EQ(g->process_utilization[1].pid, 5151u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetProcessUtilization"), 4u);
  EXPECT_EQ(nvml_calls_of("nvmlSystemGetProcessName"), 4u);
  EXPECT_FALSE(n.monitor.nvml_update_process_utilization(2));
}

TEST(NvmlProcesses, NoSamplesLeaveTheTableAsItIs) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml")
            .replace(kNvml, "processes ", "process_sizing 0\nprocesses ")
            .append(kNvml, "process_sizing 0\n");  // device 1: no processes
      }))
    return;
  Nvml n;
  ASSERT_TRUE(n.monitor.nvml_update_process_utilization(1));
  EXPECT_EQ(n.gpu(1)->process_utilization, nullptr);
  EXPECT_EQ(n.gpu(1)->num_process_utilization, 0u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetProcessUtilization"), 1u);
}

TEST(NvmlProcesses, WithoutProcessNamesTheNamesStayEmpty) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml")
            .nvml("nvml-no-nvmlSystemGetProcessName")
            .replace(kNvml, "processes ", "process_sizing 0\nprocesses ");
      }))
    return;
  Nvml n;
  ASSERT_TRUE(n.monitor.nvml_update_process_utilization(0));
  ASSERT_EQ(n.gpu(0)->num_process_utilization, 2u);
  EXPECT_EQ(n.gpu(0)->process_utilization[0].pid, 4242u);
  EXPECT_STREQ(n.gpu(0)->process_utilization[0].process_name, "");
}

TEST(NvmlProcesses, WithoutTheEntryPointThereIsNoTable) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml").nvml("nvml-no-nvmlDeviceGetProcessUtilization");
      }))
    return;
  Nvml n;
  EXPECT_FALSE(n.monitor.nvml_update_process_utilization(0));
}

// ------------------------------------------------------------------- PCIe

TEST(NvmlPcie, BothCountersAreRead) {
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-nvml"); })) return;
  Nvml n;
  ASSERT_TRUE(n.monitor.nvml_get_pcie_throughput(0));
  EXPECT_EQ(n.gpu(0)->pcie_tx_throughput, 420u);
  EXPECT_EQ(n.gpu(0)->pcie_rx_throughput, 1310u);
  EXPECT_FALSE(n.monitor.nvml_get_pcie_throughput(2));
}

TEST(NvmlPcie, FailingCountersLeaveTheFieldsAndStillSucceed) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml").append(kNvml, "fail nvmlDeviceGetPcieThroughput 3\n");
      }))
    return;
  Nvml n;
  n.gpu(1)->pcie_tx_throughput = 7;
  n.gpu(1)->pcie_rx_throughput = 8;
  EXPECT_TRUE(n.monitor.nvml_get_pcie_throughput(1));
  EXPECT_EQ(n.gpu(1)->pcie_tx_throughput, 7u);
  EXPECT_EQ(n.gpu(1)->pcie_rx_throughput, 8u);
}

TEST(NvmlPcie, WithoutTheEntryPointNothingIsRead) {
  if (run_inside([] {
        return Machine("nvidia-rtx5090-rtx4080s-nvml").nvml("nvml-no-nvmlDeviceGetPcieThroughput");
      }))
    return;
  Nvml n;
  EXPECT_FALSE(n.monitor.nvml_get_pcie_throughput(0));
}

}  // namespace
