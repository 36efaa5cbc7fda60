// The NVIDIA machines end to end through gpumon, as a host sees them: the
// discovery chain (CUDA probe, NVML, nvidia-smi, DRM), the trace blocks, the
// records, and refreshes. The fakes log what was asked of them (NVML calls,
// nvidia-smi command lines) into files outside the machine.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "test_support.h"
#include "tests/nvidia/nvidia_machines.h"

namespace {

using nlohmann::json;
using nvidia_test::kDegrees;
using nvidia_test::lines_of;
using nvidia_test::rtx5090_rtx4080s_smi_scan_block;
using nvidia_test::LogFile;
using nvidia_test::Machine;
using nvidia_test::run_gpumon_on;


// gpumon --json on a machine, with the fakes' logs.
struct GpumonRun {
  LogFile nvml_log;
  LogFile smi_log;
  machine::RunResult result;
  json doc;

  explicit GpumonRun(const Machine& machine, std::vector<std::string> args = {}) {
    args.insert(args.begin(), "--json");
    result = run_gpumon_on(machine, args,
                           {"ZEV_FAKE_NVML_LOG=" + nvml_log.path(),
                            "ZEV_FAKE_NVIDIA_SMI_LOG=" + smi_log.path()});
    EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
    if (args.size() == 1) doc = json::parse(result.out, nullptr, false);
  }
  std::vector<std::string> traces() const {
    std::vector<std::string> texts;
    for (const json& t : doc["traces"]) texts.push_back(t["text"]);
    return texts;
  }
  bool traced(const std::string& text) const {
    for (const std::string& t : traces())
      if (t == text) return true;
    return false;
  }
  const json& gpu(size_t i) const { return doc["gpus"][i]; }
};

TEST(NvidiaGpumon, TheH100IsFoundThroughNvml) {
  GpumonRun run{Machine("nvidia-h100-sxm")};
  const std::vector<std::string> expected = {
      "Linux x86_64 - CPU name: Intel(R) Xeon(R) Platinum 8480+, CPU speed: 2000MHz, RAM: "
      "225280MB",
      "Operating system detected: Linux 6.8.0-45-generic 64-bit",
      "NVIDIA CUDA library detected.",
      "  - ROP counter (from driver): 24",
      "num GPUs detected by nvidia nvml: 1",
      "Num GPUs detected: 1",
      "> GPU0",
      "  - name: NVIDIA H100 80GB HBM3",
      "  - PCI codes: 0x10DE-0x2330",
      "  - Bus ID: 24",
      "  - core temperature: 32 degC",
  };
  EXPECT_EQ(run.traces(), expected);
  EXPECT_EQ(run.doc["traces"][4]["level"], "debug");

  ASSERT_EQ(run.doc["gpus"].size(), 1u);
  const json& g = run.gpu(0);
  EXPECT_EQ(g["name"], "NVIDIA H100 80GB HBM3");
  EXPECT_EQ(g["codename"], "GH100");
  EXPECT_EQ(g["pci"], "10DE:2330");
  EXPECT_EQ(g["bus_id"], 24);
  EXPECT_EQ(g["driver_version"], "");
  EXPECT_EQ(g["monitorable"], true);
  EXPECT_EQ(g["units"]["shaders"], 16896);
  EXPECT_TRUE(g["units"]["texture_units"].is_null());
  EXPECT_EQ(g["units"]["rops"], 24);
  EXPECT_TRUE(g["units"]["tdp_w"].is_null());
  EXPECT_EQ(g["temperature_c"]["core"]["current"], 32.0);
  EXPECT_TRUE(g["temperature_c"]["memory"]["current"].is_null());
  EXPECT_EQ(g["clock_mhz"]["core"]["current"], 345.0);
  EXPECT_EQ(g["clock_mhz"]["memory"]["current"], 2619.0);
  EXPECT_EQ(g["usage_percent"]["core"]["current"], 0.0);
  EXPECT_NEAR(g["power"]["watts"].get<double>(), 71.234, 1e-4);
  EXPECT_EQ(g["power"]["current"], 71234.0);
  EXPECT_TRUE(g["fans"].empty());
  // NVML alone: no nvidia-smi process, no DRM scan.
  EXPECT_TRUE(run.smi_log.lines().empty());
  EXPECT_FALSE(run.traced("DRM: scanning GPUs..."));
  EXPECT_EQ(run.nvml_log.lines().front(), "nvmlInit_v2");
}

TEST(NvidiaGpumon, TheTableShowsTheH100) {
  const machine::RunResult r = run_gpumon_on(Machine("nvidia-h100-sxm"), {});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("NVIDIA H100 80GB HBM3  GH100  16896/-/24         -      10DE:2330  24   "
                       "32 (32-32)  -      0       0      345       2619     71       -"),
            std::string::npos)
      << r.out;
}

