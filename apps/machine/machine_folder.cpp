// What makes a folder a machine, checked before anything is mounted, so that
// a typo or the source folder of a machine that needs its fakes assembled
// fails with a clear message instead of running on an empty machine.
#include "machine_folder.h"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace machine {

namespace {

const char* const kParts[] = {"sys", "proc", "dev", "bin", "lib"};

// The first path the "fakes" file lists (its lines: "<path in the machine>
// <fake>" or "<path> -> <link>") when the folder holds none of them: the
// source folder of a machine the build assembles. "" when the folder has at
// least one (a machine from which a test took a fake away is still one).
std::string fakes_never_assembled(const fs::path& folder) {
  std::ifstream in(folder / "fakes");
  std::string line, first;
  while (std::getline(in, line)) {
    std::istringstream words(line);
    std::string path;
    if (!(words >> path) || path[0] == '#') continue;
    std::error_code ec;
    if (fs::exists(fs::symlink_status(folder / path, ec))) return "";
    if (first.empty()) first = path;
  }
  return first;
}

}  // namespace

bool check_machine_folder(const std::string& dir, std::string* error) {
  if (dir.empty()) {
    *error = "no machine folder given";
    return false;
  }
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) {
    *error = "no machine folder at " + dir;
    return false;
  }
  bool has_part = false;
  for (const char* part : kParts) has_part = has_part || fs::is_directory(fs::path(dir) / part, ec);
  if (!has_part) {
    *error = dir + " is not a machine folder: it has none of sys/, proc/, dev/, bin/, lib/";
    return false;
  }
  const std::string missing = fakes_never_assembled(dir);
  if (!missing.empty()) {
    const std::string name = fs::canonical(dir, ec).filename().string();
    std::string assembled = "build/machines/" + name;
#ifdef ZEV_ASSEMBLED_MACHINES_DIR
    if (fs::is_directory(fs::path(ZEV_ASSEMBLED_MACHINES_DIR) / name, ec)) {
      assembled = (fs::path(ZEV_ASSEMBLED_MACHINES_DIR) / name).string();
    }
#endif
    *error = dir + " lacks the fakes it lists (" + missing +
             ", ...): the build assembles them; use " + assembled;
    return false;
  }
  return true;
}

}  // namespace machine
