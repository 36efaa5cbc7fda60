// gpumon end to end: the command-line host on fake machines.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "test_support.h"

namespace {

using namespace testing_support;
using nlohmann::json;

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(Gpumon, TableOnAMachineWithoutGpu) {
  const machine::RunResult r =
      run_gpumon({"--machine", machine_dir("desktop-no-gpu")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  const std::vector<std::string> expected = {
      "Linux x86_64 - CPU name: AMD Ryzen 7 7700X 8-Core Processor, CPU speed: 4491MHz, RAM: "
      "15932MB",
      "Operating system detected: Linux 6.1.0-26-amd64 64-bit",
      "DRM: scanning GPUs...",
      "DRM: no GPU found.",
      "Num GPUs detected: 0",
      "",
      "No GPU found.",
      "",
      "CPU: AMD Ryzen 7 7700X 8-Core Processor, 4491 MHz",
      "OS:  Linux 6.1.0-26-amd64 64-bit",
  };
  EXPECT_EQ(lines_of(r.out), expected);
}

TEST(Gpumon, UnknownClockShowsAsDash) {
  const machine::RunResult r = run_gpumon({"--machine", machine_dir("arm64-no-cpu-mhz")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  EXPECT_NE(r.out.find("CPU: -, - MHz\n"), std::string::npos) << r.out;
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
  const machine::RunResult r = run_gpumon(
      {"--watch", "0.05", "--count", "3", "--machine", machine_dir("desktop-no-gpu")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
  for (int i = 1; i <= 3; ++i) {
    EXPECT_NE(r.out.find("gpumon: refresh " + std::to_string(i) + ", every 0.05 s"),
              std::string::npos);
  }
  EXPECT_EQ(r.out.find("refresh 4"), std::string::npos);
}

TEST(Gpumon, JsonWatchPrintsOneDocumentPerRefresh) {
  const machine::RunResult r = run_gpumon(
      {"--json", "--watch", "0.05", "--count", "2", "--machine", machine_dir("desktop-no-gpu")});
  ASSERT_EQ(r.exit_code, 0) << r.out;
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

TEST(Gpumon, MissingOrBrokenPluginIsAClearError) {
  machine::RunResult r = run_gpumon({"--plugin", "/nonexistent/plugin.so"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("gpumon: no plug-in at /nonexistent/plugin.so"), std::string::npos)
      << r.err;

  TempMachine junk(Files{{"not-a-library.so", "this is text, not an ELF file\n"}});
  r = run_gpumon({"--plugin", junk.dir() + "/not-a-library.so"});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("gpumon: cannot load plug-in"), std::string::npos) << r.err;

  // A real library that is no plug-in: the framework library itself.
  const std::string host_lib =
      std::filesystem::path(plugin_path()).parent_path() / "libzev_r_linux_x64.so";
  r = run_gpumon({"--plugin", host_lib});
  EXPECT_EQ(r.exit_code, 2);
  EXPECT_NE(r.err.find("is not a zev plug-in: it lacks zev_plugin_create"), std::string::npos)
      << r.err;
}

TEST(Gpumon, CommandLineErrorsAndHelp) {
  machine::RunResult r = run_gpumon({"--help"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("--machine DIR"), std::string::npos);
  for (const std::vector<std::string>& bad :
       {std::vector<std::string>{"--bogus"}, {"--watch"}, {"--watch", "soon"}, {"--watch", "-1"},
        {"--count", "2"}, {"--watch", "1", "--count", "0"}}) {
    r = run_gpumon(bad);
    EXPECT_EQ(r.exit_code, 2) << bad[0];
    EXPECT_NE(r.err.find("gpumon: "), std::string::npos);
  }
  r = run_gpumon({"--machine", "/nonexistent/machine"});
  EXPECT_EQ(r.exit_code, 3);
  EXPECT_NE(r.err.find("cannot run in machine /nonexistent/machine"), std::string::npos) << r.err;
}

}  // namespace
