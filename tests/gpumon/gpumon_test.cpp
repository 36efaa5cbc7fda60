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

// From the start-up summary ("Num GPUs detected") to the end of the output:
// the per-GPU block names no placeholder bus number and no unknown
// temperature, and the table shows "-" for what is unknown.
TEST(Gpumon, StartUpSummaryAndTable) {
  const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
      {"desktop-no-gpu",
       {"Num GPUs detected: 0", "", "No GPU found.", "",
        "CPU: AMD Ryzen 7 7700X 8-Core Processor, 4491 MHz", "OS:  Linux 6.1.0-26-amd64 64-bit"}},
      {"amd-sriov-vf-no-hwmon",
       {"Num GPUs detected: 1", "> GPU0", "  - name: AMD Radeon Pro V520",
        "  - PCI codes: 0x1002-0x7362", "  - VBIOS: 113-D3980100-O00", "",
        "GPU  Name                 Chip     Shaders/TMUs/ROPs  TDP W  PCI        Bus  Temp C  Mem C  "
        "Core %  Mem %  Core MHz  Mem MHz  Power W  Fans",
        "0    AMD Radeon Pro V520  Navi 12  2304/144/64        225    1002:7362  -    -       -      "
        "0       -      -         -        -        -",
        "", "CPU: AMD EPYC 7R32, 2800 MHz", "OS:  Linux 6.8.0-1015-aws 64-bit"}},
      {"arm64-no-cpu-mhz", {"Num GPUs detected: 0", "", "No GPU found.", "", "CPU: -, - MHz"}},
  };
  for (const auto& [machine, expected] : cases) {
    const machine::RunResult r = run_gpumon({"--machine", machine_dir(machine)});
    ASSERT_EQ(r.exit_code, 0) << r.out;
    std::vector<std::string> lines = lines_of(r.out);
    auto from = std::find(lines.begin(), lines.end(), expected[0]);
    ASSERT_NE(from, lines.end()) << r.out;
    lines.erase(lines.begin(), from);
    lines.resize(std::min(lines.size(), expected.size()));
    EXPECT_EQ(lines, expected) << machine;
  }
}

TEST(Gpumon, JsonParsesBackWithTheSameFacts) {
  const machine::RunResult r =
      run_gpumon({"--json", "--machine", machine_dir("dual-socket-xeon")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const json doc = json::parse(r.out);
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

TEST(Gpumon, JsonStaysValidWhateverTheNamesHold) {
  // Quotes, backslashes, control characters and bytes that are not UTF-8.
  TempMachine odd({{"proc/cpuinfo",
                    std::string("model name\t: \"Evil\\CPU\"\t\x01\x1f \xff\xfe\xc3 end\n") +
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
  machine::RunResult r = run_gpumon(
      {"--watch", "0.05", "--count", "3", "--machine", machine_dir("desktop-no-gpu")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("gpumon: refresh 3, every 0.05 s"), std::string::npos);
  EXPECT_EQ(r.out.find("refresh 4"), std::string::npos);
  // With --json: one document a line and refresh.
  r = run_gpumon(
      {"--json", "--watch", "0.05", "--count", "2", "--machine", machine_dir("desktop-no-gpu")});
  const std::vector<std::string> docs = lines_of(r.out);
  ASSERT_EQ(docs.size(), 2u) << r.out;
  for (const std::string& d : docs) EXPECT_EQ(json::parse(d)["system"]["cpu_speed_mhz"], 4491);
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
      {{"--count", "2"}, 2, "gpumon: "},
      {{"--watch", "1", "--count", "0"}, 2, "gpumon: "},
      {{"--machine", "/nonexistent/machine"}, 3, "cannot run in machine /nonexistent/machine"},
  };
  for (const auto& [args, code, message] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, code) << args[0] << " " << args.back();
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
  }
  EXPECT_NE(run_gpumon({"--help"}).out.find("--machine DIR"), std::string::npos);
}

// --lookup: what the database says of any PCI id (hex).
TEST(Gpumon, LookupOfAPciId) {
  const std::vector<std::tuple<std::vector<std::string>, int, std::vector<std::string>>> cases = {
      {{"--lookup", "10DE:2B85"}, 0,
       {"name:       NVIDIA GeForce RTX 5090\n", "codename:   GB202-300\n", "shaders:    21760\n",
        "TMUs:       680\n", "ROPs:       176\n", "TDP:        575 W\n",
        "NVIDIA GeForce RTX 5090 Founders Edition"}},
      {{"--lookup", "1002:7550:C2"}, 0,
       {"name:       AMD Radeon RX 9070 GRE\n", "AMD Radeon RX 9070 XT, variant C0"}},
      {{"--lookup", "8086:e20b"}, 0, {"codename:   Battlemage BMG-G21\n"}},
      {{"--json", "--lookup", "1002:7551:C1"}, 0,
       {"\"adapter_name\": \"AMD Radeon AI PRO R9700S\"", "\"id\": \"1002:7551:C1\""}},
      {{"--lookup", "1002:7550:C5"}, 1, {"not in the GPU database"}},
  };
  for (const auto& [args, code, parts] : cases) {
    const machine::RunResult r = run_gpumon(args);
    EXPECT_EQ(r.exit_code, code) << args.back();
    for (const std::string& part : parts) EXPECT_NE(r.out.find(part), std::string::npos) << r.out;
  }
  for (const char* bad : {"10DE", "10DE:", "xyz:2B85", "10DE:2B85:C1:0", "12345:1", "1002:7550:C23"})
    EXPECT_EQ(run_gpumon({"--lookup", bad}).exit_code, 2) << bad;
}

}  // namespace