TEST(NvidiaGpumon, TwoBoardsThroughNvmlSkipNvidiaSmiAndDrm) {
  GpumonRun run{Machine("nvidia-rtx5090-rtx4080s-nvml")};
  EXPECT_TRUE(run.traced("num GPUs detected by nvidia nvml: 2"));
  EXPECT_TRUE(run.traced("  - ROP counter (from driver): 176"));
  EXPECT_TRUE(run.traced("  - ROP counter (from driver): not available (err: -4)"));
  EXPECT_FALSE(run.traced("DRM: scanning GPUs..."));
  EXPECT_TRUE(run.smi_log.lines().empty());
  ASSERT_EQ(run.doc["gpus"].size(), 2u);
  EXPECT_EQ(run.gpu(0)["name"], "NVIDIA GeForce RTX 5090");
  EXPECT_EQ(run.gpu(0)["fans"].size(), 2u);
  EXPECT_EQ(run.gpu(1)["name"], "NVIDIA GeForce RTX 4080 SUPER");
  EXPECT_EQ(run.gpu(1)["bus_id"], 4);
  EXPECT_EQ(run.gpu(1)["fans"].size(), 3u);
  // NVML does not read sub-system ids: no board name.
  EXPECT_EQ(run.gpu(0)["use_marketing_name"], false);
}

TEST(NvidiaGpumon, WhenNvmlFailsNvidiaSmiAndThenDrmAreAsked) {
  GpumonRun run{Machine("nvidia-rtx5090-rtx4080s-smi")};
  std::vector<std::string> expected = {
      "Linux x86_64 - CPU name: AMD Ryzen 9 9950X 16-Core Processor, CPU speed: 4300MHz, RAM: "
      "128000MB",
      "Operating system detected: Linux 6.11.0-19-generic 64-bit",
      "NVIDIA CUDA library detected.",
  };
  const std::vector<std::string> scan = rtx5090_rtx4080s_smi_scan_block();
  expected.insert(expected.end(), scan.begin(), scan.end());
  expected.insert(expected.end(), {
      "num GPUs detected by nvidia-smi: 2",
      "DRM: scanning GPUs...",
      "DRM: no GPU other than NVIDIA found.",
      "Num GPUs detected: 2",
      "> GPU0",
      "  - name: NVIDIA GeForce RTX 5090 Founders Edition",
      "  - PCI codes: 0x10DE-0x2B85",
      "  - Bus ID: 1",
      "  - VBIOS: 98.02.2E.00.AF",
      "  - core temperature: 38 degC",
      "  - driver: 570.133.07",
      "> GPU1",
      "  - name: NVIDIA GeForce RTX 4080 SUPER",
      "  - PCI codes: 0x10DE-0x2702",
      "  - Bus ID: 4",
      "  - VBIOS: 95.03.2C.40.94",
      "  - core temperature: 35 degC",
      "  - driver: 570.133.07",
  });
  EXPECT_EQ(run.traces(), expected);
  // NVML was started once and, having failed, neither shut down nor asked
  // anything else.
  EXPECT_EQ(run.nvml_log.lines(), std::vector<std::string>{"nvmlInit_v2"});
  EXPECT_EQ(run.smi_log.lines().size(), 1u + 2 * 14);
  // The board name comes from the sub-system ids nvidia-smi reported.
  EXPECT_EQ(run.gpu(0)["display_name"], "NVIDIA GeForce RTX 5090 Founders Edition");
  EXPECT_EQ(run.gpu(0)["subvendor_id"], 0x10DE);
  EXPECT_EQ(run.gpu(0)["subdevice_id"], 0x2057);
  EXPECT_EQ(run.gpu(0)["driver_version"], "570.133.07");
  EXPECT_EQ(run.gpu(0)["power"]["watts"], 27.0);
}

TEST(NvidiaGpumon, WithNvmlTheAmdCardGetsNoRecord) {
  GpumonRun run{Machine("nvidia-amd-780m-rtx4060-nvml")};
  ASSERT_EQ(run.doc["gpus"].size(), 1u);
  EXPECT_EQ(run.gpu(0)["name"], "NVIDIA GeForce RTX 4060 Laptop GPU");
  EXPECT_FALSE(run.traced("DRM: scanning GPUs..."));
}

