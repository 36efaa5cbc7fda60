// The NVML back-end on the fake NVML library (its variants lack some entry
// points): discovery, the periodic and the on-demand refreshes. Each case runs
// in a child inside its machine, whose lib/ is on the loader's path as for a
// real host. What gpumon shows of these records is in nvidia_gpumon_test.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "nvidia_machines.h"
#include "plugin/gpu_monitor_vorn.h"
#include "test_support.h"

namespace {

using nvidia_test::Machine;

const char kNvml[] = "nvidia/nvml.conf";
const char kH100[] = "nvidia-h100-sxm";
const char k4090[] = "nvidia-rtx4090-desktop";
const char k5090[] = "nvidia-rtx5090-rtx4080s-nvml";

// A monitor with NVML discovery run, and the traces it wrote.
struct Nvml {
  GpuMonitorVorn monitor;
  testing_support::TraceCapture traces;
  const bool found = monitor.nvml_initialize();
  ~Nvml() { monitor.cleanup_gpus_list(); }
};

// The shortest text that reads back as `v`.
std::string fl(float v) {
  char text[32];
  for (int digits = 6; digits < 10; ++digits) {
    std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(v));
    if (std::strtof(text, nullptr) == v) break;
  }
  return text;
}
std::string fl(std::initializer_list<float> values) {
  std::string s;
  for (float v : values) s += (s.empty() ? "" : ",") + fl(v);
  return s;
}
std::string in(std::initializer_list<long long> values) {
  std::string s;
  for (long long v : values) s += (s.empty() ? "" : ",") + std::to_string(v);
  return s;
}

// Speeds (or RPMs) of the first three fans.
std::string fans(const zev::GPU& g, bool rpm) {
  std::string s;
  for (uint64_t f = 0; g.fans != nullptr && f < g.num_fans && f < 3; ++f) {
    s += (f ? "," : "") + fl(rpm ? g.fans[f].rpm : g.fans[f].speed_percent);
  }
  return s;
}

std::string processes(const zev::GPU& g) {
  if (g.process_utilization == nullptr) return "none";
  std::string s;
  for (uint64_t k = 0; k < g.num_process_utilization; ++k) {
    const zev::gpuProcessUtilization& p = g.process_utilization[k];
    s += (k ? "," : "") + std::to_string(p.pid) + ":" + p.process_name + ":" +
         in({static_cast<long long>(p.timestamp), p.sm_util, p.mem_util});
  }
  return s;
}

