// NVML discovery on the fake NVML library. Each case runs in a child process
// inside its machine (run_inside), so that the machine's lib/ is on the
// loader's path as it is for a real host: the library names tried, the
// symbols a variant of the fake leaves out, and the machine's NVML data all
// take effect as they would on that machine.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "backends/nvidia/nvml_binding.h"
#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

namespace {

using nvidia_test::lines_of;
using nvidia_test::LogFile;
using nvidia_test::Machine;
using nvidia_test::nvml_calls;
using nvidia_test::nvml_calls_of;
using nvidia_test::run_inside;
using testing_support::TraceCapture;

const char kNvml[] = "nvidia/nvml.conf";

// The monitor with NVML discovery run, and the traces it wrote.
struct Discovery {
  GpuMonitorVorn monitor;
  TraceCapture traces;
  bool found = false;

  Discovery() { found = monitor.nvml_initialize(); }
  ~Discovery() { monitor.cleanup_gpus_list(); }
  zev::GPU* gpu(unsigned long i) { return monitor.get_gpu(i); }
};

// The file the library in `handle` was loaded from.
std::string library_file(void* handle) {
  void* symbol = dlsym(handle, "nvmlShutdown");
  Dl_info info{};
  if (symbol == nullptr || dladdr(symbol, &info) == 0 || info.dli_fname == nullptr) return "";
  return info.dli_fname;
}

bool ends_with(const std::string& s, const std::string& tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

// ----------------------------------------------------------- entry points

TEST(NvmlBinding, EntryPointsAreResolvedInTableOrder) {
  const std::vector<std::string> expected = {
      "nvmlInit", "nvmlInit_v2", "nvmlShutdown", "nvmlSystemGetNVMLVersion",
      "nvmlSystemGetProcessName", "nvmlDeviceGetCount", "nvmlDeviceGetCount_v2",
      "nvmlDeviceGetHandleByIndex", "nvmlDeviceGetName", "nvmlDeviceGetPciInfo",
      "nvmlSystemGetDriverVersion", "nvmlDeviceGetBrand", "nvmlDeviceGetSerial",
      "nvmlDeviceGetMemoryInfo", "nvmlDeviceGetCudaComputeCapability",
      "nvmlDeviceGetComputeRunningProcesses", "nvmlDeviceGetGraphicsRunningProcesses", "dlsym",
      "nvmlDeviceGetMaxClockInfo", "nvmlDeviceGetClock", "nvmlDeviceGetMaxCustomerBoostClock",
      "nvmlDeviceGetFanSpeed", "nvmlDeviceGetTemperature", "nvmlDeviceGetTemperatureThreshold",
      "nvmlDeviceGetPowerUsage", "nvmlDeviceGetTotalEnergyConsumption",
      "nvmlDeviceGetEnforcedPowerLimit", "nvmlDeviceGetPowerManagementDefaultLimit",
      "nvmlDeviceGetPowerManagementLimitConstraints", "nvmlDeviceGetPowerManagementLimit",
      "nvmlDeviceGetPowerState", "nvmlDeviceGetPcieThroughput",
      "nvmlDeviceGetCurrentClocksThrottleReasons", "nvmlDeviceGetUtilizationRates",
      "nvmlDeviceGetProcessUtilization", "nvmlDeviceGetPlatformInfo",
      "nvmlDeviceGetAttributes_v2", "nvmlDeviceGetFanSpeed_v2", "nvmlDeviceGetFanSpeedRPM_v2",
      "nvmlDeviceGetNumFans", "nvmlDeviceGetNumGpuCores", "nvmlDeviceGetMemoryBusWidth",
      "nvmlDeviceGetArchitecture"};
  ASSERT_EQ(kNvmlEntryPointCount, 43u);
  std::vector<std::string> names;
  for (unsigned long i = 0; i < kNvmlEntryPointCount; ++i) names.push_back(nvml_entry_point_name(i));
  EXPECT_EQ(names, expected);
  EXPECT_EQ(nvml_entry_point_name(43), nullptr);
  // The table holds exactly one pointer per entry, in that order.
  EXPECT_EQ(sizeof(NvmlEntryPoints), 43 * sizeof(void*));
}

// ------------------------------------------------------------------- H100

TEST(NvmlDiscovery, TheH100IsDescribedAsNvmlReportsIt) {
  if (run_inside([] { return Machine("nvidia-h100-sxm"); })) return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_EQ(d.traces.texts(), std::vector<std::string>{"  - ROP counter (from driver): 24"});
  GpuMonitorVorn& m = d.monitor;
  EXPECT_EQ(m.num_nvml_detected, 1u);
  EXPECT_EQ(m.num_monitorable_gpus, 1u);
  ASSERT_EQ(m.get_num_gpus(), 1u);
  ASSERT_EQ(m.nvml_get_num_gpus(), 1u);
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(m.nvml_get_gpu(0), g);
  EXPECT_NE(g->nvml_device, nullptr);
  EXPECT_EQ(g->nvidia_gpu_index, 0);

  EXPECT_STREQ(g->name, "NVIDIA H100 80GB HBM3");
  EXPECT_STREQ(g->codename, "GH100");
  EXPECT_EQ(g->vendor_id, 0x10DEu);
  EXPECT_EQ(g->device_id, 0x2330u);
  EXPECT_EQ(g->subvendor_id, 0u);  // not taken from NVML
  EXPECT_EQ(g->subdevice_id, 0u);
  EXPECT_EQ(g->bus_id, 0x18);
  EXPECT_STREQ(g->architecture, "Hopper");
  EXPECT_STREQ(g->driver_version, "");  // this back-end does not fill it
  EXPECT_EQ(g->nvml_num_cores, 16896u);
  EXPECT_EQ(g->num_shader_cores, 16896u);        // NVML's count wins
  EXPECT_EQ(g->db_num_shader_cores, 0xFFFFFFFFu);  // unknown in the database
  EXPECT_EQ(g->memory_bus_width, 5120u);
  EXPECT_EQ(g->num_multiprocessors, 0u);  // attributes answer only for MIG instances
  EXPECT_EQ(g->cuda_compute_capability[0], 9);
  EXPECT_EQ(g->cuda_compute_capability[1], 0);

  EXPECT_EQ(g->temperatures[0].current, 32.0f);
  EXPECT_EQ(g->temperatures[0].min, 32.0f);
  EXPECT_EQ(g->temperatures[0].max, 32.0f);
  EXPECT_EQ(g->temperature_thresholds[0], 92);
  EXPECT_EQ(g->temperature_thresholds[1], 89);
  EXPECT_EQ(g->temperature_thresholds[2], 87);

  EXPECT_EQ(g->sensor_available[0], 1);
  EXPECT_EQ(g->sensor_available[2], 1);
  EXPECT_EQ(g->sensor_available[3], 0);  // no fans
  EXPECT_EQ(g->sensor_available[4], 1);
  EXPECT_EQ(g->fans, nullptr);
  EXPECT_EQ(g->num_fans, 0u);
  EXPECT_TRUE(g->monitorable);

  EXPECT_EQ(g->core_clock.max_clock, 1980.0f);
  EXPECT_EQ(g->memory_clock.max_clock, 2619.0f);
  EXPECT_EQ(g->core_clock.reported_max_clock, -1.0f);  // only the refresh sets it
  EXPECT_EQ(g->core_clock.current, 345.0f);
  EXPECT_EQ(g->memory_clock.current, 2619.0f);

  EXPECT_EQ(g->nvml_gpu_utilization, 0);
  EXPECT_EQ(g->nvml_memory_utilization, 0);
  EXPECT_EQ(g->core_usage[0], 0.0f);
  EXPECT_EQ(g->memory_usage[0], 0.0f);

  EXPECT_EQ(g->power.current, 71234.0f);  // milliwatts on this path
  EXPECT_EQ(g->power.watts, 71.234f);
  EXPECT_EQ(g->total_energy, static_cast<float>(4578213456ull));
  EXPECT_EQ(g->power.enforced_limit, 700000.0f);
  EXPECT_EQ(g->power.default_limit, 700000.0f);
  EXPECT_EQ(g->power.limit_min, 200000.0f);
  EXPECT_EQ(g->power.limit_max, 700000.0f);
  const std::vector<int32_t> raw(g->nvml_raw, g->nvml_raw + 5);
  EXPECT_EQ(raw, (std::vector<int32_t>{-1, -1, -1, -1, 71234}));

  // Database and driver: the database has no unit counts for this board;
  // the driver's ROP count replaces the unknown one.
  EXPECT_EQ(g->num_texture_units, 0xFFFFFFFFu);
  EXPECT_EQ(g->db_num_rops, 0xFFFFFFFFu);
  EXPECT_EQ(g->num_rops, 24u);
  EXPECT_EQ(g->tdp_w, 0u);

  // Started through nvmlInit_v2, counted through the _v2 form, and left
  // running; the entry points resolved but never called stay uncalled.
  EXPECT_EQ(nvml_calls_of("nvmlInit_v2"), 1u);
  EXPECT_EQ(nvml_calls_of("nvmlInit"), 0u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetCount_v2"), 1u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetCount"), 0u);
  EXPECT_EQ(nvml_calls_of("nvmlShutdown"), 0u);
  EXPECT_EQ(nvml_calls_of("nvmlSystemGetNVMLVersion"), 1u);
  EXPECT_EQ(nvml_calls_of("nvmlSystemGetDriverVersion"), 1u);
  for (const char* never :
       {"nvmlDeviceGetBrand", "nvmlDeviceGetSerial", "nvmlDeviceGetMemoryInfo",
        "nvmlDeviceGetComputeRunningProcesses", "nvmlDeviceGetGraphicsRunningProcesses",
        "nvmlDeviceGetMaxCustomerBoostClock", "nvmlDeviceGetPowerManagementLimit",
        "nvmlDeviceGetPowerState", "nvmlDeviceGetPlatformInfo", "nvmlDeviceGetFanSpeed",
        "nvmlDeviceGetFanSpeed_v2", "nvmlDeviceGetProcessUtilization",
        "nvmlDeviceGetPcieThroughput", "nvmlDeviceGetCurrentClocksThrottleReasons"}) {
    EXPECT_EQ(nvml_calls_of(never), 0u) << never;
  }
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetNumFans"), 1u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetMaxClockInfo"), 3u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetClock"), 3u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetTemperatureThreshold"), 3u);

  // Every table entry resolved, the "dlsym" slot included, except the one
  // no real library exports.
  EXPECT_NE(g_nvml.dlsym_slot, nullptr);
  EXPECT_EQ(g_nvml.nvmlDeviceGetFanSpeedRPM_v2, nullptr);
  EXPECT_NE(g_nvml.nvmlDeviceGetPlatformInfo, nullptr);
  // Found under its unversioned name first.
  EXPECT_TRUE(ends_with(library_file(m.nvml_lib_handle), "/lib/libnvidia-ml.so"))
      << library_file(m.nvml_lib_handle);
}

