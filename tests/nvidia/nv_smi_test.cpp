// nvidia-smi back-end: every reader's command line byte for byte, the
// parsing of every answer form nvidia-smi gives (values, "[N/A]",
// "[Not Supported]", "N/A", no output, a crash), the discovery with its
// traces, and the refresh through the sensor dispatch. The fake nvidia-smi
// logs each command line it is started with.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

extern "C" void zev_fake_nvidia_driver_close_all(void);

namespace {

using nvidia_test::kDegrees;
using nvidia_test::lines_of;
using nvidia_test::rtx5090_rtx4080s_smi_scan_block;
using nvidia_test::Machine;
using testing_support::MachineScope;
using testing_support::read_file;
using testing_support::TraceCapture;


class NvSmi : public ::testing::Test {
 protected:
  // Enters a machine whose nvidia-smi answers `conf` (a bare machine unless
  // `base` names an assembled one).
  void enter(const std::string& conf, const std::string& base = "") {
    machine_.reset(new Machine(base));
    machine_->install("bin/nvidia-smi", "bin/fake-nvidia-smi");
    if (!conf.empty()) machine_->file("nvidia/nvidia-smi.conf", conf);
    scope_.reset(new MachineScope(machine_->dir()));
    ASSERT_TRUE(scope_->ok()) << scope_->error();
  }
  void TearDown() override {
    monitor_.cleanup_gpus_list();
    zev_fake_nvidia_driver_close_all();
    scope_.reset();
    machine_.reset();
  }
  // Command lines nvidia-smi was started with, in order; cleared after.
  std::vector<std::string> commands() {
    const std::string log = machine::staged_root() + "/nvidia/nvidia-smi.log";
    std::vector<std::string> lines = lines_of(read_file(log));
    unlink(log.c_str());
    return lines;
  }