// A field of a record, by key.
std::string field(const zev::GPU& g, const std::string& k) {
  const zev::gpuPower& p = g.power;
  const int32_t* r = g.nvml_raw;
  const int32_t* t = g.temperature_thresholds;
  if (k == "name") return g.name;
  if (k == "codename") return g.codename;
  if (k == "arch") return g.architecture;
  if (k == "index") return std::to_string(g.nvidia_gpu_index);
  if (k == "fans") return fans(g, false);
  if (k == "rpms") return fans(g, true);
  if (k == "nfans") return std::to_string(g.num_fans);
  if (k == "lastfan") return g.num_fans ? fl(g.fans[g.num_fans - 1].speed_percent) : "none";
  if (k == "raw") return in({r[0], r[1], r[2], r[3], r[4]});
  if (k == "thresholds") return in({t[0], t[1], t[2]});
  if (k == "temp")
    return fl({g.temperatures[0].current, g.temperatures[0].min, g.temperatures[0].max});
  if (k == "mon") return std::to_string(g.monitorable);
  if (k == "shaders") return in({g.num_shader_cores, g.nvml_num_cores, g.db_num_shader_cores});
  // Texture units, ROPs, the database's ROPs, TDP.
  if (k == "units") return in({g.num_texture_units, g.num_rops, g.db_num_rops, g.tdp_w});
  if (k == "width") return std::to_string(g.memory_bus_width);
  if (k == "sms") return std::to_string(g.num_multiprocessors);
  if (k == "cuda") return in({g.cuda_compute_capability[0], g.cuda_compute_capability[1]});
  if (k == "energy") return fl(g.total_energy);
  if (k == "limits") return fl({p.enforced_limit, p.default_limit, p.limit_min, p.limit_max});
  if (k == "clk") return fl({g.core_clock.current, g.memory_clock.current});
  if (k == "maxclk") return fl({g.core_clock.max_clock, g.memory_clock.max_clock});
  if (k == "reported")
    return fl({g.core_clock.reported_max_clock, g.memory_clock.reported_max_clock});
  if (k == "power") return fl({p.current, p.watts, p.watts_max_in_test});
  if (k == "util") return in({g.nvml_gpu_utilization, g.nvml_memory_utilization});
  if (k == "usage") return fl({g.core_usage[0], g.memory_usage[0]});
  if (k == "throttle") return g.throttle_reason_text;
  if (k == "reasons") return std::to_string(g.throttle_reasons);
  if (k == "procs") return processes(g);
  if (k == "pcie") return in({g.pcie_tx_throughput, g.pcie_rx_throughput});
  if (k == "memory") return in({g.vram_size_mb, g.vram_used_mb});
  if (k == "board") {
    char ids[32];
    std::snprintf(ids, sizeof ids, "%04llX:%04llX", static_cast<unsigned long long>(g.subvendor_id),
                  static_cast<unsigned long long>(g.subdevice_id));
    return std::string(ids) + "," + g.pci_bus_id + "," + g.driver_version + "," + g.vbios_version;
  }
  if (k == "sensors") {
    std::string s;
    for (int i = 0; i < 5; ++i) s += std::to_string(g.sensor_available[i]);
    return s;
  }
  return "?";
}

// One answer of the monitor. Operations run when asked and answer whether
// they succeeded: "refresh", and the on-demand refreshes of GPU i "power<i>",
// "procs<i>", "pcie<i>". "calls:<entry point>" counts the library's calls of
// it so far. The other keys read the monitor, or a field of NVML GPU 0
// ("1.fans": of GPU 1).
std::string answer(Nvml& n, std::string key) {
  GpuMonitorVorn& m = n.monitor;
  if (key == "refresh") return std::to_string(m.nvml_update_dynamic_data());
  if (key.rfind("calls:", 0) == 0) {  // calls the fake library counted of one entry point
    auto calls_of = reinterpret_cast<unsigned long (*)(const char*)>(
        dlsym(m.nvml_lib_handle, "zev_fake_nvml_calls_of"));
    return calls_of != nullptr ? std::to_string(calls_of(key.c_str() + 6)) : "no counter";
  }
  const size_t digit = key.find_first_of("0123456789");
  if (digit != std::string::npos && digit > 0) {
    const unsigned long i = std::stoul(key.substr(digit));
    const std::string op = key.substr(0, digit);
    if (op == "power") return std::to_string(m.nvml_update_power_usage(i));
    if (op == "procs") return std::to_string(m.nvml_update_process_utilization(i));
    return std::to_string(m.nvml_get_pcie_throughput(i));
  }
  if (key == "found") return std::to_string(n.found);
  if (key == "loaded") return std::to_string(m.nvml_lib_handle != nullptr);
  if (key == "gpus")
    return std::to_string(m.get_num_gpus()) + "," + std::to_string(m.nvml_get_num_gpus());
  if (key == "detected") return std::to_string(m.num_nvml_detected);
  if (key == "monitorables") return std::to_string(m.num_monitorable_gpus);
  if (key == "traces") {
    std::string s;
    for (const std::string& t : n.traces.texts()) s += "[" + t + "]";
    return s;
  }
  unsigned long gpu = 0;
  if (key.find('.') != std::string::npos) {
    gpu = std::strtoul(key.c_str(), nullptr, 10);
    key = key.substr(key.find('.') + 1);
  }
  const zev::GPU* g = m.nvml_get_gpu(gpu);
  return g != nullptr ? field(*g, key) : "no GPU";
}

struct Case {
  const char* what;
  std::function<Machine()> machine;
  std::string query;     // keys, one a word (see answer())
  std::string expected;  // "key=answer" for each, a space between
};