// -------------------------------------------------------------------- fans

TEST(NvmlDiscovery, EveryFanOfABoardIsRead) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop"); })) return;
  Discovery d;
  ASSERT_TRUE(d.found);
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 2u);
  ASSERT_NE(g->fans, nullptr);
  EXPECT_EQ(g->fans[0].speed_percent, 30.0f);
  EXPECT_EQ(g->fans[1].speed_percent, 31.0f);
  // No real library exports nvmlDeviceGetFanSpeedRPM_v2: no RPM.
  EXPECT_EQ(g->fans[0].rpm, -1.0f);
  EXPECT_EQ(g->nvml_raw[0], 30);
  EXPECT_EQ(g->sensor_available[3], 1);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed_v2"), 2u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed"), 0u);
  // NVML's name (the same here), then the database's numbers.
  EXPECT_STREQ(g->name, "NVIDIA GeForce RTX 4090");
  EXPECT_STREQ(g->codename, "AD102-300");
  EXPECT_STREQ(g->architecture, "Ada Lovelace");
  EXPECT_EQ(g->num_shader_cores, 16384u);
  EXPECT_EQ(g->num_texture_units, 512u);
  EXPECT_EQ(g->num_rops, 176u);
  EXPECT_EQ(g->tdp_w, 450u);
  EXPECT_EQ(g->temperature_thresholds[2], 90);
}

