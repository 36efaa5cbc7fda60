// gpumon end to end: the command-line host on fake machines.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "test_support.h"

namespace {

using namespace testing_support;
using nlohmann::json;

// With --trace, the start-up summary ("Num GPUs detected") ends the trace
// lines on stderr: the per-GPU block names no placeholder bus number and no
// unknown temperature. Stdout holds the table alone, "-" where a value is
// unknown.
TEST(Gpumon, StartUpSummaryAndTable) {
  struct Case {
    std::string machine;
    std::vector<std::string> traces, table;
  };
  const Case cases[] = {
      {"desktop-no-gpu",
       {"Num GPUs detected: 0"},
       {"No GPU found.", "", "CPU: AMD Ryzen 7 7700X 8-Core Processor, 4491 MHz",
        "OS:  Linux 6.1.0-26-amd64 64-bit"}},
      {"amd-sriov-vf-no-hwmon",
       {"Num GPUs detected: 1", "> GPU0", "  - name: AMD Radeon Pro V520",
        "  - PCI codes: 0x1002-0x7362", "  - VBIOS: 113-D3980100-O00"},
       {"GPU  Name                 PCI           Driver  Temp C  Mem C  Core %  Mem %  Core MHz  "
        "Mem MHz  Power W  Fans",
        "0    AMD Radeon Pro V520  0000:00:1e.0  amdgpu  -       -      0       -      -         "
        "-        -        -",
        "", "CPU: AMD EPYC 7R32, 2800 MHz", "OS:  Linux 6.8.0-1015-aws 64-bit"}},
      {"arm64-no-cpu-mhz", {"Num GPUs detected: 0"}, {"No GPU found.", "", "CPU: -, - MHz"}},
  };
  for (const Case& c : cases) {
    const machine::RunResult r = run_gpumon({"--trace", "--machine", machine_dir(c.machine)});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::vector<std::string> traces = lines_of(r.err);
    auto from = std::find(traces.begin(), traces.end(), c.traces[0]);
    ASSERT_NE(from, traces.end()) << r.err;
    EXPECT_EQ(std::vector<std::string>(from, traces.end()), c.traces) << c.machine;
    std::vector<std::string> table = lines_of(r.out);
    table.resize(std::min(table.size(), c.table.size()));
    EXPECT_EQ(table, c.table) << c.machine;
    // Without --trace, stderr stays empty and stdout is the same.
    const machine::RunResult quiet = run_gpumon({"--machine", machine_dir(c.machine)});
    EXPECT_EQ(quiet.err, "");
    EXPECT_EQ(quiet.out, r.out);
  }
}

TEST(Gpumon, JsonParsesBackWithTheSameFacts) {
  const machine::RunResult r = run_gpumon({"--json", "--machine", machine_dir("dual-socket-xeon")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const json doc = json::parse(r.out);
  EXPECT_EQ(doc["schema_version"], 1);
  const std::string stamp = doc["timestamp"];  // 2025-01-31T12:34:56.789Z
  EXPECT_TRUE(stamp.size() == 24 && stamp[10] == 'T' && stamp[19] == '.' && stamp[23] == 'Z')
      << stamp;
  EXPECT_EQ(doc["machine"], "dual-socket-xeon");
  EXPECT_EQ(doc["plugin"]["name"], "GpuMonitor");
  EXPECT_EQ(doc["plugin"]["version"], "0.1.0");
  EXPECT_EQ(doc["plugin"]["type"], 12);
  EXPECT_TRUE(doc["gpus"].is_array());
  EXPECT_TRUE(doc["gpus"].empty());
  EXPECT_EQ(doc["system"]["cpu_name"], "Intel(R) Xeon(R) Gold 6338 CPU @ 2.00GHz");
  EXPECT_EQ(doc["system"]["cpu_speed_mhz"], 2893);
  EXPECT_EQ(doc["system"]["os_name"], "Linux 5.15.0-122-generic 64-bit");
  ASSERT_EQ(doc["traces"].size(), 5u);
  EXPECT_EQ(doc["traces"][2]["text"], "DRM: scanning GPUs...");
  EXPECT_EQ(doc["traces"][3]["text"], "DRM: no GPU found.");
  EXPECT_EQ(doc["traces"][4]["level"], "info");
  EXPECT_EQ(doc["traces"][4]["text"], "Num GPUs detected: 0");
}

// A GPU's values, each in the unit its key names, null where unknown.
TEST(Gpumon, JsonGpuKeysAndUnits) {
  const machine::RunResult r =
      run_gpumon({"--json", "--machine", machine_dir("amd-rdna3-rx7900xtx")});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const json gpu = json::parse(r.out)["gpus"][0];
  const std::vector<std::pair<std::string, json>> expected = {
      {"/index", 0},
      {"/name", "Sapphire PULSE RX 7900 XTX"},
      {"/device_name", "AMD Radeon RX 7900 XTX"},
      {"/pci",
       {{"address", "0000:03:00.0"},
        {"bus", "0x03"},
        {"vendor_id", "0x1002"},
        {"device_id", "0x744C"},
        {"subsystem_vendor_id", "0x1DA2"},
        {"subsystem_device_id", "0x471E"},
        {"revision_id", "0xC8"}}},
      {"/driver", {{"name", "amdgpu"}, {"version", nullptr}}},
      {"/power_w/tdp", 355},
      {"/power_w/draw", 86},
      {"/power_w/enforced_limit", 339},
      {"/temperature_c/core", 52},
      {"/temperature_c/memory", 58},
      {"/utilization_percent", {{"core", 7}, {"memory", 2}}},
      {"/clock_mhz",
       {{"core", 1850}, {"memory", 1249}, {"core_max", nullptr}, {"memory_max", nullptr}}},
      {"/fans", json::array({{{"speed_percent", nullptr}, {"speed_rpm", 1102}}})},
  };
  for (const auto& [pointer, value] : expected) {
    EXPECT_EQ(gpu.value(json::json_pointer(pointer), json("absent")), value) << pointer;
  }
}

TEST(Gpumon, JsonStaysValidWhateverTheNamesHold) {
  // Quotes, backslashes, control characters and bytes that are not UTF-8.
  TempMachine odd(
      {{"proc/cpuinfo", std::string("model name\t: \"Evil\\CPU\"\t\x01\x1f \xff\xfe\xc3 end\n") +
                            "cpu MHz\t\t: 100.0\n"}},
      "desktop-no-gpu");
  // In the C locale grep passes every byte but NUL through.
  const char* old_locale = std::getenv("LC_ALL");
  const std::string saved = old_locale ? old_locale : "";
  setenv("LC_ALL", "C", 1);
  const machine::RunResult r = run_gpumon({"--json", "--machine", odd.dir()});
  if (old_locale) {
    setenv("LC_ALL", saved.c_str(), 1);
  } else {
    unsetenv("LC_ALL");
  }
  ASSERT_EQ(r.exit_code, 0) << r.out;
  json doc;
  ASSERT_NO_THROW(doc = json::parse(r.out)) << r.out;
  const std::string name = doc["system"]["cpu_name"];
  EXPECT_EQ(name.rfind("\"Evil\\CPU\"\t\x01\x1f ", 0), 0u) << name;
  EXPECT_NE(name.find(" end"), std::string::npos) << name;
}

TEST(Gpumon, CudaLibraryOnTheMachineIsDetected) {
  TempMachine with_cuda(Files{}, "desktop-no-gpu");
  std::filesystem::create_directories(with_cuda.dir() + "/lib");
  std::filesystem::copy_file(fake_library("libcuda.so"), with_cuda.dir() + "/lib/libcuda.so");
  const machine::RunResult r = run_gpumon({"--json", "--machine", with_cuda.dir()});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const json doc = json::parse(r.out);
  std::vector<std::string> texts;
  for (const json& t : doc["traces"]) texts.push_back(t["text"]);
  // No NVML library and no nvidia-smi: the NVIDIA scans find nothing and
  // the DRM scan has its turn.
  const std::vector<std::string> expected = {"NVIDIA CUDA library detected.",
                                             "scanning NVIDIA GPUs...", "DRM: scanning GPUs...",
                                             "DRM: no GPU found.", "Num GPUs detected: 0"};
  ASSERT_GE(texts.size(), 2u);
  EXPECT_EQ(std::vector<std::string>(texts.begin() + 2, texts.end()), expected);
}

TEST(Gpumon, WatchRefreshesUntilTheCount) {
  machine::RunResult r =
      run_gpumon({"--watch", "0.05", "--count", "3", "--machine", machine_dir("desktop-no-gpu")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("gpumon: refresh 3, every 0.05 s"), std::string::npos);
  EXPECT_EQ(r.out.find("refresh 4"), std::string::npos);
  // With --json: one document a line and refresh; the start-up traces come
  // in the first only.
  r = run_gpumon(
      {"--json", "--watch=0.05", "--count=2", "--machine", machine_dir("desktop-no-gpu")});
  const std::vector<std::string> docs = lines_of(r.out);
  ASSERT_EQ(docs.size(), 2u) << r.out;
  for (const std::string& d : docs) EXPECT_EQ(json::parse(d)["system"]["cpu_speed_mhz"], 4491);
  EXPECT_FALSE(json::parse(docs[0])["traces"].empty());
  EXPECT_TRUE(json::parse(docs[1])["traces"].empty());
  // With --query: the header once, then a line per GPU and refresh.
  r = run_gpumon({"--query", "index,temperature.gpu", "--format", "nounits,csv", "--watch", "0.2",
                  "--count", "3", "--machine", machine_dir("amd-rdna3-rx7900xtx")});
  EXPECT_EQ(r.out, "index, temperature.gpu\n0, 52\n0, 54\n0, 57\n");
}

// --query as nvidia-smi prints it, and --gpu picking GPUs by slot or PCI
// address in every output.
TEST(Gpumon, QueryAndGpuSelection) {
  const std::string amd = machine_dir("amd-rdna3-rx7900xtx"),
                    two = machine_dir("amd-multi-card-gaps");
  const std::string fields = "index,name,pci.bus_id,temperature.gpu,power.draw,fan.speed";
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"--query", fields, "--machine", amd},
       "index, name, pci.bus_id, temperature.gpu, power.draw [W], fan.speed [%]\n"
       "0, Sapphire PULSE RX 7900 XTX, 00000000:03:00.0, 52, 86.00 W, [N/A]\n"},
      {{"--query", fields, "--format", "csv,noheader,nounits", "--machine", amd},
       "0, Sapphire PULSE RX 7900 XTX, 00000000:03:00.0, 52, 86.00, [N/A]\n"},
      {{"--query", "index,pci.bus_id,pci.domain,pci.bus,pci.device", "--format=csv,noheader",
        "--machine", two},
       "0, 00000000:23:00.0, 0x0000, 0x23, 0x00\n1, 00000000:45:00.0, 0x0000, 0x45, 0x00\n"
       "2, 00000000:63:00.0, 0x0000, 0x63, 0x00\n"},
      {{"-i", "1", "--query-gpu=index,gpu_bus_id,count", "--format=csv,noheader", "--machine", two},
       "1, 00000000:45:00.0, 3\n"},
      // gpumon's own fields print as before: the unit after the number.
      {{"--id=0", "--query", "temperature.gpu.highest,pci.revision,pci.device_id_only",
        "--format=csv,noheader", "--machine", amd},
       "52 C, 0xC8, 0x744C\n"},
      {{"--gpu", "45:00.0,0", "--query", "index", "--format=csv,noheader", "--machine", two},
       "0\n1\n"},
      {{"--gpu", "0000:45:00.0", "--query", "index", "--format=csv,noheader", "--machine", two},
       "1\n"},
  };
  for (const auto& [args, out] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, out) << args[1];
  }
  machine::RunResult r = run_gpumon({"--gpu", "1", "--json", "--machine", two});
  const json doc = json::parse(r.out);
  ASSERT_EQ(doc["gpus"].size(), 1u);
  EXPECT_EQ(doc["gpus"][0]["index"], 1);
  r = run_gpumon({"--gpu", "0000:45:00.0", "--machine", two});
  EXPECT_NE(r.out.find("\n1    AMD Radeon RX 6400 "), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("RX 6600"), std::string::npos) << r.out;
}