// A machine with another NVML variant and more NVML data, when given.
std::function<Machine()> on(const char* base, const char* variant = nullptr,
                            const std::string& conf = "") {
  return [=] {
    Machine m(base);
    if (variant != nullptr) m.nvml(variant);
    if (!conf.empty()) m.append(kNvml, conf);
    return m;
  };
}

void run_cases(const std::vector<Case>& cases) {
  const int i =
      nvidia_test::inside_each(cases.size(), [&](size_t k) { return cases[k].machine(); });
  if (i < 0) return;
  Nvml nvml;
  std::istringstream keys(cases[i].query);
  std::string answers;
  for (std::string key; keys >> key;)
    answers += (answers.empty() ? "" : " ") + key + "=" + answer(nvml, key);
  EXPECT_EQ(answers, cases[i].expected) << cases[i].what;
}

TEST(NvmlDiscovery, RecordsHoldWhatTheLibraryReports) {
  // 17 devices; the architecture numbers are handed out in turn, one a device.
  const std::string many =
      "count 17\nname NVIDIA Test Board\npci_device_id 0x000110DE\ntemperature 40\n"
      "multiprocessors 7\narchitecture 0 1 2 3 4 5 6 7 8 9 10 11 13 0xFFFFFFFF\ndevice 0-16\n";
  std::string many_query = "detected gpus 15.index 15.sms",
              many_expected = "detected=17 gpus=16,16 15.index=15 15.sms=7";
  std::istringstream names(
      ",,Kepler,Maxwell,Pascal,Volta,Turing,Ampere,Ada Lovelace,Hopper,Blackwell,,,,,,");
  std::string name;
  for (int i = 0; std::getline(names, name, ','); ++i) {
    many_query += " " + std::to_string(i) + ".arch";
    many_expected += " " + std::to_string(i) + ".arch=" + name;
  }
  const std::string long_name = "name " + std::string(80, 'N') + "\npci_device_id 0x3FFF10DE\n";

  run_cases({
      {"H100", on(kH100),
       "found traces raw thresholds sensors fans arch width cuda sms energy limits maxclk reported",
       "found=1 traces=[  - ROP counter (from driver): 24] raw=-1,-1,-1,-1,71234 "
       "thresholds=92,89,87 sensors=10101 fans= arch=Hopper width=5120 cuda=9,0 sms=0 "
       "energy=4.5782134e+09 limits=700000,700000,200000,700000 maxclk=1980,2619 reported=-1,-1"},
      // No real library has the per-fan RPM entry.
      {"every fan, database numbers", on(k4090), "fans rpms raw thresholds codename units",
       "fans=30,31 rpms=-1,-1 raw=30,-1,-1,-1,27540 thresholds=98,95,90 codename=AD102-300 "
       "units=512,176,176,450"},
      {"per-fan RPMs", on(k4090, "nvml-full"), "rpms", "rpms=1122,1139"},
      // One variable serves all fans, another all thresholds.
      {"a failing fan or threshold repeats the reading before it",
       on(k4090, nullptr,
          "fail nvmlDeviceGetFanSpeed_v2.1 3\nfail nvmlDeviceGetTemperatureThreshold.1 3\n"),
       "fans thresholds", "fans=30,30 thresholds=98,98,90"},
      {"a failing first fan or threshold",
       on(k4090, nullptr,
          "fail nvmlDeviceGetFanSpeed_v2.0 3\nfail nvmlDeviceGetTemperatureThreshold.0 3\n"),
       "fans raw thresholds", "fans=4.2949673e+09,31 raw=-1,-1,-1,-1,27540 thresholds=41,95,90"},
      {"no fans: the single-fan reading is not tried", on(kH100, nullptr, "fan_speed 55\n"),
       "fans raw sensors", "fans= raw=-1,-1,-1,-1,71234 sensors=10101"},
      {"no fan count: the single-fan reading", on(k4090, "nvml-no-nvmlDeviceGetNumFans"),
       "fans raw", "fans=30 raw=30,-1,-1,-1,27540"},
      {"a failing single-fan reading", on(kH100, "nvml-no-nvmlDeviceGetNumFans"), "fans sensors",
       "fans= sensors=10101"},
      {"an absurd fan count", on(k4090, nullptr, "num_fans 100000\n"), "nfans fans lastfan",
       "nfans=100000 fans=30,31,31 lastfan=31"},
      {"usage alone keeps a GPU monitorable",
       on(kH100, nullptr,
          "fail nvmlDeviceGetTemperature 3\nfail nvmlDeviceGetTemperatureThreshold 3\n"),
       "thresholds temp mon monitorables", "thresholds=0,0,0 temp=-1,-1,-1 mon=1 monitorables=1"},
      {"neither temperature nor usage",
       on(kH100, nullptr,
          "fail nvmlDeviceGetTemperature 3\nfail nvmlDeviceGetUtilizationRates 3\n"),
       "sensors mon monitorables", "sensors=00001 mon=0 monitorables=0"},
      {"17 devices", [many] { return Machine(kH100).file(kNvml, many); }, many_query,
       many_expected},
      {"NVML's core count wins", on(k4090, nullptr, "cores 16000\n"), "shaders",
       "shaders=16000,16000,16384"},
      {"no core count: the database's", on(k4090, "nvml-no-nvmlDeviceGetNumGpuCores"), "shaders",
       "shaders=16384,0,16384"},
      {"the database's name wins", on(k4090, nullptr, "name GeForce RTX 4090 ES\n"), "name",
       "name=NVIDIA GeForce RTX 4090"},
      {"an unknown device",
       on(k4090, nullptr, "name NVIDIA Prototype X\npci_device_id 0x3FFF10DE\n"),
       "name codename shaders units",
       "name=NVIDIA Prototype X codename= shaders=16384,16384,0 units=0,176,0,0"},
      {"a name too long for its buffer", on(k4090, nullptr, long_name), "name", "name="},
      {"no architecture entry", on(k4090, "nvml-no-nvmlDeviceGetArchitecture"), "arch width",
       "arch= width=384"},
      // Called without a presence test: a missing entry fails like a failing call.
      {"no name entry", on(k4090, "nvml-no-nvmlDeviceGetName"), "name",
       "name=NVIDIA GeForce RTX 4090"},
      {"no power entry", on(k4090, "nvml-no-nvmlDeviceGetPowerUsage"), "power raw sensors limits",
       "power=-1,-1,-1 raw=30,-1,-1,-1,-1 sensors=10110 limits=450000,450000,150000,600000"},
      // What the first design dropped or never asked: the sub-system ids, the
      // PCI address, the driver and VBIOS versions, the video memory.
      {"the board as NVML describes it", on(kH100), "board memory",
       "board=10DE:16C1,0000:18:00.0,550.90.07,96.00.99.00.01 memory=81559,1"},
      {"two boards", on(k5090), "board memory 1.board 1.memory",
       "board=10DE:2057,0000:01:00.0,570.133.07,98.02.2E.00.AF memory=32607,1187 "
       "1.board=1458:40FD,0000:04:00.0,570.133.07,95.03.2C.40.94 1.memory=16376,3"},
      {"failing board reads leave them unknown",
       [] {
         Machine m(kH100);
         return m.file(kNvml,
                       "fail nvmlSystemGetDriverVersion 3\n" +
                           testing_support::read_file(m.dir() + "/" + kNvml) +
                           "fail nvmlDeviceGetVbiosVersion 3\nfail nvmlDeviceGetMemoryInfo 3\n");
       },
       "board memory", "board=10DE:16C1,0000:18:00.0,, memory=0,-1"},
      {"no PCI information", on(kH100, nullptr, "fail nvmlDeviceGetPciInfo 3\n"), "board name",
       "board=0000:0000,,550.90.07,96.00.99.00.01 name=NVIDIA H100 80GB HBM3"},
      {"memory of a library without the entry point", on(kH100, "nvml-no-nvmlDeviceGetMemoryInfo"),
       "memory refresh memory", "memory=0,-1 refresh=1 memory=0,-1"},
  });
}