TEST(NvmlDiscovery, ALibraryWithThePerFanRpmEntryGivesRpms) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-full"); })) return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 2u);
  EXPECT_EQ(g->fans[0].rpm, 1122.0f);
  EXPECT_EQ(g->fans[1].rpm, 1139.0f);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeedRPM_v2"), 2u);
}

TEST(NvmlDiscovery, AFailingFirstFanShowsAllOnes) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop").append(kNvml, "fail nvmlDeviceGetFanSpeed_v2.0 3\n");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 2u);
  EXPECT_EQ(g->fans[0].speed_percent, 4294967295.0f);
  EXPECT_EQ(g->nvml_raw[0], -1);
  EXPECT_EQ(g->fans[1].speed_percent, 31.0f);
  EXPECT_EQ(g->sensor_available[3], 1);
}

TEST(NvmlDiscovery, AFailingFanShowsThePreviousFansValue) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop").append(kNvml, "fail nvmlDeviceGetFanSpeed_v2.1 3\n");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->fans[0].speed_percent, 30.0f);
  EXPECT_EQ(g->fans[1].speed_percent, 30.0f);
}

TEST(NvmlDiscovery, ABoardWithNoFansGetsNoFanEvenIfTheSingleFanReadingWorks) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").append(kNvml, "fan_speed 55\n"); })) return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->fans, nullptr);
  EXPECT_EQ(g->num_fans, 0u);
  EXPECT_EQ(g->sensor_available[3], 0);
  EXPECT_EQ(g->nvml_raw[0], -1);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed"), 0u);
}

