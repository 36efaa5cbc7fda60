// The Raspberry Pi's texts parsed as pure functions: one named case per
// recorded board, with the texts its firmware tool and kernel give (the
// recorded boards keep the discovery, refresh and end-to-end tests).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

#include "backends/rpi/rpi_parse.h"

namespace {

// Feeds a text line by line (newlines kept, as the file reader gives them)
// and answers the busiest queue's load.
float usage_of(const std::string& text, bool stats, uint64_t* timestamp, uint64_t (&runtime)[5]) {
  rpi_parse::V3dUsage usage(timestamp, runtime);
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    line += '\n';
    if (stats) {
      usage.add_stats_line(line.c_str());
    } else {
      usage.add_debug_line(line.c_str());
    }
  }
  return usage.busiest_percent();
}

struct BoardTexts {
  const char* name;
  // "vcgencmd measure_temp | cut -c6-" and the V3D clock file; null: none.
  const char* temperature_line;
  const char* clock_line;
  // Two reads of the usage file, one second apart.
  bool stats;  // gpu_stats (v2), else the debugfs gpu_usage (v1)
  const char* first_read;
  const char* second_read;
  // What they mean.
  float celsius, mhz, percent;
};

// machines/rpi5-videocore7 and machines/rpi4-videocore6: their first two
// snapshots (sequences) and their firmware tool's answer.
const BoardTexts kBoards[] = {
    {"Pi5_VideoCore7", "48.3'C\n", "cycles: 500000000 (500.000000 MHz)\n", true,
     "queue\ttimestamp\tjobs\truntime\nbin\t900000000000\t1200\t83000000000\n"
     "render\t900000000000\t1200\t241000000000\ntfu\t900000000000\t88\t310000000\n"
     "csd\t900000000000\t4\t1200000000\ncache_clean\t900000000000\t301\t5200000\n"
     "cpu\t900000000000\t0\t0\n",
     "queue\ttimestamp\tjobs\truntime\nbin\t901000000000\t1240\t83180000000\n"
     "render\t901000000000\t1240\t241400000000\ntfu\t901000000000\t88\t320000000\n"
     "csd\t901000000000\t4\t1200000000\ncache_clean\t901000000000\t301\t5200000\n"
     "cpu\t901000000000\t0\t0\n",
     48.3f, 500.0f, 40.0f},
    {"Pi4_VideoCore6", "52.6'C\n", nullptr, false,
     "timestamp;5000000000000;\n\"QUEUE\";\"JOBS\";\"RUNTIME\";\"ACTIVE\";\n"
     "v3d_bin;800;83000000000;0;\nv3d_render;800;241000000000;0;\nv3d_tfu;12;310000000;0;\n"
     "v3d_csd;0;1200000000;0;\nv3d_cache_clean;97;5200000;0;\n",
     "timestamp;5001000000000;\n\"QUEUE\";\"JOBS\";\"RUNTIME\";\"ACTIVE\";\n"
     "v3d_bin;830;83180000000;0;\nv3d_render;830;241400000000;0;\nv3d_tfu;12;320000000;0;\n"
     "v3d_csd;0;1200000000;0;\nv3d_cache_clean;97;5200000;0;\n",
     52.6f, -1.0f, 40.0f},
};

void PrintTo(const BoardTexts& b, std::ostream* out) { *out << b.name; }

class RaspberryPiTexts : public ::testing::TestWithParam<BoardTexts> {};

TEST_P(RaspberryPiTexts, MeanWhatTheBoardSaid) {
  const BoardTexts& b = GetParam();
  float celsius = 0;
  ASSERT_TRUE(rpi_parse::parse_measure_temp(b.temperature_line, &celsius));
  EXPECT_FLOAT_EQ(celsius, b.celsius);
  if (b.clock_line != nullptr) {
    float mhz = 0;
    ASSERT_TRUE(rpi_parse::parse_measure_clock(b.clock_line, &mhz));
    EXPECT_FLOAT_EQ(mhz, b.mhz);
  }

  uint64_t timestamp = 0;
  uint64_t runtime[5] = {0, 0, 0, 0, 0};
  EXPECT_EQ(usage_of(b.first_read, b.stats, &timestamp, runtime), 0.0f)
      << "the first read only primes";
  EXPECT_EQ(runtime[1], 241000000000u) << "the render queue's run time is kept";
  EXPECT_FLOAT_EQ(usage_of(b.second_read, b.stats, &timestamp, runtime), b.percent);
  EXPECT_EQ(runtime[1], 241400000000u);
  EXPECT_EQ(runtime[4], 5200000u) << "cache_clean is the fifth queue";
}

INSTANTIATE_TEST_SUITE_P(RecordedBoards, RaspberryPiTexts, ::testing::ValuesIn(kBoards),
                         [](const auto& info) { return std::string(info.param.name); });

// Answers that are no reading leave the output alone.
TEST(RaspberryPiTexts, ToolErrorsAreNoReading) {
  const char* no_number[] = {"", "\n", "5", "garbage\n",
                             "=1 error_msg=\"Command not registered\"\n"};
  for (const char* line : no_number) {
    float value = 7.0f;
    EXPECT_FALSE(rpi_parse::parse_measure_temp(line, &value)) << line;
    EXPECT_FALSE(rpi_parse::parse_measure_clock(line, &value)) << line;
    EXPECT_EQ(value, 7.0f);
  }
  float mhz = 7.0f;
  EXPECT_FALSE(rpi_parse::parse_measure_clock("cycles: 12 (oops)\n", &mhz));
  EXPECT_TRUE(rpi_parse::parse_measure_temp("52'C", &mhz)) << "the cut takes the C, not a digit";
  EXPECT_EQ(mhz, 52.0f);
}

}  // namespace