TEST(NvmlDiscovery, StartsOnlyWithALibraryThatStartsAndCountsDevices) {
  const char kQuery[] = "found loaded gpus";
  run_cases({
      {"versioned name only", on("nvidia-nvml-versioned-only"), kQuery,
       "found=1 loaded=1 gpus=1,1"},
      {"no library",
       [] { return Machine(kH100).remove("lib/libnvidia-ml.so").remove("lib/libnvidia-ml.so.1"); },
       kQuery, "found=0 loaded=0 gpus=0,0"},
      {"nvmlInit only", on(kH100, "nvml-no-nvmlInit_v2"), kQuery, "found=1 loaded=1 gpus=1,1"},
      {"first count form only", on(kH100, "nvml-no-nvmlDeviceGetCount_v2"), kQuery,
       "found=1 loaded=1 gpus=1,1"},
      // Without start-up or shut-down, or when start-up is refused, the
      // library stays loaded; without devices it is shut down and unloaded.
      {"no start-up", on(kH100, "nvml-no-init"), kQuery, "found=0 loaded=1 gpus=0,0"},
      {"no shut-down", on(kH100, "nvml-no-nvmlShutdown"), kQuery, "found=0 loaded=1 gpus=0,0"},
      {"start-up refused", on("nvidia-rtx5090-rtx4080s-smi"), kQuery, "found=0 loaded=1 gpus=0,0"},
      {"no devices", on("nvidia-nvml-no-devices"), kQuery, "found=0 loaded=0 gpus=0,0"},
      {"no count entry", on(kH100, "nvml-no-count"), kQuery, "found=0 loaded=0 gpus=0,0"},
      {"a failing count",
       [] { return Machine(kH100).file(kNvml, "fail nvmlDeviceGetCount_v2 999\ndevice 0\n"); },
       kQuery, "found=0 loaded=0 gpus=0,0"},
      // The driver refuses the second board's ROP count: the database's stays.
      {"two boards", on(k5090), "traces 1.index 1.units monitorables",
       "traces=[  - ROP counter (from driver): 176][  - ROP counter (from driver): not available "
       "(err: -4)] 1.index=1 1.units=320,112,112,320 monitorables=2"},
  });
}