TEST(NvmlDiscovery, WithoutTheFanCountTheSingleFanReadingIsUsed) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetNumFans");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 1u);
  EXPECT_EQ(g->fans[0].speed_percent, 30.0f);
  EXPECT_EQ(g->fans[0].rpm, -1.0f);
  EXPECT_EQ(g->nvml_raw[0], 30);
  EXPECT_EQ(g->sensor_available[3], 1);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed"), 1u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetFanSpeed_v2"), 0u);
}

TEST(NvmlDiscovery, WithoutThePerFanReadingTheSingleFanReadingIsUsed) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetFanSpeed_v2");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 1u);
  EXPECT_EQ(g->fans[0].speed_percent, 30.0f);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetNumFans"), 0u);
}

TEST(NvmlDiscovery, AFailingSingleFanReadingLeavesNoFan) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlDeviceGetNumFans"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->fans, nullptr);
  EXPECT_EQ(g->nvml_raw[0], -1);
  EXPECT_EQ(g->sensor_available[3], 0);
}

TEST(NvmlDiscovery, AnAbsurdFanCountDoesNotCrash) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").append(kNvml, "num_fans 100000\n"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  ASSERT_EQ(g->num_fans, 100000u);
  EXPECT_EQ(g->fans[0].speed_percent, 30.0f);
  EXPECT_EQ(g->fans[1].speed_percent, 31.0f);
  // Fans the data does not list fail and repeat the last value read.
  EXPECT_EQ(g->fans[99999].speed_percent, 31.0f);
}

