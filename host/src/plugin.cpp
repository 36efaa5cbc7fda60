#include "zev/plugin.h"

#include <cstdio>
#include <cstring>

#include "zev/trace.h"

namespace zev {

namespace {

void copy_text(char* dst, size_t size, const char* src) {
  if (src == nullptr) src = "";
  std::snprintf(dst, size, "%s", src);
}

}  // namespace

Plugin::Plugin()
    : initialized(false), started(false), version_{0, 0, 0}, type_(PLUGIN_TYPE_UNKNOWN) {
  name_[0] = '\0';
  description_[0] = '\0';
  author_[0] = '\0';
  build_info_[0] = '\0';
}

Plugin::~Plugin() = default;

#define ZEV_TRACE_BODY(level)         \
  va_list args;                       \
  va_start(args, format);             \
  trace_vprintf(level, format, args); \
  va_end(args)

void Plugin::tracef(const char* format, ...) { ZEV_TRACE_BODY(TRACE_INFO); }
void Plugin::tracef_warning(const char* format, ...) { ZEV_TRACE_BODY(TRACE_WARNING); }
void Plugin::tracef_error(const char* format, ...) { ZEV_TRACE_BODY(TRACE_ERROR); }
void Plugin::tracef_debug(const char* format, ...) { ZEV_TRACE_BODY(TRACE_DEBUG); }

#undef ZEV_TRACE_BODY

void Plugin::set_name(const char* name) { copy_text(name_, sizeof name_, name); }
void Plugin::set_description(const char* description) {
  copy_text(description_, sizeof description_, description);
}
void Plugin::set_author(const char* author) { copy_text(author_, sizeof author_, author); }
void Plugin::set_version(int major, int minor, int patch) {
  version_[0] = major;
  version_[1] = minor;
  version_[2] = patch;
}
void Plugin::set_build_info(const char* build_info) {
  copy_text(build_info_, sizeof build_info_, build_info);
}
void Plugin::set_type(PLUGIN_TYPE type) { type_ = type; }

const char* Plugin::get_name() const { return name_; }
const char* Plugin::get_description() const { return description_; }
const char* Plugin::get_author() const { return author_; }
void Plugin::get_version(int* major, int* minor, int* patch) const {
  if (major) *major = version_[0];
  if (minor) *minor = version_[1];
  if (patch) *patch = version_[2];
}
const char* Plugin::get_build_info() const { return build_info_; }
PLUGIN_TYPE Plugin::get_type() const { return type_; }

}  // namespace zev