TEST(Gpumon, CtrlCEndsWatchingCleanly) {
  int out[2];
  ASSERT_EQ(pipe(out), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out[1], 1);
    close(out[0]);
    execl(gpumon_path().c_str(), "gpumon", "--watch", "0.1", "--machine",
          machine_dir("desktop-no-gpu").c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  // Wait for the first refresh before interrupting.
  std::string seen;
  char buffer[512];
  while (seen.find("refresh 1") == std::string::npos) {
    const ssize_t n = read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    seen.append(buffer, static_cast<size_t>(n));
  }
  ASSERT_NE(seen.find("refresh 1"), std::string::npos) << seen;
  // Sent to the outer gpumon alone, the interrupt is passed on to the one
  // inside the machine, which terminates the monitor and exits.
  kill(pid, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  close(out[0]);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// Bad arguments, plug-ins and machines: exit code and the start of the error.
TEST(Gpumon, ErrorsAreClear) {
  TempMachine junk(Files{{"not-a-library.so", "this is text, not an ELF file\n"}});
  const std::string host_lib =
      std::filesystem::path(plugin_path()).parent_path() / "libzev_r_linux_x64.so";
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> cases = {
      {{"--plugin", "/nonexistent/plugin.so"}, 2, "gpumon: no plug-in at /nonexistent/plugin.so"},
      {{"--plugin", junk.dir() + "/not-a-library.so"}, 2, "gpumon: cannot load plug-in"},
      {{"--plugin", host_lib}, 2, "is not a zev plug-in: it lacks zev_plugin_create"},
      {{"--bogus"}, 2, "gpumon: "},
      {{"--watch"}, 2, "gpumon: "},
      {{"--watch", "soon"}, 2, "gpumon: "},
      {{"--watch", "-1"}, 2, "gpumon: "},
      {{"--watch", "nan"}, 2, "positive, finite number of seconds"},
      {{"--watch=inf"}, 2, "positive, finite number of seconds"},
      {{"--json=yes"}, 2, "unknown option '--json=yes'"},
      {{"extra"}, 2, "unexpected argument 'extra'"},
      {{"--count", "2"}, 2, "gpumon: "},
      {{"--watch", "1", "--count", "0"}, 2, "gpumon: "},
      {{"--query", "index,bogus"}, 2, "no field 'bogus'"},
      {{"--query", "index", "--format", "tsv"}, 2, "--format is csv"},
      {{"--format", "csv"}, 2, "--format only goes with --query"},
      {{"--query", "index", "--json"}, 2, "gpumon: "},
      {{"--gpu", "first"}, 2, "--gpu takes"},
      {{"--gpu", "3", "--machine", machine_dir("amd-multi-card-gaps")},
       1,
       "no GPU '3' (the GPUs are 0 at 0000:23:00.0, 1 at 0000:45:00.0, 2 at 0000:63:00.0)"},
      {{"--gpu", "03:00.0", "--json", "--machine", machine_dir("amd-multi-card-gaps")},
       1,
       "no GPU '03:00.0'"},
      {{"--machine", "/nonexistent/machine"}, 3, "cannot run in machine /nonexistent/machine"},
      {{"--machine", junk.dir()}, 3, "is not a machine folder"},
      {{"--machine", ""}, 2, "--machine needs a machine folder"},
      // Options the chosen output would ignore.
      {{"--gl-info", "--query", "index"}, 2, "--query does not apply to --gl-info"},
      {{"--lookup", "10DE:2B85", "--machine", "x"}, 2, "--machine does not apply to --lookup"},
      {{"--lookup", "10DE:2B85", "--gl-info"}, 2, "--gl-info does not apply to --lookup"},
      {{"--size", "10x10"}, 2, "--size does not apply to the GPU report"},
      {{"--overlay", "x.png", "-i", "0"}, 2, "--gpu does not apply to --overlay"},
      {{"--serve", "127.0.0.1:0", "--json"}, 2, "--json does not apply to --serve"},
      {{"--wide", "--json"}, 2, "--wide applies to the table"},
      {{"--no-tui"}, 2, "--no-tui only goes with --watch"},
      {{"-l", "0"}, 2, "positive, finite number of seconds"},
      {{"--query-gpu", "clocks.bogus"}, 2, "no field 'clocks.bogus'"},
  };
  for (const auto& [args, code, message] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, code) << args[0] << " " << args.back();
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("--machine DIR"), std::string::npos) << "a short error, not the help";
    EXPECT_EQ(r.out, "");
  }
  EXPECT_NE(run_gpumon({"--help"}).out.find("Exit codes: 0"), std::string::npos);
  const std::string help_query = run_gpumon({"--help-query"}).out;
  for (const char* line : {"  clocks.max.gr [MHz]", "  clocks.current.sm, clocks.sm [MHz]",
                           "  clocks_event_reasons.active, clocks_throttle_reasons.active"})
    EXPECT_NE(help_query.find(line), std::string::npos) << line;
  EXPECT_EQ(run_gpumon({"--version"}).out.rfind("gpumon 0.1.0 (JSON schema version 1)", 0), 0u);
}

// Output that cannot be written (a full disk) fails with the reason.
TEST(Gpumon, OutputThatCannotBeWrittenFails) {
  const std::string machine = " --machine " + machine_dir("amd-rdna3-rx7900xtx");
  for (const std::string& args :
       {machine, machine + " --json", machine + " --query index -l 0.05 --count 2",
        std::string(" --lookup 10DE:2B85"), std::string(" --help-query")}) {
    // stderr into the pipe, stdout to the full device.
    FILE* pipe = popen(("'" + gpumon_path() + "'" + args + " 2>&1 >/dev/full").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string err;
    char buffer[512];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) err.append(buffer, n);
    const int status = pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), 6) << args;
    EXPECT_EQ(err, "gpumon: cannot write to standard output: No space left on device\n") << args;
  }
}