TEST(NvmlRefresh, WithoutTheLibraryNothingIsRead) {
  GpuMonitorVorn monitor;
  zev::GPU* gpu = monitor.create_gpu();
  monitor.add_nvml_gpu(gpu);
  EXPECT_FALSE(monitor.nvml_update_dynamic_data());
  EXPECT_FALSE(monitor.nvml_update_power_usage(0));
  EXPECT_FALSE(monitor.nvml_update_process_utilization(0));
  EXPECT_FALSE(monitor.nvml_get_pcie_throughput(0));
  EXPECT_EQ(gpu->nvml_raw[1], -1);
  monitor.cleanup_gpus_list();
}

// The 4090's second fan and first RPM move on with each reading.
const std::string kMovingFans = "fan.1 31 33 35 37\nfan_rpm.0 1122 1180 1240 1300\n";

TEST(NvmlRefresh, EachRefreshTakesTheNextReadings) {
  // Masks are named only when they are a single reason; a failed read is none.
  std::string throttle_query, throttle_expected;
  for (const char* text :
       {"GPU Idle", "None", "Applications Clocks Setting", "Software Power Cap",
        "Hardware Slowdown", "Sync Boost", "Software Thermal Slowdown", "Hardware Thermal Slowdown",
        "Hardware Power Brake Slowdown", "Display Clock Setting", "Unknown", "Unknown",
        "Display Clock Setting", "Unknown", "Unknown", "None"}) {
    throttle_query += "refresh throttle ";
    throttle_expected +=
        std::string(throttle_expected.empty() ? "" : " ") + "refresh=1 throttle=" + text;
  }
  run_cases({
      {"H100", on(kH100), "refresh raw reported util usage power limits",
       "refresh=1 raw=-1,33,1755,2619,305778 reported=1980,2619 util=37,12 usage=37,12 "
       "power=305778,305.778,-1 limits=700000,700000,200000,700000"},
      {"throttle reasons",
       on(kH100, nullptr,
          "throttle 1 0 2 4 8 16 32 64 128 256 5 3 0x100 0x200 0x100000000\n"
          "fail nvmlDeviceGetCurrentClocksThrottleReasons 15 from 16\n"),
       throttle_query + "reasons", throttle_expected + " reasons=0"},
      // Everything fails from the second refresh on: the values stay, and the
      // raw fields and the values without a reading of their own become -1.
      {"failed readings",
       on(kH100, nullptr,
          "fail nvmlDeviceGetTemperature 15 from 3\nfail nvmlDeviceGetMaxClockInfo.1 15 from 3\n"
          "fail nvmlDeviceGetMaxClockInfo.2 15 from 3\nfail nvmlDeviceGetClock.1 15 from 3\n"
          "fail nvmlDeviceGetClock.2 15 from 3\nfail nvmlDeviceGetPowerUsage 15 from 3\n"
          "fail nvmlDeviceGetTotalEnergyConsumption 15 from 3\n"
          "fail nvmlDeviceGetEnforcedPowerLimit 15 from 3\n"
          "fail nvmlDeviceGetUtilizationRates 15 from 3\n"),
       "refresh refresh raw temp clk power usage util maxclk reported energy limits",
       "refresh=1 refresh=1 raw=-1,-1,1755,2619,-1 temp=33,32,33 clk=1755,2619 "
       "power=305778,305.778,-1 usage=37,12 util=-1,-1 maxclk=-1,-1 reported=1980,2619 energy=-1 "
       "limits=-1,700000,200000,700000"},
      // Every fan moves: the first through the single-fan reading, the others
      // per fan; RPMs where the library has the entry point (driver 570 on).
      {"fans", on(k4090, "nvml", kMovingFans), "refresh refresh refresh fans raw rpms",
       "refresh=1 refresh=1 refresh=1 fans=44,37 raw=44,44,210,405,28030 rpms=1300,1139"},
      {"fans without an RPM entry point", on(k4090, nullptr, kMovingFans),
       "refresh fans rpms calls:nvmlDeviceGetFanSpeed_v2",
       "refresh=1 fans=30,33 rpms=-1,-1 "
       "calls:nvmlDeviceGetFanSpeed_v2=3"},
      {"a failing fan keeps its values",
       on(k4090, "nvml",
          kMovingFans + "fail nvmlDeviceGetFanSpeed_v2.1 3 from 2\n"
                        "fail nvmlDeviceGetFanSpeedRPM.0 3 from 2\n"),
       "refresh fans rpms", "refresh=1 fans=30,31 rpms=1122,1139"},
      // A board claiming 100000 fans gets its first 32 refreshed, not all.
      {"an absurd fan count", on(k4090, nullptr, "num_fans 100000\n"),
       "calls:nvmlDeviceGetFanSpeed_v2 refresh calls:nvmlDeviceGetFanSpeed_v2",
       "calls:nvmlDeviceGetFanSpeed_v2=100000 refresh=1 calls:nvmlDeviceGetFanSpeed_v2=100031"},
      {"memory in use", on(k5090), "memory refresh memory refresh memory 1.memory",
       "memory=32607,1187 refresh=1 memory=32607,1187 refresh=1 memory=32607,2431 "
       "1.memory=16376,3"},
      // A failed read keeps the last value.
      {"memory that cannot be read",
       on(k5090, nullptr, "device 0\nfail nvmlDeviceGetMemoryInfo 3 from 2\n"),
       "refresh refresh memory", "refresh=1 refresh=1 memory=32607,1187"},
  });
}

