// A host that knows the monitor only as a table of function pointers: it
// creates the monitor through the C entry point and calls operations by
// their position, as the framework does. It deliberately does not include
// the monitor's class declaration.
#include <gtest/gtest.h>

#include <cstring>

#include "test_support.h"
#include "zev/trace.h"

namespace {

using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

// What the host knows of the object: a pointer to its table, then the two
// lifecycle flags of the framework's plug-in base.
struct MonitorHead {
  void** vtable;
  bool initialized;
  bool started;
};

struct ViewportValue {
  int x, y, w, h;
};

class SlotHost {
 public:
  explicit SlotHost(void* object) : object_(object) {}

  // Slot numbers count from 1, the two destructor entries first.
  template <typename R, typename... Args>
  R call(int slot, Args... args) {
    auto fn = reinterpret_cast<R (*)(void*, Args...)>(head()->vtable[slot - 1]);
    return fn(object_, args...);
  }

  MonitorHead* head() const { return static_cast<MonitorHead*>(object_); }

 private:
  void* object_;
};

class VtableSlots : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(machine_.ok()) << machine_.error();
    ASSERT_TRUE(plugin_.ok());
    object_ = plugin_.create_raw();
    ASSERT_NE(object_, nullptr);
    host_ = std::make_unique<SlotHost>(object_);
  }
  void TearDown() override {
    if (object_ != nullptr) {
      host_->call<bool>(8);  // terminate
      EXPECT_EQ(plugin_.destroy_raw(object_), 1);
    }
  }

  MachineScope machine_{"desktop-no-gpu"};
  TraceCapture traces_;
  PluginHandle plugin_;
  void* object_ = nullptr;
  std::unique_ptr<SlotHost> host_;
};

TEST_F(VtableSlots, LifecycleSlotsDriveTheFrameworkFlags) {
  SlotHost& h = *host_;
  const std::pair<int, std::pair<bool, bool>> steps[] = {
      {7, {true, false}}, {9, {true, true}}, {10, {true, false}}, {8, {false, false}}};
  for (const auto& [slot, flags] : steps) {  // initialize, start, stop, terminate
    EXPECT_TRUE(h.call<bool>(slot)) << slot;
    EXPECT_EQ(h.head()->initialized, flags.first) << slot;
    EXPECT_EQ(h.head()->started, flags.second) << slot;
  }
}

TEST_F(VtableSlots, QuerySlotsOnAMachineWithoutGpu) {
  SlotHost& h = *host_;
  ASSERT_TRUE(h.call<bool>(7));
  EXPECT_STREQ(h.call<const char*>(39), "AMD Ryzen 7 7700X 8-Core Processor");  // get_cpu_name
  EXPECT_EQ(h.call<unsigned long>(40), 4491u);                                  // get_cpu_speed_mhz
  for (int slot = 41; slot <= 43; ++slot) EXPECT_EQ(h.call<unsigned long>(slot), 0u) << slot;
  EXPECT_STREQ(h.call<const char*>(46), "Linux 6.1.0-26-amd64 64-bit");  // get_os_name
  EXPECT_EQ(h.call<unsigned long>(29), 0u);                              // get_num_gpus
  EXPECT_EQ(h.call<void*>(30, 0ul), nullptr);                            // get_gpu
  EXPECT_STREQ(h.call<const char*>(31, 0x10DEul, 0x2B85ul, 0ul), "NVIDIA GeForce RTX 5090");
  EXPECT_TRUE(h.call<bool>(32));                                  // reset_gpus_sensors
  EXPECT_EQ(h.call<unsigned long>(80), 0u);                       // nvml_get_num_gpus
  EXPECT_EQ(h.call<void*>(86, 0x10DEul, 0x2B85ul, -1), nullptr);  // get_gpu_v2
  EXPECT_FALSE(h.call<bool>(11));             // update_dynamic_data: nothing to refresh
  EXPECT_FALSE(h.call<bool>(13, 100ul));      // start_update_thread: no GPU, no thread
  EXPECT_TRUE(h.call<bool>(14));              // stop_update_thread
  EXPECT_FALSE(h.call<bool>(82));             // nvml_update_dynamic_data
  EXPECT_STREQ(h.call<const char*>(47), "");  // opengl_get_vendor before the host fills it
  EXPECT_EQ(h.call<const char*>(53, 0ul), nullptr);
  h.call<void>(17, 10, 20, 640, 480);  // set_viewport, get_viewport
  const ViewportValue v = h.call<ViewportValue>(18);
  EXPECT_EQ(v.x + v.y + v.w + v.h, 10 + 20 + 640 + 480);
  EXPECT_EQ(v.w, 640);
}

TEST_F(VtableSlots, UnsupportedSlotsWriteNothing) {
  SlotHost& h = *host_;
  ASSERT_TRUE(h.call<bool>(7));
  float level = 7.0f, t = 5.0f, u = 6.0f;
  int status = 7, a = 1, b = 2, c = 3, d = 4;
  unsigned long count = 7;
  char name[8] = "keep";
  EXPECT_FALSE(h.call<bool>(33, 0ul, 0.5f));
  EXPECT_FALSE(h.call<bool>(36, 0ul, &level));
  EXPECT_FALSE(h.call<bool>(37, &status));
  EXPECT_FALSE(h.call<bool>(62, &count));               // rt_get_num_gpus
  EXPECT_FALSE(h.call<bool>(63, 0ul, name));            // rt_get_gpu_name
  EXPECT_FALSE(h.call<bool>(78, 0ul, &a, &b, &c, &d));  // rt_get_all_policy_limits
  EXPECT_FALSE(h.call<bool>(79, 0ul, &t, &u));          // rt_get_cpu_temperature_and_usage
  EXPECT_EQ(level + t + u, 18.0f);
  EXPECT_EQ(status + a + b + c + d, 17);
  EXPECT_EQ(count, 7u);
  EXPECT_STREQ(name, "keep");
}

TEST_F(VtableSlots, TraceSlotsReachTheHostSink) {
  using Trace = void (*)(void*, const char*, ...);
  void** table = host_->head()->vtable;
  reinterpret_cast<Trace>(table[2])(object_, "info %d", 3);
  reinterpret_cast<Trace>(table[3])(object_, "warning %s", "w");
  reinterpret_cast<Trace>(table[4])(object_, "error %c", 'e');
  reinterpret_cast<Trace>(table[5])(object_, "debug %.1f", 1.5);
  const std::vector<std::pair<zev::TraceLevel, std::string>> expected = {
      {zev::TRACE_INFO, "info 3"},
      {zev::TRACE_WARNING, "warning w"},
      {zev::TRACE_ERROR, "error e"},
      {zev::TRACE_DEBUG, "debug 1.5"}};
  std::vector<std::pair<zev::TraceLevel, std::string>> seen;
  for (const auto& line : traces_.lines()) seen.emplace_back(line.level, line.text);
  EXPECT_EQ(seen, expected);
}

TEST(VtableEntryPoints, DeletingDestructorSlotFreesTheObject) {
  PluginHandle plugin;
  ASSERT_TRUE(plugin.ok());
  void* object = plugin.create_raw();
  ASSERT_NE(object, nullptr);
  // Slot 2 is the deleting destructor; under AddressSanitizer a wrong slot
  // shows up as a leak or a bad free.
  auto deleting = reinterpret_cast<void (*)(void*)>(static_cast<MonitorHead*>(object)->vtable[1]);
  deleting(object);
}

}  // namespace
