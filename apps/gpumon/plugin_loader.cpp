#include "plugin_loader.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

PluginLibrary::~PluginLibrary() {
  if (handle_ != nullptr) dlclose(handle_);
}

bool PluginLibrary::open(const std::string& path, std::string* error) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *error = "no plug-in at " + path;
    return false;
  }
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char* why = dlerror();
    *error = "cannot load plug-in " + path + ": " + (why ? why : "unknown error");
    return false;
  }
  create_ = reinterpret_cast<void* (*)()>(dlsym(handle_, "zev_plugin_create"));
  destroy_ = reinterpret_cast<int (*)(void*)>(dlsym(handle_, "zev_plugin_destroy"));
  if (create_ == nullptr || destroy_ == nullptr) {
    *error = path + " is not a zev plug-in: it lacks " +
             (create_ == nullptr ? "zev_plugin_create" : "zev_plugin_destroy");
    dlclose(handle_);
    handle_ = nullptr;
    return false;
  }
  return true;
}

zev::GpuMonitor* PluginLibrary::create() {
  return static_cast<zev::GpuMonitor*>(create_ ? create_() : nullptr);
}

int PluginLibrary::destroy(zev::GpuMonitor* monitor) { return destroy_ ? destroy_(monitor) : 0; }

std::string running_program_path() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  return n > 0 ? std::string(self, static_cast<size_t>(n)) : std::string();
}

std::string default_plugin_path() {
  const std::string file = "plugin_zev_gpumon_x64.so";
  std::string dir = running_program_path();
  if (dir.empty()) return file;
  dir.erase(dir.find_last_of('/') + 1);
  const std::string beside = dir + file;
#ifdef ZEV_INSTALLED_PLUGIN_DIR
  // An installed gpumon has no plug-in beside it: it takes the one in the
  // prefix's plug-in folder.
  const std::string installed = dir + ZEV_INSTALLED_PLUGIN_DIR + "/" + file;
  if (access(beside.c_str(), F_OK) != 0 && access(installed.c_str(), F_OK) == 0) {
    return installed;
  }
#endif
  return beside;
}
