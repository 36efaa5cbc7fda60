// The system-information pipelines' lines parsed as pure functions: one
// named case per recorded machine, with the line each pipeline prints over
// that machine's /proc files (the machines keep the end-to-end tests).
#include <gtest/gtest.h>

#include <cctype>
#include <ostream>
#include <sstream>
#include <string>

#include "sysinfo/board_model.h"
#include "sysinfo/proc_parse.h"
#include "test_support.h"

namespace {

using testing_support::machine_dir;
using testing_support::read_file;

// What `grep PATTERN | cut -cFROM-` prints first over a file: the first
// line holding the pattern, from its FROM-th character, with its newline;
// "" when no line holds it.
std::string grep_cut(const std::string& text, const std::string& pattern, size_t from) {
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line))
    if (line.find(pattern) != std::string::npos) return line.substr(from - 1) + "\n";
  return "";
}

// The MemTotal pipeline's extra `grep -o '[0-9]*'`: the first run of digits.
std::string digits_of(const std::string& line) {
  size_t begin = 0;
  while (begin < line.size() && !std::isdigit(static_cast<unsigned char>(line[begin]))) ++begin;
  size_t end = begin;
  while (end < line.size() && std::isdigit(static_cast<unsigned char>(line[end]))) ++end;
  return begin == end ? "" : line.substr(begin, end - begin) + "\n";
}

struct MachineFacts {
  const char* machine;
  const char* cpu_name;     // "" where no "model name" line
  long mhz;                 // the whole part of the first "cpu MHz"
  unsigned long mem_mb;     // MemTotal in MiB
  const char* board_model;  // "" where no "Model" line
};

const MachineFacts kMachines[] = {
    {"desktop-no-gpu", "AMD Ryzen 7 7700X 8-Core Processor", 4491, 15932, ""},
    {"dual-socket-xeon", "Intel(R) Xeon(R) Gold 6338 CPU @ 2.00GHz", 2893, 515481, ""},
    {"amd-apu-phoenix-780m", "AMD Ryzen 7 7840U w/ Radeon  780M Graphics", 1400, 30720, ""},
    {"arm64-no-cpu-mhz", "", 0, 128514, ""},
    {"rpi4-videocore6", "", 0, 3793, "Raspberry Pi 4 Model B Rev 1.4"},
    {"rpi5-videocore7", "", 0, 128514, "Raspberry Pi 5 Model B Rev 1.0"},
};

void PrintTo(const MachineFacts& m, std::ostream* out) { *out << m.machine; }

class ProcTexts : public ::testing::TestWithParam<MachineFacts> {};

TEST_P(ProcTexts, MeanWhatTheMachineSaid) {
  const MachineFacts& m = GetParam();
  const std::string cpuinfo = read_file(machine_dir(m.machine) + "/proc/cpuinfo");
  const std::string meminfo = read_file(machine_dir(m.machine) + "/proc/meminfo");
  ASSERT_FALSE(cpuinfo.empty());

  const std::string name_line = grep_cut(cpuinfo, "model name", 14);
  if (*m.cpu_name != '\0') {
    char name[128] = "untouched";
    proc_parse::chopped_text(name_line.c_str(), name);
    EXPECT_STREQ(name, m.cpu_name);
  }
  EXPECT_EQ(proc_parse::leading_number(grep_cut(cpuinfo, "cpu MHz", 12).c_str()), m.mhz);
  const std::string kib = digits_of(grep_cut(meminfo, "MemTotal", 17));
  EXPECT_EQ(proc_parse::mib_of_kib(proc_parse::leading_number(kib.c_str())), m.mem_mb);

  // The in-process look at /proc/cpuinfo: the first "Model" line decides.
  proc_parse::ModelLine first = proc_parse::ModelLine::kNotModel;
  std::istringstream in(cpuinfo);
  std::string line;
  while (first == proc_parse::ModelLine::kNotModel && std::getline(in, line))
    first = proc_parse::model_line((line + "\n").c_str());
  const bool pi = *m.board_model != '\0';
  EXPECT_EQ(first, pi ? proc_parse::ModelLine::kRaspberryPi : proc_parse::ModelLine::kNotModel);
  if (pi) {
    char model[128];
    proc_parse::chopped_text(grep_cut(cpuinfo, "Model", 10).c_str(), model);
    EXPECT_STREQ(model, m.board_model);
    EXPECT_TRUE(board_model::raspberry_pi_model(model));
  }
}

INSTANTIATE_TEST_SUITE_P(RecordedMachines, ProcTexts, ::testing::ValuesIn(kMachines),
                         [](const auto& info) {
                           std::string name = info.param.machine;
                           for (char& c : name)
                             if (c == '-') c = '_';
                           return name;
                         });

// Lines no pipeline was meant to give: cut, zero, or no board.
TEST(ProcTexts, OddLines) {
  char text[128] = "untouched";
  proc_parse::chopped_text("", text);
  EXPECT_STREQ(text, "");
  const std::string x300(300, 'X');
  proc_parse::chopped_text(x300.c_str(), text);
  EXPECT_EQ(std::string(text), std::string(126, 'X')) << "127 kept, the last cut";
  EXPECT_EQ(proc_parse::leading_number("fast\n"), 0);
  EXPECT_EQ(proc_parse::leading_number("-12\n"), -12);
  EXPECT_EQ(proc_parse::mib_of_kib(1023), 0u);
  EXPECT_EQ(proc_parse::mib_of_kib(1024), 1u);
  EXPECT_EQ(proc_parse::model_line("Model\t\t: Generic board\n"),
            proc_parse::ModelLine::kOtherBoard);
  EXPECT_EQ(proc_parse::model_line("model name\t: Raspberry Pi\n"),
            proc_parse::ModelLine::kNotModel);
  EXPECT_FALSE(board_model::raspberry_pi_model("Raspberry Pi 2 Model B"));
  EXPECT_FALSE(board_model::raspberry_pi_model(nullptr));
}

}  // namespace