// ------------------------------------------------------------ thresholds

TEST(NvmlDiscovery, AFailingThresholdShowsThePreviousReading) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").append(kNvml, "fail nvmlDeviceGetTemperatureThreshold.1 3\n");
      }))
    return;
  Discovery d;
  const int32_t* t = d.gpu(0)->temperature_thresholds;
  EXPECT_EQ(std::vector<int32_t>(t, t + 3), (std::vector<int32_t>{92, 92, 87}));
}

TEST(NvmlDiscovery, AFailingFirstThresholdShowsTheTemperature) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").append(kNvml, "fail nvmlDeviceGetTemperatureThreshold.0 3\n");
      }))
    return;
  Discovery d;
  const int32_t* t = d.gpu(0)->temperature_thresholds;
  EXPECT_EQ(std::vector<int32_t>(t, t + 3), (std::vector<int32_t>{32, 89, 87}));
}

TEST(NvmlDiscovery, WithNothingReadableTheThresholdsAreZero) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .append(kNvml,
                    "fail nvmlDeviceGetTemperature 3\n"
                    "fail nvmlDeviceGetTemperatureThreshold 3\n");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  const int32_t* t = g->temperature_thresholds;
  EXPECT_EQ(std::vector<int32_t>(t, t + 3), (std::vector<int32_t>{0, 0, 0}));
  EXPECT_EQ(g->temperatures[0].current, -1.0f);
  EXPECT_EQ(g->sensor_available[0], 0);
  // Usage still reads: still monitorable.
  EXPECT_TRUE(g->monitorable);
}

TEST(NvmlDiscovery, WithoutTemperatureOrUsageAGpuIsNotMonitorable) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .append(kNvml,
                    "fail nvmlDeviceGetTemperature 3\n"
                    "fail nvmlDeviceGetUtilizationRates 3\n");
      }))
    return;
  Discovery d;
  EXPECT_FALSE(d.gpu(0)->monitorable);
  EXPECT_EQ(d.monitor.num_monitorable_gpus, 0u);
  EXPECT_EQ(d.gpu(0)->sensor_available[4], 1);  // power alone does not count
}

// ------------------------------------------------ architecture and counts

TEST(NvmlDiscovery, ArchitectureNumbersHaveTheirNames) {
  if (run_inside([] {
        std::string conf = "count 14\ndevice 0-13\nname NVIDIA Test Board\npci_device_id 0x000110DE\n";
        const unsigned long numbers[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 0xFFFFFFFF};
        for (int i = 0; i < 14; ++i) {
          conf += "device " + std::to_string(i) + "\narchitecture " + std::to_string(numbers[i]) + "\n";
        }
        return Machine("nvidia-h100-sxm").file(kNvml, conf);
      }))
    return;
  Discovery d;
  ASSERT_EQ(d.monitor.num_nvml_detected, 14u);
  const std::vector<std::string> expected = {
      "", "", "Kepler", "Maxwell", "Pascal", "Volta", "Turing", "Ampere", "Ada Lovelace", "Hopper",
      "Blackwell", "", "", ""};
  std::vector<std::string> names;
  for (unsigned long i = 0; i < 14; ++i) names.push_back(d.gpu(i)->architecture);
  EXPECT_EQ(names, expected);
}

TEST(NvmlDiscovery, AFailingArchitectureCallLeavesTheTextAlone) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm").append(kNvml, "fail nvmlDeviceGetArchitecture 3\n");
      }))
    return;
  Discovery d;
  EXPECT_STREQ(d.gpu(0)->architecture, "");
}

TEST(NvmlDiscovery, TheSmCountComesFromTheAttributesWhenTheyAnswer) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .replace(kNvml, "fail nvmlDeviceGetAttributes_v2 3\n", "");
      }))
    return;
  Discovery d;
  EXPECT_EQ(d.gpu(0)->num_multiprocessors, 132u);
}

