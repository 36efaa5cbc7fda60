// Command line of gpumon.
#pragma once

#include <string>
#include <vector>

struct Options {
  bool json = false;
  bool help = false;
  bool help_query = false;  // --help-query: the --query fields
  bool version = false;
  bool trace = false;              // --trace: the monitor's trace lines on stderr
  double watch_seconds = 0.0;      // 0: one report and exit
  long count = 0;                  // with --watch: stop after this many refreshes (0: never)
  std::vector<std::string> query;  // --query fields, checked against the field table
  bool csv_header = true;          // --format csv[,noheader][,nounits]
  bool csv_units = true;
  std::vector<std::string> gpus;  // --gpu/-i selectors (slot numbers, PCI addresses); none: all
  bool wide = false;              // --wide: the table with the static facts
  bool no_tui = false;            // --no-tui: --watch redraws the plain table
  std::string machine;            // fake machine folder
  std::string plugin;             // plug-in library path ("" : next to gpumon)
  std::string lookup;             // VENDOR:DEVICE[:REV] to look up in the GPU database
  std::string overlay;            // PNG file to render the overlay into ("": none)
  int overlay_width = 800;        // --size
  int overlay_height = 400;
  int gl_major = 3;  // --gl: 3.3 (GLSL 1.50) or 2.1 (GLSL 1.20)
  int gl_minor = 3;
  std::string text = "v5";  // --text: simplified, v2, v3, v4 or v5
  bool gl_info = false;     // --gl-info
  std::string serve;        // --serve HOST:PORT: Prometheus metrics over HTTP ("": none)
  std::string record;       // --record DIR: write this machine as a machine folder ("": none)
  std::vector<std::string> args_without_machine;  // argv[1...] less --machine DIR, for the
                                                  // run inside the machine
};

// Parses argv; on a bad command line returns false with a message in *error.
bool parse_options(int argc, char** argv, Options* options, std::string* error);

// The whole --help text.
const char* usage_text();
// What follows an error message: where to find the help.
const char* usage_hint();
