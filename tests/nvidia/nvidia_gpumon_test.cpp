// The NVIDIA machines end to end through gpumon, as a host sees them: the
// discovery chain (CUDA probe, NVML, nvidia-smi, DRM), the traces, the
// records after discovery and after refreshes. The fakes log what was asked
// of them (NVML calls, nvidia-smi starts) into files outside the machine.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "nvidia_machines.h"
#include "test_support.h"

namespace {

using nlohmann::json;
using nvidia_test::Machine;
using Texts = std::vector<std::string>;

Texts split(const std::string& text, char separator) {
  Texts parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
  return parts;
}

// Every value of `want` is in `got`: objects key by key, arrays of the same
// length item by item, numbers to float precision.
void expect_subset(const json& want, const json& got, const std::string& at) {
  if (want.is_number() && got.is_number()) {
    const double w = want.get<double>();
    EXPECT_NEAR(got.get<double>(), w, 1e-6 * std::max(1.0, std::fabs(w))) << at;
  } else if (!want.is_structured() || want.type() != got.type() ||
             (want.is_array() && want.size() != got.size())) {
    EXPECT_EQ(got, want) << at;
  } else {
    for (const auto& item : want.items()) {
      const std::string& key = item.key();
      if (want.is_object() && !got.contains(key)) {
        ADD_FAILURE() << at << " has no " << key;
      } else {
        expect_subset(item.value(), want.is_array() ? got[std::stoul(key)] : got[key],
                      at + "/" + key);
      }
    }
  }
}

struct Case {
  const char* what;
  std::function<Machine()> machine;
  std::string args;    // besides --json, one a word; with a watch, the last report is checked
  std::string traces;  // shown in this order, '|' between them; "!text": never shown; a
                       // leading '=': these are all the traces
  std::string gpus;    // what the report shows of each GPU (JSON)
  std::string logs;    // "smi=<nvidia-smi starts>", "nvml=<NVML calls, ',' between>", or none
};

void run(const Case& c) {
  SCOPED_TRACE(c.what);
  // The fakes' logs go next to the machine's files, outside its private copy.
  const Machine machine = c.machine();
  const std::string nvml_log = machine.dir() + "/nvml.log", smi_log = machine.dir() + "/smi.log";
  testing_support::allow_preloading();
  setenv("ZEV_FAKE_NVML_LOG", nvml_log.c_str(), 1);
  setenv("ZEV_FAKE_NVIDIA_SMI_LOG", smi_log.c_str(), 1);
  Texts args = {"--machine", machine.dir(), "--json"};
  for (const std::string& a : split(c.args, ' ')) args.push_back(a);
  const machine::RunResult r = testing_support::run_gpumon(args);
  unsetenv("ZEV_FAKE_NVML_LOG");
  unsetenv("ZEV_FAKE_NVIDIA_SMI_LOG");
  ASSERT_EQ(r.exit_code, 0) << r.out << r.err;
  const Texts reports = split(r.out, '\n');  // one a line when watching
  ASSERT_FALSE(reports.empty());
  const json doc = json::parse(c.args.empty() ? r.out : reports.back(), nullptr, false);
  ASSERT_FALSE(doc.is_discarded()) << r.out;

  Texts traces;
  for (const json& t : doc["traces"]) traces.push_back(t["text"]);
  if (!c.traces.empty() && c.traces[0] == '=') {
    EXPECT_EQ(traces, split(c.traces.substr(1), '|'));
  }
  auto from = traces.begin();
  for (const std::string& want : split(c.traces, '|')) {
    if (want[0] == '!') {
      EXPECT_EQ(std::count(traces.begin(), traces.end(), want.substr(1)), 0) << want;
      continue;
    }
    const auto at = std::find(from, traces.end(), want[0] == '=' ? want.substr(1) : want);
    EXPECT_TRUE(at != traces.end())
        << "no \"" << want << "\" (in this order) in " << json(traces).dump(1);
    if (at != traces.end()) from = at + 1;
  }
  expect_subset(json::parse(c.gpus), doc["gpus"], "gpus");

  std::string logs;
  for (const std::string& log : split(c.logs, ' ')) {
    const Texts lines = split(testing_support::read_file(log[0] == 's' ? smi_log : nvml_log), '\n');
    std::string calls;
    for (const std::string& l : lines) calls += (calls.empty() ? "" : ",") + l;
    logs += (logs.empty() ? "" : " ") +
            (log[0] == 's' ? "smi=" + std::to_string(lines.size()) : "nvml=" + calls);
  }
  EXPECT_EQ(logs, c.logs);
}

std::function<Machine()> on(const char* name, const char* without = nullptr,
                            const char* or_without = nullptr) {
  return [=] {
    Machine m(name);
    if (without != nullptr) m.remove(without);
    if (or_without != nullptr) m.remove(or_without);
    return m;
  };
}

const char kH100[] = "nvidia-h100-sxm";
const char kSmi[] = "nvidia-rtx5090-rtx4080s-smi";

TEST(NvidiaGpumon, NvmlMachinesAsAHostSeesThem) {
  const Case cases[] = {
      {"H100", on(kH100), "",
       "=Linux x86_64 - CPU name: Intel(R) Xeon(R) Platinum 8480+, CPU speed: 2000MHz, RAM: "
       "225280MB|Operating system detected: Linux 6.8.0-45-generic 64-bit|"
       "NVIDIA CUDA library detected.|  - ROP counter (from driver): 24|"
       "num GPUs detected by nvidia nvml: 1|Num GPUs detected: 1|> GPU0|"
       "  - name: NVIDIA H100 80GB HBM3|  - PCI codes: 0x10DE-0x2330|  - Bus ID: 24|"
       "  - VBIOS: 96.00.99.00.01|  - core temperature: 32 degC|  - driver: 550.90.07",
       R"([{"name": "NVIDIA H100 80GB HBM3", "codename": "GH100", "architecture": "Hopper",
            "cuda_compute_capability": "9.0",
            "pci": {"vendor_id": "0x10DE", "device_id": "0x2330", "bus": "0x18",
                    "address": "0000:18:00.0", "subsystem_vendor_id": "0x10DE",
                    "subsystem_device_id": "0x16C1"},
            "driver": {"version": "550.90.07"}, "vbios_version": "96.00.99.00.01",
            "memory_total_mib": 81559, "memory_used_mib": 1,
            "pcie_throughput_kb_per_s": {"tx": 1843, "rx": 3921},
            "monitorable": true, "memory_bus_width_bits": 5120,
            "units": {"shaders": 16896, "texture_units": null, "rops": 24},
            "temperature_c": {"core": 33, "memory": null, "shutdown_threshold": 92,
                              "slowdown_threshold": 89, "gpu_max_threshold": 87},
            "clock_mhz": {"core": 1755, "memory": 2619, "core_max": 1980, "memory_max": 2619},
            "utilization_percent": {"core": 37, "memory": 12},
            "power_w": {"tdp": null, "draw": 305.778, "enforced_limit": 700, "default_limit": 700,
                        "min_limit": 200, "max_limit": 700},
            "energy_j": 4578213.376, "fans": [], "processes": []}])",
       "smi=0"},
      // NVML records are refreshed through NVML alone.
      {"H100, two refreshes", on(kH100), "--watch 0.01 --count 2", "",
       R"([{"temperature_c": {"core": 35, "core_lowest": 32, "core_highest": 35},
            "clock_mhz": {"core": 1980, "memory": 2619},
            "utilization_percent": {"core": 98, "memory": 41}, "power_w": {"draw": 688.412},
            "throttle_reasons": {"active": "0x0000000000000000", "text": "None"}}])",
       "smi=0"},
      {"RTX 4090, three refreshes", on("nvidia-rtx4090-desktop"), "--watch 0.01 --count 3", "",
       R"([{"fans": [{"speed_percent": 44, "speed_rpm": null},
                     {"speed_percent": 31, "speed_rpm": null}],
            "power_w": {"draw": 28.03}}])",
       "smi=0"},
      // The board named from NVML's sub-system ids, as on the nvidia-smi
      // path; every fan with its RPM (driver 570); the processes. Without
      // another card no DRM scan runs.
      {"two boards", on("nvidia-rtx5090-rtx4080s-nvml"), "",
       "num GPUs detected by nvidia nvml: 2|!DRM: scanning GPUs...",
       R"([{"name": "NVIDIA GeForce RTX 5090 Founders Edition",
            "device_name": "NVIDIA GeForce RTX 5090", "pci": {"address": "0000:01:00.0"},
            "memory_total_mib": 32607, "memory_used_mib": 1187,
            "fans": [{"speed_percent": 30, "speed_rpm": 1034},
                     {"speed_percent": 30, "speed_rpm": 1041}],
            "processes": [{"pid": 4242, "name": "/usr/bin/blender", "sm_percent": 35,
                           "memory_percent": 12},
                          {"pid": 5151, "name": "/usr/lib/xorg/Xorg", "sm_percent": 9,
                           "memory_percent": 3}]},
           {"name": "NVIDIA GeForce RTX 4080 SUPER", "pci": {"bus": "0x04"},
            "fans": [{}, {}, {}], "processes": []}])",
       "smi=0"},
      {"two boards, refreshed", on("nvidia-rtx5090-rtx4080s-nvml"), "--watch 0.01 --count 2", "",
       R"([{"memory_used_mib": 2431, "processes": [{"pid": 4242}, {"pid": 5151}]}, {}])", "smi=0"},
      // A laptop: NVML finds the NVIDIA GPU, the DRM scan the AMD one that
      // drives the screen (skipping the NVIDIA card).
      {"NVIDIA through NVML and AMD", on("nvidia-amd-780m-rtx4060-nvml"), "",
       "num GPUs detected by nvidia nvml: 1|!> GPU 0|DRM: scanning GPUs...|> GPU 1|"
       "  - device ID: 1002-15BF|num GPUs in DRM: 1|Num GPUs detected: 2",
       R"([{"name": "NVIDIA GeForce RTX 4060 Laptop GPU", "pci": {"address": "0000:01:00.0"},
            "memory_total_mib": 8188, "memory_used_mib": 9},
           {"name": "AMD Radeon 780M Graphics", "pci": {"address": "0000:65:00.0"},
            "utilization_percent": {"core": 7}}])",
       "smi=0"},
      // No devices: NVML is shut down, nvidia-smi counts none, DRM finds none.
      {"no devices", on("nvidia-nvml-no-devices"), "", "scanning NVIDIA GPUs...|DRM: no GPU found.",
       "[]",
       "smi=1 nvml=nvmlInit_v2,nvmlSystemGetNVMLVersion,nvmlSystemGetDriverVersion,"
       "nvmlDeviceGetCount_v2,nvmlShutdown"},
      {"no CUDA library: no NVIDIA back-end", on(kH100, "lib/libcuda.so"), "",
       "DRM: no GPU found.|!NVIDIA CUDA library detected.", "[]", "smi=0 nvml="},
  };
  for (const Case& c : cases) run(c);
}

