// Refresh of the GPU records and the optional update thread.
//
// No lock exists here by design: the update thread writes sensor values
// while the host thread reads them, each value a single 32-bit store. The
// quit and enable flags (bytes) and the period are read once per pass; they
// are relaxed atomics, which cost what plain fields do and order nothing else.
#include "plugin/gpu_monitor_vorn.h"
#include "zev/thread.h"

bool GpuMonitorVorn::update_dynamic_data() {
  const unsigned long n = get_num_gpus();
  if (n == 0) return false;
  nvml_update_dynamic_data();
  // Records with an NVML handle were refreshed just above; every other
  // monitorable record is refreshed sensor by sensor. Results are ignored:
  // a sensor that fails keeps its last value.
  for (unsigned long i = 0; i < n; ++i) {
    const zev::GPU* gpu = get_gpu(i);
    if (!gpu->monitorable || gpu->nvml_device != nullptr) continue;
    gpu_get_clocks(i, nullptr, nullptr);
    gpu_get_usages(i, nullptr, nullptr, nullptr, nullptr);
    gpu_get_temperatures(i, nullptr, nullptr, nullptr, nullptr);
    gpu_power_get_current_value(i, nullptr, nullptr);
    gpu_read_fan_speed(i);
    gpu_read_vram_used(i);
  }
  return true;
}

// Sleeps a full period on every pass, also while updating is disabled.
void* GpuMonitoring_Update_Thread(void* arg) {
  GpuMonitorVorn* monitor = static_cast<GpuMonitorVorn*>(arg);
  while (!monitor->update_thread_quit.load(std::memory_order_relaxed)) {
    if (monitor->update_enabled.load(std::memory_order_relaxed)) monitor->update_dynamic_data();
    zev::ThreadSleep(monitor->update_period_ms.load(std::memory_order_relaxed));
  }
  pthread_exit(nullptr);
  return nullptr;
}

bool GpuMonitorVorn::start_update_thread(unsigned long period_ms) {
  if (get_num_gpus() == 0) return false;
  update_period_ms.store(period_ms, std::memory_order_relaxed);
  // Deliberately one thread at most: while one runs, a start only changes
  // its period (taken up after the current sleep). Starting a second thread
  // would lose the first one's handle, and that thread, never joined, would
  // go on reading the monitor after it is destroyed.
  if (update_thread != 0) return true;
  // The quit flag is not cleared: a thread started after a stop leaves its
  // loop at once. A thread that could not be created leaves no handle to
  // join; the start still reports success, as hosts expect.
  pthread_t thread;
  update_thread =
      pthread_create(&thread, nullptr, GpuMonitoring_Update_Thread, this) == 0 ? thread : 0;
  return true;
}

bool GpuMonitorVorn::stop_update_thread() {
  if (update_thread == 0) return true;
  update_thread_quit.store(true, std::memory_order_relaxed);
  // Waits for the current sleep to end: up to one period.
  pthread_join(update_thread, nullptr);
  update_thread = 0;
  return true;
}
