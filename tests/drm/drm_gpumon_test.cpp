// gpumon on the DRM machines: the trace block it prints, its JSON, and a
// live --watch on a machine whose sensor files change between refreshes.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"
#include "tests/drm/drm_test_files.h"

namespace {

using nlohmann::json;
using testing_support::machine_dir;
using testing_support::run_gpumon;

const char kRdna3[] = "amd-rdna3-rx7900xtx";

// The values `sequences` gives the RX 7900 XTX machine, in order.
const std::vector<double> kTemperatures = {52, 54, 57, 61, 64, 66, 63, 59};
const std::vector<double> kUsages = {7, 35, 68, 99, 100, 97, 74, 40};
const std::vector<double> kCoreClocks = {1850, 1925, 2010, 2105, 2482, 2430, 1700, 1200};
const std::vector<double> kWatts = {86, 142, 265, 339, 331, 310, 220, 120};

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Position of `value` in a cyclic series, -1 when absent.
int position(const std::vector<double>& series, double value) {
  for (size_t i = 0; i < series.size(); ++i)
    if (series[i] == value) return static_cast<int>(i);
  return -1;
}

TEST(DrmGpumon, PrintsTheScanOfTheMachine) {
  const machine::RunResult r = run_gpumon({"--machine", machine_dir(kRdna3)});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  EXPECT_EQ(drm_test::drm_block(lines_of(r.out)), (std::vector<std::string>{
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
                                                      "[debug] num GPUs in DRM: 1",
                                                  }))
      << r.out;
}

TEST(DrmGpumon, JsonCarriesTheFirstReadings) {
  const machine::RunResult r = run_gpumon({"--machine", machine_dir(kRdna3), "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  const json doc = json::parse(r.out);
  ASSERT_EQ(doc["gpus"].size(), 1u);
  const json& g = doc["gpus"][0];
  EXPECT_EQ(g["pci"], "1002:744C");
  EXPECT_EQ(g["vbios"], "113-D7020100-102");
  EXPECT_EQ(g["driver_name"], "amdgpu");
  EXPECT_EQ(g["monitorable"], true);
  EXPECT_EQ(g["temperature_c"]["core"], (json{{"current", 52.0}, {"min", 52.0}, {"max", 52.0}}));
  EXPECT_EQ(g["usage_percent"]["core"]["current"], 7.0);
  EXPECT_EQ(g["clock_mhz"]["core"]["current"], 1850.0);
  EXPECT_EQ(g["clock_mhz"]["memory"]["current"], 1249.0);
  EXPECT_EQ(g["power"]["watts"], 86.0);
  EXPECT_EQ(g["fans"], (json::array({{{"percent", nullptr}, {"rpm", 1102.0}}})));
  bool traced = false;
  for (const json& t : doc["traces"]) traced = traced || t["text"] == "  - power: 86 W";
  EXPECT_TRUE(traced);
}

TEST(DrmGpumon, WatchFollowsTheChangingSensors) {
  const machine::RunResult r =
      run_gpumon({"--machine", machine_dir(kRdna3), "--watch", "0.2", "--count", "5", "--json"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  const std::vector<std::string> docs = lines_of(r.out);
  ASSERT_EQ(docs.size(), 5u) << r.out;

  // The machine moves each file read in a burst of reads on by one value
  // once the burst is over. The scan is one burst, and the first refresh,
  // which follows it at once, may or may not belong to it; from the second
  // refresh on, each refresh sees the next value.
  std::vector<json> gpus;
  for (const std::string& d : docs) gpus.push_back(json::parse(d)["gpus"][0]);
  struct Series {
    const char* what;
    const std::vector<double>* values;
    json (*pick)(const json&);
  };
  const Series series[] = {
      {"temperature", &kTemperatures,
       [](const json& g) { return g["temperature_c"]["core"]["current"]; }},
      {"usage", &kUsages, [](const json& g) { return g["usage_percent"]["core"]["current"]; }},
      {"core clock", &kCoreClocks, [](const json& g) { return g["clock_mhz"]["core"]["current"]; }},
      {"power", &kWatts, [](const json& g) { return g["power"]["watts"]; }},
  };
  for (const Series& s : series) {
    SCOPED_TRACE(s.what);
    int at = position(*s.values, s.pick(gpus[0]).get<double>());
    EXPECT_TRUE(at == 0 || at == 1) << at;
    at = position(*s.values, s.pick(gpus[1]).get<double>());
    ASSERT_GE(at, 1);
    for (size_t k = 2; k < gpus.size(); ++k) {
      at = (at + 1) % static_cast<int>(s.values->size());
      EXPECT_EQ(s.pick(gpus[k]).get<double>(), (*s.values)[at]) << "refresh " << k + 1;
    }
  }
  // The running range of the temperature spans the scan's first reading.
  double highest = 52;
  for (const json& g : gpus) {
    highest = std::max(highest, g["temperature_c"]["core"]["current"].get<double>());
  }
  EXPECT_EQ(gpus.back()["temperature_c"]["core"]["min"], 52.0);
  EXPECT_EQ(gpus.back()["temperature_c"]["core"]["max"], highest);
  EXPECT_GT(highest, 52.0);
  // Clocks and usage keep ranges too.
  EXPECT_LT(gpus.back()["usage_percent"]["core"]["min"].get<double>(),
            gpus.back()["usage_percent"]["core"]["max"].get<double>());
  EXPECT_NE(gpus.front()["fans"][0]["rpm"], gpus.back()["fans"][0]["rpm"]);
}

TEST(DrmGpumon, WatchTableShowsTheTemperatureRange) {
  const machine::RunResult r =
      run_gpumon({"--machine", machine_dir(kRdna3), "--watch", "0.2", "--count", "3"});
  ASSERT_EQ(r.exit_code, 0) << r.error << r.err;
  EXPECT_NE(r.out.find("gpumon: refresh 3, every 0.2 s"), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find("gpumon: refresh 4"), std::string::npos);
  // The last table's row: current temperature with its range from 52 up.
  const std::vector<std::string> lines = lines_of(r.out);
  std::string row;
  for (const std::string& line : lines)
    if (line.rfind("0    ", 0) == 0) row = line;
  EXPECT_NE(row.find("1002:744C"), std::string::npos) << row;
  EXPECT_NE(row.find(" (52-"), std::string::npos) << row;
  EXPECT_NE(row.find(" rpm"), std::string::npos) << row;
}

}  // namespace