TEST(NvidiaGpumon, NvidiaSmiMachinesAsAHostSeesThem) {
  const auto answering = [](const std::string& conf) {
    return [conf] { return Machine(kSmi).file("nvidia/nvidia-smi.conf", conf); };
  };
  std::string sixteen = "[{}";
  for (int i = 1; i < 16; ++i) sixteen += ", {}";
  const Case cases[] = {
      // NVML refuses to start: nvidia-smi, one process per value, then DRM.
      {"NVML refused", on(kSmi), "",
       "NVIDIA CUDA library detected.|scanning NVIDIA GPUs...|> GPU 0|"
       "  - name: NVIDIA GeForce RTX 5090|  - device ID: 10DE-2B85|  - subdevice ID: 10DE-2057|"
       "  - bus ID: 1|  - driver: 570.133.07|  - vbios: 98.02.2E.00.AF|  - VRAM size: 32607 MB|"
       "  - core usage: 3 %|  - mem usage: 1 %|  - core temperature: 38 °C|  - power: 27 W|"
       "  - core clock: 390 MHz|  - mem clock: 405 MHz|  - ROP counter (from driver): 176|"
       "> GPU 1|  - ROP counter (from driver): not available (err: -4)|"
       "num GPUs detected by nvidia-smi: 2|DRM: no GPU other than NVIDIA found.|"
       "  - name: NVIDIA GeForce RTX 5090 Founders Edition",
       // Whole watts; the board name from the sub-system ids; the fan (a
       // percentage) and the memory in use are read at discovery too.
       R"([{"name": "NVIDIA GeForce RTX 5090 Founders Edition", "memory_total_mib": 32607,
            "memory_used_mib": 1187,
            "pci": {"subsystem_vendor_id": "0x10DE", "subsystem_device_id": "0x2057"},
            "units": {"shaders": 21760, "texture_units": 680}, "power_w": {"draw": 27},
            "temperature_c": {"memory": null},
            "fans": [{"speed_percent": 30, "speed_rpm": null}]},
           {"pci": {"vendor_id": "0x10DE", "device_id": "0x2702", "bus": "0x04"},
            "units": {"rops": 112}}])",
       "smi=51 nvml=nvmlInit_v2"},
      // Nine nvidia-smi processes per GPU and refresh; its one fan in percent.
      {"refreshed", on(kSmi), "--watch 0.01 --count 2", "",
       R"([{"fans": [{"speed_percent": 30, "speed_rpm": null}], "power_w": {"draw": 27},
            "clock_mhz": {"core": 390}, "utilization_percent": {"core": 3},
            "temperature_c": {"memory": null}, "memory_used_mib": 1187},
           {"fans": [{"speed_percent": 0, "speed_rpm": null}]}])",
       "smi=69"},
      // The database has no unit counts for the H100 (-1): they stay unknown.
      // Its fan answers "[N/A]": no fan, rather than one at 0.
      {"H100 without NVML", on(kH100, "lib/libnvidia-ml.so", "lib/libnvidia-ml.so.1"), "",
       "  - mem temperature: 30 °C|  - ROP counter (from driver): 24|"
       "num GPUs detected by nvidia-smi: 1",
       R"([{"temperature_c": {"memory": 30}, "units": {"shaders": null, "rops": 24},
            "power_w": {"draw": 71}, "fans": []}])",
       ""},
      // DRM skips the NVIDIA card nvidia-smi has and adds the AMD one.
      {"NVIDIA and AMD", on("nvidia-amd-780m-rtx4060-smi"), "",
       "num GPUs detected by nvidia-smi: 1|DRM: scanning GPUs...|> GPU 1|num GPUs in DRM: 1",
       R"([{"name": "NVIDIA GeForce RTX 4060 Laptop GPU", "pci": {"bus": "0x01"}},
           {"name": "AMD Radeon 780M Graphics", "pci": {"vendor_id": "0x1002", "device_id": "0x15BF"},
            "utilization_percent": {"core": 7}}])",
       ""},
      // Answers that are no values leave a record without them.
      {"bad answers",
       answering("count 1\ngpu 0\nname <crash>\npci.device_id 0x12\npci.sub_device_id <nothing>\n"
                 "pci.bus <exit 15>\ndriver_version <nothing>\nvbios_version \\x01\\x02 weird\n"
                 "memory.total [N/A]\nutilization.gpu <crash>\nutilization.memory <nothing>\n"
                 "temperature.gpu <nothing>\ntemperature.memory N/A\npower.draw <crash>\n"
                 "clocks.current.sm <nothing>\nclocks.current.memory <nothing>\n"),
       "",
       "> GPU 0|  - vbios: \\x01\\x02 weird|!  - VRAM size: 0 MB|"
       "num GPUs detected by nvidia-smi: 1",
       R"([{"name": null, "pci": {"vendor_id": null, "device_id": null, "bus": null},
            "monitorable": false, "utilization_percent": {"core": null},
            "power_w": {"draw": null}, "memory_total_mib": null}])",
       ""},
      // "[N/A]" for every field: a record without values, none of them 0.
      {"[N/A] everywhere", answering("count 1\ngpu 0\n"), "--watch 0.01 --count 2", "",
       R"([{"name": null, "pci": {"vendor_id": null, "bus": null}, "monitorable": false,
            "memory_total_mib": null, "memory_used_mib": null, "fans": [],
            "utilization_percent": {"core": null, "memory": null},
            "temperature_c": {"core": null, "memory": null}, "power_w": {"draw": null},
            "clock_mhz": {"core": null, "memory": null}}])",
       ""},
      // Units where none were asked, and empty lines.
      {"units and empty lines",
       answering("count 1\ngpu 0\nutilization.gpu 38 %\nutilization.memory\nfan.speed 41 %\n"
                 "memory.used 1024 MiB\ntemperature.gpu\n"),
       "", "  - core usage: 38 %",
       R"([{"utilization_percent": {"core": 38, "memory": null},
            "fans": [{"speed_percent": 41, "speed_rpm": null}], "memory_used_mib": 1024,
            "temperature_c": {"core": null}}])",
       ""},
      // A garbled count stops once the list is full.
      {"count -1", answering("count -1\ngpu 0\nname NVIDIA GeForce RTX 4090\n"), "", "",
       sixteen + "]", "smi=257"},
      // Without nvidia-smi either, DRM keeps the NVIDIA cards.
      {"no nvidia-smi", on(kSmi, "bin/nvidia-smi"), "", "num GPUs in DRM: 2",
       R"([{"pci": {"device_id": "0x2B85"}, "monitorable": false},
           {"pci": {"device_id": "0x2702"}}])",
       ""},
  };
  for (const Case& c : cases) run(c);
}