// The recorded machines that need no fakes, by folder name.
std::vector<std::string> plain_machines() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(machine_dir(""))) {
    if (std::filesystem::exists(entry.path() / "README.md") &&
        !std::filesystem::exists(entry.path() / "fakes"))
      names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// The table fits 120 columns on every recorded machine, each a test of its
// own.
class EveryPlainMachine : public ::testing::TestWithParam<std::string> {};

TEST_P(EveryPlainMachine, TheTableFitsAHundredAndTwentyColumns) {
  const std::string dir = machine_dir(GetParam());
  const machine::RunResult r = run_gpumon({"--machine", dir});
  ASSERT_EQ(r.exit_code, 0) << dir << r.err;
  for (const std::string& line : lines_of(r.out))
    EXPECT_LE(line.size(), 120u) << dir << "\n" << line;
}

INSTANTIATE_TEST_SUITE_P(Recorded, EveryPlainMachine, ::testing::ValuesIn(plain_machines()),
                         [](const auto& info) { return test_name(info.param); });

// --wide adds the static facts, a revision 0x00 included.
TEST(Gpumon, TheWideTableShowsTheStaticFacts) {
  const machine::RunResult r =
      run_gpumon({"--wide", "--machine", machine_dir("intel-arc-b580-xe")});
  EXPECT_NE(
      r.out.find("0    Intel Arc B580 Limited Edition  0000:03:00.0  xe      8086:E20B  0x00  "
                 "0x03  Battlemage BMG-G21  2560/160/80        190    47 (47-47)"),
      std::string::npos)
      << r.out;
}

// --lookup: what the database says of any PCI id (hex).
TEST(Gpumon, LookupOfAPciId) {
  const std::vector<std::tuple<std::vector<std::string>, int, std::vector<std::string>>> cases = {
      {{"--lookup", "10DE:2B85"},
       0,
       {"name:       NVIDIA GeForce RTX 5090\n", "codename:   GB202-300\n", "shaders:    21760\n",
        "TMUs:       680\n", "ROPs:       176\n", "TDP:        575 W\n",
        "NVIDIA GeForce RTX 5090 Founders Edition"}},
      {{"--lookup", "1002:7550:C2"},
       0,
       {"name:       AMD Radeon RX 9070 GRE\n", "AMD Radeon RX 9070 XT, variant C0"}},
      {{"--lookup", "8086:e20b"}, 0, {"codename:   Battlemage BMG-G21\n"}},
      {{"--json", "--lookup", "1002:7551:C1"},
       0,
       {"\"schema_version\": 1", "\"adapter_name\": \"AMD Radeon AI PRO R9700S\"",
        "\"id\": \"1002:7551:C1\"", "\"device_id\": \"0x7551\""}},
      {{"--json", "--lookup", "10DE:2B85"}, 0, {"\"subvendor_id\": \"0x10DE\""}},
      {{"--lookup", "1002:7550:C5"}, 1, {"not in the GPU database"}},
  };
  for (const auto& [args, code, parts] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, code) << args.back();
    for (const std::string& part : parts) EXPECT_NE(r.out.find(part), std::string::npos) << r.out;
  }
  for (const char* bad :
       {"10DE", "10DE:", "xyz:2B85", "10DE:2B85:C1:0", "12345:1", "1002:7550:C23"})
    EXPECT_EQ(run_gpumon({"--lookup", bad}).exit_code, 2) << bad;
}

}  // namespace
