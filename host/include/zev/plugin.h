// zev::Plugin: the base class every plug-in of the framework derives from.
// The framework library (libzev_r_linux_x64.so) implements the non-inline
// members; a plug-in is built against this header and links to that library.
#pragma once

#include <cstdarg>

namespace zev {

enum PLUGIN_TYPE {
  PLUGIN_TYPE_UNKNOWN = 0,
  PLUGIN_TYPE_RENDERER = 1,
  PLUGIN_TYPE_AUDIO = 2,
  PLUGIN_TYPE_PHYSICS = 3,
  PLUGIN_TYPE_NETWORK = 4,
  PLUGIN_TYPE_SCRIPT = 5,
  PLUGIN_TYPE_IMAGE = 6,
  PLUGIN_TYPE_VIDEO = 7,
  PLUGIN_TYPE_FONT = 8,
  PLUGIN_TYPE_INPUT = 9,
  PLUGIN_TYPE_VR = 10,
  PLUGIN_TYPE_COMPUTE = 11,
  PLUGIN_TYPE_GPU_MONITOR = 12,
};

class Plugin {
 public:
  // The two lifecycle flags are the first members of every plug-in object;
  // the framework and the plug-in both read them by position.
  bool initialized;
  bool started;

  Plugin();
  virtual ~Plugin();

  // printf-style tracing to the sink the embedding program chose (see trace.h).
  virtual void tracef(const char* format, ...) __attribute__((format(printf, 2, 3)));
  virtual void tracef_warning(const char* format, ...) __attribute__((format(printf, 2, 3)));
  virtual void tracef_error(const char* format, ...) __attribute__((format(printf, 2, 3)));
  virtual void tracef_debug(const char* format, ...) __attribute__((format(printf, 2, 3)));

  virtual bool initialize() = 0;
  virtual bool terminate() = 0;
  virtual bool start() = 0;
  virtual bool stop() = 0;

  void set_name(const char* name);
  void set_description(const char* description);
  void set_author(const char* author);
  void set_version(int major, int minor, int patch);
  void set_build_info(const char* build_info);
  void set_type(PLUGIN_TYPE type);

  const char* get_name() const;
  const char* get_description() const;
  const char* get_author() const;
  void get_version(int* major, int* minor, int* patch) const;
  const char* get_build_info() const;
  PLUGIN_TYPE get_type() const;

  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

 private:
  char name_[64];
  char description_[256];
  char author_[128];
  char build_info_[128];
  int version_[3];
  PLUGIN_TYPE type_;
};

}  // namespace zev