TEST(NvidiaGpumon, WithoutNvmlDrmAddsTheAmdCardAndSkipsTheNvidiaCard) {
  GpumonRun run{Machine("nvidia-amd-780m-rtx4060-smi")};
  EXPECT_TRUE(run.traced("num GPUs detected by nvidia-smi: 1"));
  EXPECT_TRUE(run.traced("num GPUs in DRM: 1"));
  // The DRM scan creates card1 only; card0 is the NVIDIA card.
  EXPECT_TRUE(run.traced("> GPU 1"));
  ASSERT_EQ(run.doc["gpus"].size(), 2u) << run.result.out;
  EXPECT_EQ(run.gpu(0)["name"], "NVIDIA GeForce RTX 4060 Laptop GPU");
  EXPECT_EQ(run.gpu(0)["bus_id"], 1);
  EXPECT_EQ(run.gpu(1)["name"], "AMD Radeon 780M Graphics");
  EXPECT_EQ(run.gpu(1)["pci"], "1002:15BF");
  EXPECT_EQ(run.gpu(1)["usage_percent"]["core"]["current"], 7.0);
}

TEST(NvidiaGpumon, WithoutNvidiaSmiEitherDrmKeepsTheNvidiaCards) {
  GpumonRun run{Machine("nvidia-rtx5090-rtx4080s-smi").remove("bin/nvidia-smi")};
  EXPECT_FALSE(run.traced("num GPUs detected by nvidia-smi: 0"));
  EXPECT_TRUE(run.traced("num GPUs in DRM: 2"));
  ASSERT_EQ(run.doc["gpus"].size(), 2u);
  EXPECT_EQ(run.gpu(0)["pci"], "10DE:2B85");
  EXPECT_EQ(run.gpu(0)["monitorable"], false);  // no hwmon, no busy file
}

TEST(NvidiaGpumon, NoNvmlDevicesEndsWithNoGpu) {
  GpumonRun run{Machine("nvidia-nvml-no-devices")};
  const std::vector<std::string> nvml = {"nvmlInit_v2", "nvmlSystemGetNVMLVersion",
                                         "nvmlSystemGetDriverVersion", "nvmlDeviceGetCount_v2",
                                         "nvmlShutdown"};
  EXPECT_EQ(run.nvml_log.lines(), nvml);
  EXPECT_EQ(run.smi_log.lines(),
            std::vector<std::string>{"nvidia-smi --query-gpu=count --format=csv,noheader"});
  EXPECT_TRUE(run.traced("scanning NVIDIA GPUs..."));
  EXPECT_FALSE(run.traced("num GPUs detected by nvidia-smi: 0"));
  EXPECT_TRUE(run.traced("DRM: no GPU found."));
  EXPECT_TRUE(run.doc["gpus"].empty());
}

TEST(NvidiaGpumon, OnlyTheVersionedLibraryIsEnough) {
  GpumonRun run{Machine("nvidia-nvml-versioned-only")};
  EXPECT_TRUE(run.traced("num GPUs detected by nvidia nvml: 1"));
  ASSERT_EQ(run.doc["gpus"].size(), 1u);
  EXPECT_EQ(run.gpu(0)["name"], "NVIDIA RTX A4000");
  EXPECT_EQ(run.gpu(0)["fans"][0]["percent"], 41.0);
}

TEST(NvidiaGpumon, WithoutTheCudaLibraryNoNvidiaBackEndRuns) {
  GpumonRun run{Machine("nvidia-h100-sxm").remove("lib/libcuda.so")};
  EXPECT_FALSE(run.traced("NVIDIA CUDA library detected."));
  EXPECT_TRUE(run.nvml_log.lines().empty());
  EXPECT_TRUE(run.smi_log.lines().empty());
  EXPECT_TRUE(run.traced("DRM: no GPU found."));
  EXPECT_TRUE(run.doc["gpus"].empty());
}

TEST(NvidiaGpumon, RefreshesBringNewNvmlReadings) {
  GpumonRun run(Machine("nvidia-h100-sxm"), {"--watch", "0.01", "--count", "3"});
  const std::vector<std::string> docs = lines_of(run.result.out);
  ASSERT_EQ(docs.size(), 3u);
  std::vector<double> temperatures;
  for (const std::string& d : docs) {
    temperatures.push_back(json::parse(d)["gpus"][0]["temperature_c"]["core"]["current"]);
  }
  EXPECT_EQ(temperatures, (std::vector<double>{33.0, 35.0, 34.0}));
  EXPECT_EQ(json::parse(docs[2])["gpus"][0]["temperature_c"]["core"]["max"], 35.0);
  EXPECT_TRUE(run.smi_log.lines().empty());
}

TEST(NvidiaGpumon, EachRefreshOfAnNvidiaSmiGpuStartsEightProcesses) {
  GpumonRun run(Machine("nvidia-rtx5090-rtx4080s-smi"), {"--watch", "0.01", "--count", "2"});
  EXPECT_EQ(run.smi_log.lines().size(), 1u + 2 * 14 + 2 * 2 * 8);
}

}  // namespace