TEST(NvmlDiscovery, ACoreCountOfZeroLeavesTheDatabasesCount) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").append(kNvml, "cores 0\n"); })) return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->nvml_num_cores, 0u);
  EXPECT_EQ(g->num_shader_cores, 16384u);
  EXPECT_EQ(g->db_num_shader_cores, 16384u);
}

TEST(NvmlDiscovery, NvmlsCoreCountWinsOverTheDatabases) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").append(kNvml, "cores 16000\n"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->num_shader_cores, 16000u);
  EXPECT_EQ(g->db_num_shader_cores, 16384u);
}

TEST(NvmlDiscovery, TheDatabaseNameReplacesNvmls) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop")
            .replace(kNvml, "name NVIDIA GeForce RTX 4090\n", "name GeForce RTX 4090 ES\n");
      }))
    return;
  Discovery d;
  EXPECT_STREQ(d.gpu(0)->name, "NVIDIA GeForce RTX 4090");
}

TEST(NvmlDiscovery, AnUnknownDeviceKeepsNvmlsNameAndGetsNoDatabaseValues) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop")
            .replace(kNvml, "name NVIDIA GeForce RTX 4090\n", "name NVIDIA Prototype X\n")
            .replace(kNvml, "pci_device_id 0x268410DE\n", "pci_device_id 0x3FFF10DE\n");
      }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->device_id, 0x3FFFu);
  EXPECT_STREQ(g->name, "NVIDIA Prototype X");
  EXPECT_STREQ(g->codename, "");
  EXPECT_EQ(g->num_shader_cores, 16384u);  // NVML's
  EXPECT_EQ(g->db_num_shader_cores, 0u);
  EXPECT_EQ(g->num_texture_units, 0u);
  EXPECT_EQ(g->db_num_rops, 0u);
  EXPECT_EQ(g->num_rops, 176u);  // the driver's
  EXPECT_EQ(g->tdp_w, 0u);
}

TEST(NvmlDiscovery, ANameTooLongForItsBufferIsNoName) {
  if (run_inside([] {
        return Machine("nvidia-rtx4090-desktop")
            .replace(kNvml, "name NVIDIA GeForce RTX 4090\n", "name " + std::string(80, 'N') + "\n")
            .replace(kNvml, "pci_device_id 0x268410DE\n", "pci_device_id 0x3FFF10DE\n");
      }))
    return;
  Discovery d;
  EXPECT_STREQ(d.gpu(0)->name, "");
}

// --------------------------------------------------- missing entry points

TEST(NvmlDiscovery, WithoutTheArchitectureEntryTheTextStaysEmpty) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetArchitecture"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_STREQ(g->architecture, "");
  EXPECT_EQ(g->nvml_num_cores, 16384u);
  EXPECT_EQ(g->memory_bus_width, 384u);
  EXPECT_EQ(g->num_fans, 2u);
}

TEST(NvmlDiscovery, WithoutTheCoreCountEntryTheDatabaseCountIsUsed) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetNumGpuCores"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->nvml_num_cores, 0u);
  EXPECT_EQ(g->num_shader_cores, 16384u);
  EXPECT_STREQ(g->architecture, "Ada Lovelace");
}

TEST(NvmlDiscovery, WithoutTheBusWidthEntryTheWidthStaysZero) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetMemoryBusWidth"); }))
    return;
  Discovery d;
  EXPECT_EQ(d.gpu(0)->memory_bus_width, 0u);
  EXPECT_EQ(d.gpu(0)->nvml_num_cores, 16384u);
}

TEST(NvmlDiscovery, WithoutTheAttributesEntryNoAttributesAreAsked) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .nvml("nvml-no-nvmlDeviceGetAttributes_v2")
            .replace(kNvml, "fail nvmlDeviceGetAttributes_v2 3\n", "");
      }))
    return;
  Discovery d;
  EXPECT_EQ(d.gpu(0)->num_multiprocessors, 0u);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetAttributes_v2"), 0u);
}

