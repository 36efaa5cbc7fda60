// gpumon --lookup: what the database says of any PCI id.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "test_support.h"

namespace {

using testing_support::run_gpumon;

TEST(GpumonLookup, PrintsTheRowOfAnId) {
  machine::RunResult r = run_gpumon({"--lookup", "10DE:2B85"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("name:       NVIDIA GeForce RTX 5090\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("codename:   GB202-300\n"), std::string::npos);
  EXPECT_NE(r.out.find("shaders:    21760\n"), std::string::npos);
  EXPECT_NE(r.out.find("TMUs:       680\n"), std::string::npos);
  EXPECT_NE(r.out.find("ROPs:       176\n"), std::string::npos);
  EXPECT_NE(r.out.find("TDP:        575 W\n"), std::string::npos);
  EXPECT_NE(r.out.find("NVIDIA GeForce RTX 5090 Founders Edition"), std::string::npos);

  r = run_gpumon({"--lookup", "1002:7550:C2"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("name:       AMD Radeon RX 9070 GRE\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("AMD Radeon RX 9070 XT, variant C0"), std::string::npos);

  r = run_gpumon({"--lookup", "8086:e20b"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find("name:       Intel Arc B580\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("codename:   Battlemage BMG-G21\n"), std::string::npos);
}

TEST(GpumonLookup, JsonAndUnknownIds) {
  machine::RunResult r = run_gpumon({"--json", "--lookup", "1002:7551:C1"});
  EXPECT_EQ(r.exit_code, 0);
  const nlohmann::json doc = nlohmann::json::parse(r.out);
  EXPECT_EQ(doc["row"]["adapter_name"], "AMD Radeon AI PRO R9700S");
  EXPECT_EQ(doc["id"], "1002:7551:C1");

  r = run_gpumon({"--lookup", "1002:7550:C5"});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("not in the GPU database"), std::string::npos);
  for (const char* bad : {"10DE", "10DE:", "xyz:2B85", "10DE:2B85:C1:0", "12345:1", "1002:7550:C23"}) {
    r = run_gpumon({"--lookup", bad});
    EXPECT_EQ(r.exit_code, 2) << bad;
  }
}

}  // namespace
