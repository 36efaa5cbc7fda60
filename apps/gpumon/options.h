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
};

// Parses argv; on a bad command line returns false with a message in *error.
bool parse_options(int argc, char** argv, Options* options, std::string* error);

const char* usage_text();