TEST(NvmlDiscovery, AMissingEntryPointUsedWithoutATestFailsLikeAFailingCall) {
  // nvmlDeviceGetName and nvmlDeviceGetPowerUsage are called without a
  // presence test; a library without them must not bring the host down.
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetName"); }))
    return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_STREQ(d.gpu(0)->name, "NVIDIA GeForce RTX 4090");  // from the database
}

TEST(NvmlDiscovery, WithoutPowerUsageThePowerIsUnread) {
  if (run_inside([] { return Machine("nvidia-rtx4090-desktop").nvml("nvml-no-nvmlDeviceGetPowerUsage"); }))
    return;
  Discovery d;
  zev::GPU* g = d.gpu(0);
  EXPECT_EQ(g->power.watts, -1.0f);
  EXPECT_EQ(g->nvml_raw[4], -1);
  EXPECT_EQ(g->sensor_available[4], 0);
  EXPECT_EQ(g->power.enforced_limit, 450000.0f);
}

// ------------------------------------------------------- start and count

TEST(NvmlDiscovery, OnlyTheVersionedLibraryIsLoadedUnderItsSecondName) {
  if (run_inside([] { return Machine("nvidia-nvml-versioned-only"); })) return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_TRUE(ends_with(library_file(d.monitor.nvml_lib_handle), "/lib/libnvidia-ml.so.1"))
      << library_file(d.monitor.nvml_lib_handle);
  EXPECT_STREQ(d.gpu(0)->name, "NVIDIA RTX A4000");
  EXPECT_STREQ(d.gpu(0)->architecture, "Ampere");
  EXPECT_EQ(d.gpu(0)->num_fans, 1u);
}

TEST(NvmlDiscovery, WithoutAnyLibraryNothingIsLoaded) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").remove("lib/libnvidia-ml.so").remove("lib/libnvidia-ml.so.1"); }))
    return;
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(d.monitor.nvml_lib_handle, nullptr);
  EXPECT_EQ(d.monitor.get_num_gpus(), 0u);
  EXPECT_TRUE(d.traces.texts().empty());
}

TEST(NvmlDiscovery, ALibraryWithoutTheV2StartIsStartedThroughNvmlInit) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlInit_v2"); })) return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_EQ(nvml_calls_of("nvmlInit"), 1u);
}

TEST(NvmlDiscovery, ALibraryWithoutAStartFailsBeforeAnyCall) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-init"); })) return;
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(nvml_calls(), 0u);
  EXPECT_NE(d.monitor.nvml_lib_handle, nullptr);  // stays loaded
  EXPECT_EQ(d.monitor.get_num_gpus(), 0u);
}

TEST(NvmlDiscovery, ALibraryWithoutShutdownFailsBeforeAnyCall) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlShutdown"); })) return;
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(nvml_calls(), 0u);
  EXPECT_NE(d.monitor.nvml_lib_handle, nullptr);
}

TEST(NvmlDiscovery, AFailedStartLeavesTheLibraryLoadedAndNotShutDown) {
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-smi"); })) return;
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_NE(d.monitor.nvml_lib_handle, nullptr);
  EXPECT_EQ(nvml_calls_of("nvmlInit_v2"), 1u);
  EXPECT_EQ(nvml_calls(), 1u);
  EXPECT_EQ(d.monitor.get_num_gpus(), 0u);
}

TEST(NvmlDiscovery, NoDevicesShutsNvmlDownAndUnloadsIt) {
  if (run_inside([] { return Machine("nvidia-nvml-no-devices"); })) return;
  LogFile log;
  setenv("ZEV_FAKE_NVML_LOG", log.path().c_str(), 1);
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(d.monitor.nvml_lib_handle, nullptr);
  const std::vector<std::string> expected = {"nvmlInit_v2", "nvmlSystemGetNVMLVersion",
                                             "nvmlSystemGetDriverVersion",
                                             "nvmlDeviceGetCount_v2", "nvmlShutdown"};
  EXPECT_EQ(log.lines(), expected);
  // nvml_terminate() is done after that.
  EXPECT_TRUE(d.monitor.nvml_terminate());
}

