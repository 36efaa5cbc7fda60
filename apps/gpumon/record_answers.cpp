#include "record_answers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace record {

namespace {

bool write_script(const fs::path& path, const std::string& text) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::ofstream out(path);
  out << text;
  out.close();
  return out && chmod(path.c_str(), 0755) == 0;
}

}  // namespace

std::string shell_word(const std::string& text) {
  std::string word = "'";
  for (char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

const std::vector<std::string>& recorded_tools() {
  static const std::vector<std::string> tools = {"nvidia-smi", "vcgencmd"};
  return tools;
}

std::string find_on_path(const std::string& tool) {
  const char* path = std::getenv("PATH");
  std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    const std::string candidate = dirs.substr(start, end - start) + "/" + tool;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

std::vector<std::string> write_recording_shims(const std::string& shims,
                                               const std::string& folder) {
  std::vector<std::string> written;
  for (const std::string& tool : recorded_tools()) {
    const std::string real = find_on_path(tool);
    if (real.empty()) continue;
    const std::string answers = folder + "/bin/answers/" + tool;
    const std::string script =
        "#!/bin/sh\n"
        "# Runs the real " +
        tool +
        " and keeps its answer for gpumon --record.\n"
        "dir=" +
        shell_word(answers) +
        "\n"
        "mkdir -p \"$dir\"\n"
        "n=$(printf '%04d' \"$(ls \"$dir\" | grep -c '\\.args$')\")\n"
        "printf '%s' \"$*\" > \"$dir/$n.args\"\n" +
        shell_word(real) +
        " \"$@\" > \"$dir/$n.out\" 2>/dev/null\n"
        "rc=$?\n"
        "echo \"$rc\" > \"$dir/$n.rc\"\n"
        "cat \"$dir/$n.out\"\n"
        "exit \"$rc\"\n";
    if (write_script(fs::path(shims) / tool, script)) written.push_back(tool);
  }
  return written;
}

size_t count_answers(const std::string& folder, const std::string& tool) {
  size_t n = 0;
  std::error_code ec;
  for (const fs::directory_entry& e : fs::directory_iterator(folder + "/bin/answers/" + tool, ec)) {
    if (e.path().extension() == ".args") ++n;
  }
  return n;
}

bool write_replay_script(const std::string& folder, const std::string& tool) {
  const std::string script =
      "#!/bin/sh\n"
      "# " +
      tool +
      " as gpumon --record kept it: the first answer recorded for the\n"
      "# same arguments (bin/answers/" +
      tool +
      "/NNNN.args, .out and .rc).\n"
      "dir=\"$(dirname \"$0\")/answers/" +
      tool +
      "\"\n"
      "for args in \"$dir\"/*.args; do\n"
      "  [ -f \"$args\" ] || break\n"
      "  if [ \"$(cat \"$args\")\" = \"$*\" ]; then\n"
      "    cat \"${args%.args}.out\"\n"
      "    exit \"$(cat \"${args%.args}.rc\")\"\n"
      "  fi\n"
      "done\n"
      "echo \"" +
      tool +
      ": no answer was recorded for: $*\" >&2\n"
      "exit 1\n";
  return write_script(fs::path(folder) / "bin" / tool, script);
}

}  // namespace record
