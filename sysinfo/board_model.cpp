#include "sysinfo/board_model.h"

#include <cstring>

#include "io/text_file.h"
#include "sysinfo/cpu_readers.h"
#include "sysinfo/proc_parse.h"

namespace board_model {

namespace {

// The boards the Raspberry Pi back-end knows (texts in place: nothing for
// the loader to relocate).
const char kRaspberryPiModels[][16] = {"Raspberry Pi 5", "Raspberry Pi 4", "Raspberry Pi 3"};

}  // namespace

bool could_be_raspberry_pi() {
  text_file::Lines lines;
  if (!lines.open("/proc/cpuinfo")) return true;  // unknown: let the pipeline tell
  char line[512];
  while (lines.next(line, sizeof line)) {
    const proc_parse::ModelLine kind = proc_parse::model_line(line);
    if (kind != proc_parse::ModelLine::kNotModel)
      return kind == proc_parse::ModelLine::kRaspberryPi;
  }
  return false;
}

bool raspberry_pi_model(const char* text) {
  if (text == nullptr) return false;
  for (const char* model : kRaspberryPiModels)
    if (std::strstr(text, model) != nullptr) return true;
  return false;
}

bool read_raspberry_pi_model(char* model) {
  return could_be_raspberry_pi() && sysinfo::read_board_model(model) && raspberry_pi_model(model);
}

}  // namespace board_model