TEST(NvmlDiscovery, TheCountFallsBackToTheFirstForm) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-nvmlDeviceGetCount_v2"); }))
    return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_EQ(nvml_calls_of("nvmlDeviceGetCount"), 1u);
}

TEST(NvmlDiscovery, WithoutACountNvmlIsShutDown) {
  if (run_inside([] { return Machine("nvidia-h100-sxm").nvml("nvml-no-count"); })) return;
  LogFile log;
  setenv("ZEV_FAKE_NVML_LOG", log.path().c_str(), 1);
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(d.monitor.nvml_lib_handle, nullptr);
  EXPECT_EQ(log.lines().back(), "nvmlShutdown");
}

TEST(NvmlDiscovery, AFailingCountIsACountOfZero) {
  if (run_inside([] { // A library-wide failure: before the first device section.
        return Machine("nvidia-h100-sxm")
            .replace(kNvml, "device 0\n", "fail nvmlDeviceGetCount_v2 999\ndevice 0\n"); }))
    return;
  Discovery d;
  EXPECT_FALSE(d.found);
  EXPECT_EQ(d.monitor.nvml_lib_handle, nullptr);
}

TEST(NvmlDiscovery, TwoBoardsAreEnumeratedInOrderAndTheSecondRopQueryIsRefused) {
  if (run_inside([] { return Machine("nvidia-rtx5090-rtx4080s-nvml"); })) return;
  Discovery d;
  ASSERT_TRUE(d.found);
  const std::vector<std::string> expected = {
      "  - ROP counter (from driver): 176",
      "  - ROP counter (from driver): not available (err: -4)"};
  EXPECT_EQ(d.traces.texts(), expected);
  ASSERT_EQ(d.monitor.nvml_get_num_gpus(), 2u);
  zev::GPU* a = d.monitor.nvml_get_gpu(0);
  zev::GPU* b = d.monitor.nvml_get_gpu(1);
  EXPECT_STREQ(a->name, "NVIDIA GeForce RTX 5090");
  EXPECT_STREQ(a->architecture, "Blackwell");
  EXPECT_EQ(a->num_fans, 2u);
  EXPECT_EQ(a->tdp_w, 575u);
  EXPECT_STREQ(b->name, "NVIDIA GeForce RTX 4080 SUPER");
  EXPECT_EQ(b->nvidia_gpu_index, 1);
  EXPECT_EQ(b->bus_id, 4);
  ASSERT_EQ(b->num_fans, 3u);
  EXPECT_EQ(b->fans[2].speed_percent, 0.0f);
  EXPECT_EQ(b->num_rops, 112u);  // the database's count stays
  EXPECT_EQ(d.monitor.num_monitorable_gpus, 2u);
}

TEST(NvmlDiscovery, TheSeventeenthDeviceIsInNoList) {
  if (run_inside([] {
        return Machine("nvidia-h100-sxm")
            .replace(kNvml, "device 0\n", "count 17\ndevice 0-16\n");
      }))
    return;
  Discovery d;
  ASSERT_TRUE(d.found);
  EXPECT_EQ(d.monitor.num_nvml_detected, 17u);
  EXPECT_EQ(d.monitor.get_num_gpus(), 16u);
  EXPECT_EQ(d.monitor.nvml_get_num_gpus(), 16u);
  EXPECT_EQ(d.monitor.nvml_get_gpu(16), nullptr);
  EXPECT_EQ(d.traces.texts().size(), 17u);  // each device had its ROP check
  EXPECT_EQ(d.monitor.num_monitorable_gpus, 17u);
  EXPECT_EQ(d.gpu(15)->nvidia_gpu_index, 15);
}

}  // namespace
