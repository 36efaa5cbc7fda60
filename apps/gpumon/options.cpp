#include "options.h"

#include <cstdlib>
#include <cstring>

namespace {

bool parse_number(const char* text, double* value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  *value = std::strtod(text, &end);
  return end != nullptr && *end == '\0';
}

}  // namespace

const char* usage_text() {
  return "usage: gpumon [options]\n"
         "Loads the GPU monitor plug-in and shows the GPUs it finds.\n"
         "\n"
         "  --json               print one JSON document instead of the table\n"
         "  --watch SECONDS      refresh every SECONDS until interrupted (Ctrl-C)\n"
         "  --count N            with --watch: stop after N refreshes\n"
         "  --machine DIR        run inside the fake machine described by DIR\n"
         "  --plugin PATH        plug-in library to load (default: next to gpumon)\n"
         "  --lookup VEN:DEV[:REV]  show what the GPU database knows of a PCI id (hex)\n"
         "  --overlay FILE.png   render one frame of the monitor's overlay (graphs, usage\n"
         "                       bars, text) into FILE.png; with --watch, after the last\n"
         "                       refresh, with the usage of every refresh as curves\n"
         "  --size WxH           overlay size in pixels (default 800x400)\n"
         "  --gl 3.3|2.1         OpenGL context: 3.3 core (GLSL 1.50, default) or 2.1 (GLSL 1.20)\n"
         "  --text MODE          overlay text: simplified, v2, v3, v4 or v5 (default)\n"
         "  --gl-info            the OpenGL snapshot of a context: strings, limits, extensions\n"
         "  --help               show this help\n";
}

bool parse_options(int argc, char** argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    auto value = [&](const char* name) -> const char* {
      if (i + 1 >= argc) {
        *error = std::string(name) + " needs a value";
        return nullptr;
      }
      return argv[++i];
    };
    if (std::strcmp(arg, "--json") == 0) {
      options->json = true;
    } else if (std::strcmp(arg, "--help") == 0 || std::strcmp(arg, "-h") == 0) {
      options->help = true;
    } else if (std::strcmp(arg, "--watch") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      if (!parse_number(v, &options->watch_seconds) || options->watch_seconds <= 0.0) {
        *error = std::string("--watch needs a positive number of seconds, not '") + v + "'";
        return false;
      }
    } else if (std::strcmp(arg, "--count") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      double n = 0;
      if (!parse_number(v, &n) || n < 1 || n != static_cast<long>(n)) {
        *error = std::string("--count needs a positive whole number, not '") + v + "'";
        return false;
      }
      options->count = static_cast<long>(n);
    } else if (std::strcmp(arg, "--machine") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      options->machine = v;
    } else if (std::strcmp(arg, "--lookup") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      options->lookup = v;
    } else if (std::strcmp(arg, "--overlay") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      if (*v == '\0') {
        *error = "--overlay needs a file name";
        return false;
      }
      options->overlay = v;
    } else if (std::strcmp(arg, "--size") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      int w = 0, h = 0;
      char tail = 0;
      if (std::sscanf(v, "%dx%d%c", &w, &h, &tail) != 2 || w <= 0 || h <= 0) {
        *error = std::string("--size needs WIDTHxHEIGHT in pixels, not '") + v + "'";
        return false;
      }
      options->overlay_width = w;
      options->overlay_height = h;
    } else if (std::strcmp(arg, "--gl") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      if (std::strcmp(v, "3.3") == 0 || std::strcmp(v, "2.1") == 0) {
        options->gl_major = v[0] - '0';
        options->gl_minor = v[2] - '0';
      } else {
        *error = std::string("--gl is 3.3 or 2.1, not '") + v + "'";
        return false;
      }
    } else if (std::strcmp(arg, "--text") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      const std::string mode = v;
      if (mode != "simplified" && mode != "v2" && mode != "v3" && mode != "v4" && mode != "v5") {
        *error = "--text is simplified, v2, v3, v4 or v5, not '" + mode + "'";
        return false;
      }
      options->text = mode;
    } else if (std::strcmp(arg, "--gl-info") == 0) {
      options->gl_info = true;
    } else if (std::strcmp(arg, "--plugin") == 0) {
      const char* v = value(arg);
      if (v == nullptr) return false;
      options->plugin = v;
    } else {
      *error = std::string("unknown option '") + arg + "'";
      return false;
    }
  }
  if (options->count != 0 && options->watch_seconds == 0.0) {
    *error = "--count only goes with --watch";
    return false;
  }
  return true;
}
