// Loads a monitor plug-in the way a host does: dlopen by path, then the two
// C entry points.
#pragma once

#include <string>

#include "zev/gpu_monitor.h"

class PluginLibrary {
 public:
  PluginLibrary() = default;
  ~PluginLibrary();
  PluginLibrary(const PluginLibrary&) = delete;
  PluginLibrary& operator=(const PluginLibrary&) = delete;

  // Opens the library and resolves its entry points; false with *error set
  // when the file is missing, is no loadable library, or lacks an entry point.
  bool open(const std::string& path, std::string* error);

  // Creates the library's monitor (null when it returned nothing).
  zev::GpuMonitor* create();
  // Destroys a monitor made by create().
  int destroy(zev::GpuMonitor* monitor);

 private:
  void* handle_ = nullptr;
  void* (*create_)() = nullptr;
  int (*destroy_)(void*) = nullptr;
};

// The running program's path, as /proc/self/exe tells it; "" when it does not.
std::string running_program_path();

// The default plug-in path: plugin_zev_gpumon_x64.so next to the running
// program, or, where there is none, the one in the installed plug-in folder.
std::string default_plugin_path();
