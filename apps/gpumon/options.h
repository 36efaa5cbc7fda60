// Command line of gpumon.
#pragma once

#include <string>

struct Options {
  bool json = false;
  bool help = false;
  double watch_seconds = 0.0;  // 0: one report and exit
  long count = 0;              // with --watch: stop after this many refreshes (0: never)
  std::string machine;         // fake machine folder
  std::string plugin;          // plug-in library path ("" : next to gpumon)
  std::string lookup;          // VENDOR:DEVICE[:REV] to look up in the GPU database
  std::string overlay;         // PNG file to render the overlay into ("": none)
  int overlay_width = 800;     // --size
  int overlay_height = 400;
  int gl_major = 3;            // --gl: 3.3 (GLSL 1.50) or 2.1 (GLSL 1.20)
  int gl_minor = 3;
  std::string text = "v5";     // --text: simplified, v2, v3, v4 or v5
  bool gl_info = false;        // --gl-info
};

// Parses argv; on a bad command line returns false with a message in *error.
bool parse_options(int argc, char** argv, Options* options, std::string* error);

const char* usage_text();