  GpuMonitorVorn monitor_;
  std::unique_ptr<Machine> machine_;
  std::unique_ptr<MachineScope> scope_;
};

// One GPU at nvidia-smi index `index`.
std::string one_gpu(int index) {
  return "count 1\n"
         "gpu " +
         std::to_string(index) +
         "\n"
         "name NVIDIA GeForce RTX 4090\n"
         "driver_version 560.35.03\n"
         "vbios_version 95.02.18.80.5F\n"
         "pci.device_id 0x268410DE\n"
         "pci.sub_device_id 0x16F310DE\n"
         "pci.bus 0x07\n"
         "fan.speed 30\n"
         "memory.total 24564\n"
         "memory.used 1024\n"
         "utilization.gpu 67\n"
         "utilization.memory 23\n"
         "temperature.gpu 71\n"
         "temperature.memory 88\n"
         "power.draw 215.37\n"
         "clocks.current.sm 2520\n"
         "clocks.current.memory 10501\n";
}

// ------------------------------------------------------------ command lines

TEST_F(NvSmi, EveryReaderRunsItsExactCommandLine) {
  enter(one_gpu(3));
  char text[128];
  unsigned long a = 0, b = 0;
  int v = 0;
  EXPECT_TRUE(monitor_.linux_nv_smi_read_num_gpus(&a));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_name(3, text));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_driver_version(3, text));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vbios_version(3, text));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_device_id(3, &a, &b));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_subdevice_id(3, &a, &b));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_bus_id(3, &a));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_fan_speed(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_vram_size(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_vram_used(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_usage(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vram_usage(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_temperature(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vram_temperature(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_power(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_core_clock(3, &v));
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vram_clock(3, &v));
  const std::vector<std::string> expected = {
      "nvidia-smi --query-gpu=count --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=name --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=driver_version --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=vbios_version --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=pci.device_id --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=pci.sub_device_id --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=pci.bus --format=csv,noheader",
      "nvidia-smi --id=3 --query-gpu=fan.speed --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=memory.total --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=memory.used --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=utilization.gpu --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=utilization.memory --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=temperature.gpu --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=temperature.memory --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=power.draw --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=clocks.current.sm --format=csv,noheader,nounits",
      "nvidia-smi --id=3 --query-gpu=clocks.current.memory --format=csv,noheader,nounits",
  };
  EXPECT_EQ(commands(), expected);
}

TEST_F(NvSmi, ANullOutputStartsNoProcess) {
  enter(one_gpu(3));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_num_gpus(nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_name(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_driver_version(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_vbios_version(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_device_id(3, nullptr, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_subdevice_id(3, nullptr, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_bus_id(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_fan_speed(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_vram_size(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_vram_used(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_usage(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_vram_usage(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_temperature(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_vram_temperature(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_power(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_core_clock(3, nullptr));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_vram_clock(3, nullptr));
  EXPECT_TRUE(commands().empty());
}

// ------------------------------------------------------------------ parsing

TEST_F(NvSmi, PciIdsAreDeviceFirstAndVendorLast) {
  enter(one_gpu(3));
  unsigned long vendor = 0, device = 0;
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_device_id(3, &vendor, &device));
  EXPECT_EQ(vendor, 0x10DEu);
  EXPECT_EQ(device, 0x2684u);
  unsigned long subvendor = 0, subdevice = 0;
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_subdevice_id(3, &subvendor, &subdevice));
  EXPECT_EQ(subvendor, 0x10DEu);
  EXPECT_EQ(subdevice, 0x16F3u);
  unsigned long bus = 0;
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_bus_id(3, &bus));
  EXPECT_EQ(bus, 7u);
}

TEST_F(NvSmi, LowerCaseHexAndTwoDigitBusesRead) {
  enter("count 1\ngpu 0\npci.device_id 0x2b85abcd\npci.sub_device_id 0x205710de\npci.bus 0xC1\n");
  unsigned long vendor = 0, device = 0;
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_device_id(0, &vendor, &device));
  EXPECT_EQ(vendor, 0xABCDu);
  EXPECT_EQ(device, 0x2B85u);
  unsigned long bus = 0;
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_pci_bus_id(0, &bus));
  EXPECT_EQ(bus, 0xC1u);
}

TEST_F(NvSmi, ShortPciAnswersFailAndLeaveTheOutputs) {
  enter("count 1\ngpu 0\npci.device_id 0x1234\npci.sub_device_id 0x123456\npci.bus 0x\n");
  unsigned long vendor = 5, device = 6;
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_device_id(0, &vendor, &device));
  // Nine characters with the newline: still not longer than 9.
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_subdevice_id(0, &vendor, &device));
  unsigned long bus = 9;
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_pci_bus_id(0, &bus));
  EXPECT_EQ(vendor, 5u);
  EXPECT_EQ(device, 6u);
  EXPECT_EQ(bus, 9u);
}

TEST_F(NvSmi, TextAnswersLoseTheirNewlineAndEmptyOnesFail) {
  const std::string long_name(200, 'x');
  enter("count 1\ngpu 0\nname <nonl>NVIDIA GeForce RTX 4090\ndriver_version\nvbios_version " +
        long_name + "\n");
  char text[128];
  std::memset(text, 'z', sizeof text);
  ASSERT_TRUE(monitor_.linux_nv_smi_read_gpu_name(0, text));
  EXPECT_STREQ(text, "NVIDIA GeForce RTX 4090");
  std::strcpy(text, "kept");
  EXPECT_FALSE(monitor_.linux_nv_smi_read_driver_version(0, text));
  EXPECT_STREQ(text, "kept");
  ASSERT_TRUE(monitor_.linux_nv_smi_read_vbios_version(0, text));
  EXPECT_EQ(std::string(text), std::string(127, 'x'));
}

TEST_F(NvSmi, NotAvailableAnswersReadAsZeroExceptTheMemoryTemperature) {
  enter(
      "count 1\ngpu 0\nfan.speed [N/A]\nutilization.gpu [Not Supported]\ntemperature.gpu 48\n"
      "temperature.memory N/A\npower.draw 215.37\nclocks.current.sm N/A\n");
  int v = -5;
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_fan_speed(0, &v));
  EXPECT_EQ(v, 0);
  v = -5;
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_usage(0, &v));
  EXPECT_EQ(v, 0);
  // Only the memory temperature rejects an answer starting with N.
  v = -5;
  EXPECT_FALSE(monitor_.linux_nv_smi_read_vram_temperature(0, &v));
  EXPECT_EQ(v, -5);
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_core_clock(0, &v));
  EXPECT_EQ(v, 0);
  // Whole watts: the fraction is dropped.
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_power(0, &v));
  EXPECT_EQ(v, 215);
  // A field the board does not have prints "[N/A]": read as 0 as well.
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vram_clock(0, &v));
  EXPECT_EQ(v, 0);
}

TEST_F(NvSmi, ABracketedMemoryTemperatureIsNotRejected) {
  enter("count 1\ngpu 0\ntemperature.memory [N/A]\n");
  int v = -5;
  EXPECT_TRUE(monitor_.linux_nv_smi_read_vram_temperature(0, &v));
  EXPECT_EQ(v, 0);
}

TEST_F(NvSmi, NoOutputOrACrashIsNoReading) {
  enter("count 1\ngpu 0\ntemperature.gpu <nothing>\nutilization.gpu <crash>\nname <crash>\n");
  int v = -5;
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_temperature(0, &v));
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_usage(0, &v));
  EXPECT_EQ(v, -5);
  char text[128] = "kept";
  EXPECT_FALSE(monitor_.linux_nv_smi_read_gpu_name(0, text));
  EXPECT_STREQ(text, "kept");
  // An index nvidia-smi does not know: "No devices were found" reads as 0.
  EXPECT_TRUE(monitor_.linux_nv_smi_read_gpu_temperature(7, &v));
  EXPECT_EQ(v, 0);
}

TEST_F(NvSmi, TheCountIsTheFirstLineAndNoLineIsZero) {
  struct Case {
    const char* answer;
    unsigned long count;
  } cases[] = {{"2", 2},
               {"<nothing>", 0},
               {"<crash>", 0},
               {"<exit 6>No devices were found", 0},
               {"<exit 9>NVIDIA-SMI has failed because it couldn't communicate with the NVIDIA "
                "driver.",
                0}};
  for (const Case& c : cases) {
    enter(std::string("count ") + c.answer + "\n");
    unsigned long count = 99;
    EXPECT_TRUE(monitor_.linux_nv_smi_read_num_gpus(&count)) << c.answer;
    EXPECT_EQ(count, c.count) << c.answer;
    TearDown();
  }
}

TEST_F(NvSmi, AMachineWithoutNvidiaSmiCountsZero) {
  enter("");
  machine_->remove("bin/nvidia-smi");
  scope_.reset();
  scope_.reset(new MachineScope(machine_->dir()));
  ASSERT_TRUE(scope_->ok());
  unsigned long count = 99;
  EXPECT_TRUE(monitor_.linux_nv_smi_read_num_gpus(&count));
  EXPECT_EQ(count, 0u);
  EXPECT_FALSE(monitor_.linux_nv_smi_init_gpus());
  EXPECT_EQ(monitor_.get_num_gpus(), 0u);
}

// ---------------------------------------------------------------- discovery

TEST_F(NvSmi, DiscoveryTracesWhatItReadsOfEachGpu) {
  enter("", "nvidia-rtx5090-rtx4080s-smi");
  TraceCapture traces;
  ASSERT_TRUE(monitor_.linux_nv_smi_init_gpus());
  EXPECT_EQ(traces.texts(), rtx5090_rtx4080s_smi_scan_block());
  // The count, then 14 values per GPU.
  EXPECT_EQ(commands().size(), 1u + 2 * 14);

  EXPECT_EQ(monitor_.num_nv_smi_detected, 2u);
  EXPECT_EQ(monitor_.num_monitorable_gpus, 2u);
  ASSERT_EQ(monitor_.get_num_gpus(), 2u);
  EXPECT_EQ(monitor_.nvml_get_num_gpus(), 0u);

  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->nvidia_gpu_index, 0);
  EXPECT_STREQ(g->name, "NVIDIA GeForce RTX 5090");  // the database's name, the same here
  EXPECT_STREQ(g->codename, "GB202-300");
  EXPECT_EQ(g->vendor_id, 0x10DEu);
  EXPECT_EQ(g->device_id, 0x2B85u);
  EXPECT_EQ(g->subvendor_id, 0x10DEu);
  EXPECT_EQ(g->subdevice_id, 0x2057u);
  EXPECT_EQ(g->bus_id, 1);
  EXPECT_STREQ(g->driver_version, "570.133.07");
  EXPECT_STREQ(g->vbios_version, "98.02.2E.00.AF");
  EXPECT_EQ(g->vram_size_mb, 32607);
  EXPECT_EQ(g->core_usage[0], 3.0f);
  EXPECT_EQ(g->memory_usage[0], 1.0f);
  EXPECT_EQ(g->temperatures[0].current, 38.0f);
  EXPECT_EQ(g->temperatures[0].min, 38.0f);
  EXPECT_EQ(g->temperatures[0].max, 38.0f);
  EXPECT_EQ(g->temperatures[2].current, -1.0f);  // "N/A"
  EXPECT_EQ(g->power.watts, 27.0f);
  EXPECT_EQ(g->power.current, 0.001f * 27.0f);  // a thousandth of the watts on this path
  EXPECT_EQ(g->core_clock.current, 390.0f);
  EXPECT_EQ(g->memory_clock.current, 405.0f);
  EXPECT_EQ(g->sensor_available[0], 1);
  EXPECT_EQ(g->sensor_available[2], 1);
  EXPECT_TRUE(g->monitorable);
  EXPECT_EQ(g->nvml_device, nullptr);
  // Database counts; nvidia-smi has no core count, the database's is taken.
  EXPECT_EQ(g->num_shader_cores, 21760u);
  EXPECT_EQ(g->db_num_shader_cores, 21760u);
  EXPECT_EQ(g->num_texture_units, 680u);
  EXPECT_EQ(g->db_num_rops, 176u);
  EXPECT_EQ(g->num_rops, 176u);
  EXPECT_EQ(g->tdp_w, 575u);

  const zev::GPU* h = monitor_.get_gpu(1);
  EXPECT_EQ(h->nvidia_gpu_index, 1);
  EXPECT_EQ(h->bus_id, 4);
  EXPECT_EQ(h->num_rops, 112u);  // the driver refused: the database's count stays
}

TEST_F(NvSmi, TheMemoryTemperatureIsTracedWhenTheBoardHasIt) {
  enter("", "nvidia-h100-sxm");
  TraceCapture traces;
  ASSERT_TRUE(monitor_.linux_nv_smi_init_gpus());
  const std::vector<std::string> lines = traces.texts();
  EXPECT_NE(std::find(lines.begin(), lines.end(),
                      std::string("  - mem temperature: 30 ") + kDegrees),
            lines.end());
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_EQ(g->temperatures[2].current, 30.0f);
  EXPECT_EQ(g->temperatures[2].min, 30.0f);
  EXPECT_EQ(g->power.watts, 71.0f);
  // The H100 row of the database has no unit counts (-1): kept as they are.
  EXPECT_EQ(g->num_shader_cores, 0xFFFFFFFFu);
  EXPECT_EQ(g->num_rops, 24u);  // from the driver
}

TEST_F(NvSmi, FailedQueriesLeaveDefaultsAndSkipTheirTraces) {
  enter(
      "count 1\n"
      "gpu 0\n"
      "name <crash>\n"
      "pci.device_id 0x12\n"
      "pci.sub_device_id <nothing>\n"
      "pci.bus <exit 15>\n"
      "driver_version <nothing>\n"
      "vbios_version \\x01\\x02 weird\n"
      "memory.total [N/A]\n"
      "utilization.gpu <crash>\n"
      "utilization.memory <nothing>\n"
      "temperature.gpu <nothing>\n"
      "temperature.memory N/A\n"
      "power.draw <crash>\n"
      "clocks.current.sm <nothing>\n"
      "clocks.current.memory <nothing>\n");
  TraceCapture traces;
  EXPECT_TRUE(monitor_.linux_nv_smi_init_gpus());
  const std::vector<std::string> expected = {
      "scanning NVIDIA GPUs...", "> GPU 0", "  - vbios: \\x01\\x02 weird", "  - VRAM size: 0 MB",
      "  - ROP counter (from driver): not available (err: -1)"};
  EXPECT_EQ(traces.texts(), expected);
  const zev::GPU* g = monitor_.get_gpu(0);
  EXPECT_STREQ(g->name, "");
  EXPECT_EQ(g->vendor_id, 0u);
  EXPECT_GE(g->bus_id, 1000);  // the placeholder stays
  EXPECT_FALSE(g->monitorable);
  EXPECT_EQ(monitor_.num_monitorable_gpus, 0u);
}

TEST_F(NvSmi, ANonsenseCountStopsWhenTheListIsFull) {
  enter("count -1\ngpu 0\nname NVIDIA GeForce RTX 4090\n");
  TraceCapture traces;
  EXPECT_TRUE(monitor_.linux_nv_smi_init_gpus());
  EXPECT_EQ(monitor_.get_num_gpus(), GpuMonitorVorn::kMaxGpus);
  EXPECT_EQ(commands().size(), 1u + GpuMonitorVorn::kMaxGpus * 14);
}

TEST_F(NvSmi, NoGpuIsNoDiscovery) {
  enter("count <exit 6>No devices were found\n");
  TraceCapture traces;
  EXPECT_FALSE(monitor_.linux_nv_smi_init_gpus());
  EXPECT_EQ(traces.texts(), std::vector<std::string>{"scanning NVIDIA GPUs..."});
  EXPECT_EQ(monitor_.get_num_gpus(), 0u);
}

// ------------------------------------------------------------------ refresh

TEST_F(NvSmi, ARefreshReadsEverySensorOfEachGpuOnceThroughTheDispatch) {
  enter(one_gpu(0));
  ASSERT_TRUE(monitor_.linux_nv_smi_init_gpus());
  commands();
  ASSERT_TRUE(monitor_.update_dynamic_data());
  const std::vector<std::string> expected = {
      "nvidia-smi --id=0 --query-gpu=clocks.current.sm --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=clocks.current.memory --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=utilization.gpu --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=utilization.memory --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=temperature.gpu --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=temperature.memory --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=power.draw --format=csv,noheader,nounits",
      "nvidia-smi --id=0 --query-gpu=fan.speed --format=csv,noheader,nounits",
  };
  EXPECT_EQ(commands(), expected);
}

}  // namespace