TEST(NvmlRefresh, OnDemandPowerProcessesAndPcie) {
  const std::string sizing = "device 0\nprocess_sizing 0\ndevice 1\nprocess_sizing 0\n";
  const std::string table =
      "4242:/usr/bin/blender:1732700000000000,35,12,5151:/usr/lib/xorg/Xorg:1732700000000500,9,3";
  run_cases({
      {"power keeps the maximum of the test", on(kH100), "power0 power0 power0 power raw power1",
       "power0=1 power0=1 power0=1 power=72011,72.011,688.412 raw=-1,-1,-1,-1,72011 power1=0"},
      {"a failing power reading", on(kH100, nullptr, "fail nvmlDeviceGetPowerUsage 15 from 2\n"),
       "power0 power raw", "power0=1 power=71234,71.234,-1 raw=-1,-1,-1,-1,-1"},
      // Tested before the on-demand call; called without a test by the refresh.
      {"no power entry", on(kH100, "nvml-no-nvmlDeviceGetPowerUsage"), "power0 power refresh raw",
       "power0=1 power=-1,-1,-1 refresh=1 raw=-1,33,1755,2619,-1"},
      {"no energy entry", on(kH100, "nvml-no-nvmlDeviceGetTotalEnergyConsumption"),
       "energy power0 energy refresh energy", "energy=0 power0=1 energy=0 refresh=1 energy=-1"},
      // Real libraries answer the sizing call with INSUFFICIENT_SIZE whenever
      // samples exist, NOT_FOUND without: discovery fills the table already,
      // and each read refreshes it. A process's name is asked once.
      {"sizing call answered as real drivers do", on(k5090),
       "procs 1.procs procs0 procs1 refresh procs calls:nvmlSystemGetProcessName pcie0 pcie pcie2",
       "procs=" + table + " 1.procs=none procs0=1 procs1=1 refresh=1 procs=" + table +
           " calls:nvmlSystemGetProcessName=2 pcie0=1 pcie=420,1310 pcie2=0"},
      // The table is reused (ASan would see a stale one read).
      {"sizing call answered with success", on(k5090, nullptr, sizing),
       "procs0 procs0 procs procs2 procs1 1.procs",
       "procs0=1 procs0=1 procs=" + table + " procs2=0 procs1=1 1.procs=none"},
      // No process has samples any more: an empty table.
      {"processes gone",
       on(k5090, nullptr, "device 0\nfail nvmlDeviceGetProcessUtilization 6 from 3\n"),
       "refresh procs procs0", "refresh=1 procs= procs0=1"},
      // A failing query, or an answer not to be believed, keeps the table.
      {"a failing process query",
       on(k5090, nullptr, "device 0\nfail nvmlDeviceGetProcessUtilization 15 from 3\n"),
       "procs0 procs", "procs0=0 procs=" + table},
      {"not supported", on(k5090, nullptr, "device 0\nprocess_sizing 3\n"), "procs procs0",
       "procs=none procs0=0"},
      // Counts the library claims: sizing call, then buffer call.
      {"a huge count from the sizing call",
       on(k5090, nullptr, "device 0\nprocess_count 4000000000 2\n"), "procs procs0 procs",
       "procs=" + table + " procs0=1 procs=" + table},
      {"more samples than the buffer holds",
       on(k5090, nullptr, "device 0\nprocess_count 2 257 2 2\n"), "procs procs0 procs",
       "procs=none procs0=1 procs=" + table},
      // A counter that cannot be read is unknown (0xFFFFFFFF), never 0.
      {"PCIe counters that cannot be read",
       on(k5090, nullptr, "fail nvmlDeviceGetPcieThroughput 3\n"), "pcie1 1.pcie",
       "pcie1=1 1.pcie=4294967295,4294967295"},
      {"no process names", on(k5090, "nvml-no-nvmlSystemGetProcessName", sizing), "procs0 procs",
       "procs0=1 procs=4242::1732700000000000,35,12,5151::1732700000000500,9,3"},
      {"no process entry", on(k5090, "nvml-no-nvmlDeviceGetProcessUtilization"), "procs0",
       "procs0=0"},
      {"no PCIe entry", on(k5090, "nvml-no-nvmlDeviceGetPcieThroughput"), "pcie0", "pcie0=0"},
  });
}

}  // namespace
