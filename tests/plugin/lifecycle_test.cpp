// Entry points, identity and lifecycle of the monitor, loaded from the
// plug-in library as a host loads it.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>

#include "test_support.h"

namespace {

using namespace testing_support;

// '#' stands for a digit (or a blank, as the compiler pads the day), 'A' for
// an upper-case and 'a' for a lower-case letter; other characters match
// themselves.
bool matches_shape(const char* text, const char* shape) {
  if (std::strlen(text) != std::strlen(shape)) return false;
  for (size_t i = 0; shape[i] != '\0'; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    switch (shape[i]) {
      case '#': if (!std::isdigit(c) && c != ' ') return false; break;
      case 'A': if (!std::isupper(c)) return false; break;
      case 'a': if (!std::islower(c)) return false; break;
      default: if (c != static_cast<unsigned char>(shape[i])) return false;
    }
  }
  return true;
}

class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(machine_.ok()) << machine_.error();
    ASSERT_TRUE(plugin_.ok());
    monitor_ = plugin_.create();
    ASSERT_NE(monitor_, nullptr);
  }
  void TearDown() override {
    monitor_->terminate();
    EXPECT_EQ(plugin_.destroy_raw(monitor_), 1);
  }

  MachineScope machine_{"desktop-no-gpu"};
  TraceCapture traces_;
  PluginHandle plugin_;
  zev::GpuMonitor* monitor_ = nullptr;
};

TEST(EntryPoints, DestroyOfNullDoesNothing) {
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  EXPECT_EQ(plugin.destroy_raw(nullptr), 0);
}

TEST(EntryPoints, EachCreateMakesItsOwnMonitor) {
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  void* a = plugin.create_raw();
  void* b = plugin.create_raw();
  EXPECT_NE(a, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(plugin.destroy_raw(a), 1);
  EXPECT_EQ(plugin.destroy_raw(b), 1);
}

TEST_F(Lifecycle, RegistersItsIdentityWithTheFramework) {
  EXPECT_STREQ(monitor_->get_name(), "GpuMonitor");
  EXPECT_STREQ(monitor_->get_description(),
               "GPU monitoring plugin for NVIDIA, AMD and Intel GPUs");
  EXPECT_STRNE(monitor_->get_author(), "");
  int major = -1, minor = -1, patch = -1;
  monitor_->get_version(&major, &minor, &patch);
  EXPECT_EQ(major, 0);
  EXPECT_EQ(minor, 1);
  EXPECT_EQ(patch, 0);
  EXPECT_EQ(monitor_->get_type(), 12);
  EXPECT_TRUE(matches_shape(monitor_->get_build_info(),
                           "BUILD_DATE: [Aaa ## ####] - BUILD_TIME: [##:##:##]"))
      << monitor_->get_build_info();
  // Construction traces nothing and leaves the flags to the framework.
  EXPECT_TRUE(traces_.lines().empty());
  EXPECT_FALSE(monitor_->initialized);
  EXPECT_FALSE(monitor_->started);
}

TEST_F(Lifecycle, InitializeTracesTheMachineAndIsIdempotent) {
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(monitor_->initialized);
  const std::vector<std::string> expected = {
      "Linux x86_64 - CPU name: AMD Ryzen 7 7700X 8-Core Processor, CPU speed: 4491MHz, RAM: "
      "15932MB",
      "Operating system detected: Linux 6.1.0-26-amd64 64-bit",
      "DRM: scanning GPUs...",
      "DRM: no GPU found.",
      "Num GPUs detected: 0",
  };
  EXPECT_EQ(traces_.texts(), expected);

  traces_.clear();
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(traces_.lines().empty()) << "a second initialize must not rescan";
}

TEST_F(Lifecycle, TerminateBeforeInitializeAndTwiceIsHarmless) {
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_FALSE(monitor_->initialized);
  EXPECT_TRUE(monitor_->terminate());
  // After terminate the monitor can start over.
  traces_.clear();
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_EQ(traces_.texts().back(), "Num GPUs detected: 0");
}

TEST_F(Lifecycle, StartAndStopOnlyFlipTheStartedFlag) {
  EXPECT_TRUE(monitor_->start());
  EXPECT_TRUE(monitor_->started);
  EXPECT_TRUE(monitor_->start());
  EXPECT_TRUE(monitor_->started);
  EXPECT_FALSE(monitor_->initialized);
  EXPECT_TRUE(monitor_->initialize());
  EXPECT_TRUE(monitor_->terminate());
  EXPECT_TRUE(monitor_->started) << "terminate leaves the started flag alone";
  EXPECT_TRUE(monitor_->stop());
  EXPECT_FALSE(monitor_->started);
  EXPECT_TRUE(monitor_->stop());
  EXPECT_FALSE(monitor_->started);
}

TEST_F(Lifecycle, NoCudaLibraryMeansNoNvidiaDiscovery) {
  ASSERT_TRUE(monitor_->initialize());
  for (const std::string& line : traces_.texts()) {
    EXPECT_EQ(line.find("NVIDIA"), std::string::npos) << line;
  }
  EXPECT_TRUE(traces_.texts(zev::TRACE_DEBUG).empty());
}

}  // namespace
