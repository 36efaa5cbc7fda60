#include "test_support.h"

#include <dlfcn.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testing_support {

std::string plugin_path() { return std::string(ZEV_BIN_DIR) + "/plugin_zev_gpumon_x64.so"; }
std::string gpumon_path() { return std::string(ZEV_BIN_DIR) + "/gpumon"; }
std::string machine_dir(const std::string& name) {
  return std::string(ZEV_MACHINES_DIR) + "/" + name;
}

std::string fake_library(const std::string& name) {
  return std::string(ZEV_FAKES_LIB_DIR) + "/" + name;
}

TraceCapture::TraceCapture() { zev::set_trace_sink(&TraceCapture::sink, this); }
TraceCapture::~TraceCapture() { zev::set_trace_sink(nullptr, nullptr); }

void TraceCapture::sink(zev::TraceLevel level, const char* line, void* user) {
  static_cast<TraceCapture*>(user)->lines_.push_back({level, line});
}

std::vector<std::string> TraceCapture::texts() const {
  std::vector<std::string> out;
  for (const Line& l : lines_) out.push_back(l.text);
  return out;
}

std::vector<std::string> TraceCapture::texts(zev::TraceLevel level) const {
  std::vector<std::string> out;
  for (const Line& l : lines_)
    if (l.level == level) out.push_back(l.text);
  return out;
}

MachineScope::MachineScope(const std::string& name_or_dir) {
  const std::string dir =
      name_or_dir.find('/') == std::string::npos ? machine_dir(name_or_dir) : name_or_dir;
  ok_ = machine::enter(dir, &error_);
}

MachineScope::~MachineScope() {
  if (ok_) machine::leave();
}

TempMachine::TempMachine(const Files& files, const std::string& base) {
  char pattern[] = "/tmp/zev-test-machine-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return;
  dir_ = pattern;
  if (!base.empty()) {
    const std::string from = base.find('/') == std::string::npos ? machine_dir(base) : base;
    std::filesystem::copy(from, dir_,
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::copy_symlinks |
                              std::filesystem::copy_options::overwrite_existing);
  }
  for (const auto& file : files) write(file.first, file.second);
}

TempMachine::~TempMachine() {
  std::error_code ec;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

void TempMachine::write(const std::string& path, const std::string& contents) {
  const std::filesystem::path full = std::filesystem::path(dir_) / path;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out << contents;
}

std::string test_name(std::string name) {
  for (char& c : name)
    if (c == '-' || c == '.') c = '_';
  return name;
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

pid_t spawn(const std::vector<std::string>& argv, int out_fd, int err_fd) {
  allow_preloading();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  return pid;
}

int wait_for(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int stop(pid_t pid, int signal) {
  kill(pid, signal);
  return wait_for(pid);
}

machine::RunResult run_gpumon(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {gpumon_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  machine::RunResult result;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    result.error = "pipe failed";
    return result;
  }
  const pid_t pid = spawn(argv, out[1], err[1]);
  close(out[1]);
  close(err[1]);
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  while (open_count > 0 && poll(fds, 2, -1) >= 0) {
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  result.exit_code = wait_for(pid);
  return result;
}

void allow_preloading() {
  const char* given = std::getenv("ASAN_OPTIONS");
  std::string options = given != nullptr ? given : "";
  if (options.find("verify_asan_link_order=0") != std::string::npos) return;
  if (!options.empty()) options += ":";
  setenv("ASAN_OPTIONS", (options + "verify_asan_link_order=0").c_str(), 1);
}

}  // namespace testing_support