// nvidia-smi's answers as real machines gave them (the capture, kept as it
// is, answered by the fake nvidia-smi): units, "[N/A]" and "N/A" included.
TEST(NvidiaGpumon, CapturedNvidiaSmiMachines) {
  const Case cases[] = {
      {"RTX 2080 SUPER, idle", on("nvidia-rtx2080super-smi-capture"), "",
       "> GPU 0|  - name: NVIDIA GeForce RTX 2080 SUPER|  - device ID: 10DE-1E81|"
       "  - subdevice ID: 1458-4005|  - bus ID: 12|  - driver: 595.71.05|"
       "  - vbios: 90.04.7A.40.73|  - VRAM size: 8192 MB|  - core usage: 0 %|  - mem usage: 9 %|"
       "  - core temperature: 40 °C|!  - mem temperature: 0 °C|  - power: 39 W|"
       "  - core clock: 765 MHz|  - mem clock: 810 MHz|num GPUs detected by nvidia-smi: 1",
       R"([{"name": "NVIDIA GeForce RTX 2080 SUPER", "codename": "TU104",
            "pci": {"bus": "0x0C", "vendor_id": "0x10DE", "device_id": "0x1E81",
                    "subsystem_vendor_id": "0x1458", "subsystem_device_id": "0x4005"},
            "driver": {"version": "595.71.05"}, "vbios_version": "90.04.7A.40.73",
            "memory_total_mib": 8192, "memory_used_mib": 214, "monitorable": true,
            "temperature_c": {"core": 40, "memory": null},
            "utilization_percent": {"core": 0, "memory": 9}, "power_w": {"draw": 39},
            "clock_mhz": {"core": 765, "memory": 810},
            "fans": [{"speed_percent": 38, "speed_rpm": null}]}])",
       "smi=26"},
      // A passively cooled H100 under load: its fan is "[N/A]", no fan at all.
      {"H100, under load", on("nvidia-h100-smi-capture"), "--watch 0.01 --count 1", "",
       R"([{"name": "NVIDIA H100 80GB HBM3", "pci": {"bus": "0x00", "device_id": "0x2330"},
            "driver": {"version": "590.48.01"}, "vbios_version": "96.00.A5.00.01",
            "memory_total_mib": 81559, "memory_used_mib": 19818,
            "temperature_c": {"core": 59, "memory": 54},
            "utilization_percent": {"core": 100, "memory": 11}, "power_w": {"draw": 631},
            "clock_mhz": {"core": 1980, "memory": 2619}, "fans": []}])",
       "smi=26"},
  };
  for (const Case& c : cases) run(c);

  const Machine machine("nvidia-rtx2080super-smi-capture");
  const machine::RunResult r = testing_support::run_gpumon(
      {"--machine", machine.dir(), "--query", "fan.speed,fan.rpm,memory.used"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out, "fan.speed [%], fan.rpm [RPM], memory.used [MiB]\n38 %, [N/A], 214 MiB\n");
}

TEST(NvidiaGpumon, TheTableShowsTheH100) {
  const Machine machine(kH100);
  testing_support::allow_preloading();
  const machine::RunResult r = testing_support::run_gpumon({"--machine", machine.dir(), "--wide"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  // The values of one refresh; no /sys, so no PCI address, and the bus in hex.
  EXPECT_NE(
      r.out.find("NVIDIA H100 80GB HBM3  0000:18:00.0  550.90.07  10DE:2330  -    0x18  GH100  "
                 "16896/-/24         -      33 (32-33)  -      37      12     1/81559   1755      "
                 "2619     306      -"),
      std::string::npos)
      << r.out;
}

}  // namespace
