// The live view of gpumon --watch in a real terminal: tmux runs it in a
// detached pane of a given size, keys are sent with send-keys and the
// screen read back with capture-pane, on recorded machines.
#include <gtest/gtest.h>
#include <regex.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "nvidia_machines.h"
#include "test_support.h"

namespace {

using namespace testing_support;

// Whether a POSIX extended regular expression matches somewhere in the
// text; ^ and $ also match at line ends.
bool matches(const std::string& text, const std::string& pattern) {
  regex_t compiled;
  if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NEWLINE | REG_NOSUB) != 0) {
    ADD_FAILURE() << "bad pattern " << pattern;
    return false;
  }
  const bool found = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return found;
}

std::string quoted(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// A tmux server of its own with one pane running a shell command, which
// prints EXIT=<code> when gpumon ends and then waits.
class Pane {
 public:
  Pane(const std::string& command, int width, int height)
      : tmux_("tmux -f /dev/null -L zev-live-" + std::to_string(getpid()) + "-" +
              std::to_string(++panes_) + " ") {
    started_ = tmux("new-session -d -s live -x " + std::to_string(width) + " -y " +
                    std::to_string(height) + " " + quoted(command + "; echo EXIT=$?; sleep 60"));
  }
  ~Pane() { tmux("kill-server"); }

  std::string tmux(const std::string& args) const {
    std::string out;
    FILE* pipe = popen((tmux_ + args + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return out;
    char buffer[4096];
    for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
    return out;
  }
  std::string screen() const { return tmux("capture-pane -p -t live"); }
  long history_lines() const {
    return std::stol("0" + tmux("display -p -t live '#{history_size}'"));
  }
  void keys(const std::string& keys) const { tmux("send-keys -t live " + keys); }
  void resize(int width, int height) const {
    tmux("resize-window -t live -x " + std::to_string(width) + " -y " + std::to_string(height));
  }
  // Waits up to 10 s for the screen to match; false, with a failure, if it never does.
  bool wait_for(const std::string& pattern) const {
    std::string seen;
    for (int i = 0; i < 200; ++i) {
      seen = screen();
      if (matches(seen, pattern)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ADD_FAILURE() << "no /" << pattern << "/ on the screen:\n" << seen << started_;
    return false;
  }
  // The processes the pane's shell started (the outer gpumon).
  std::vector<pid_t> children() const {
    const std::string shell = tmux("display -p -t live '#{pane_pid}'");
    std::ifstream in("/proc/" + std::to_string(std::stol("0" + shell)) + "/task/" +
                     std::to_string(std::stol("0" + shell)) + "/children");
    std::vector<pid_t> pids;
    for (pid_t pid; in >> pid;) pids.push_back(pid);
    return pids;
  }

 private:
  static inline int panes_ = 0;
  std::string tmux_;
  std::string started_;  // what tmux said when starting the pane
};

std::string gpumon_command(const std::string& machine, const std::string& args) {
  return quoted(gpumon_path()) + " --machine " + quoted(machine) + " " + args;
}

// The two-GPU NVML machine, its RTX 5090 answering process samples.
nvidia_test::Machine nvml_with_processes() {
  nvidia_test::Machine machine("nvidia-rtx5090-rtx4080s-nvml");
  std::string conf = read_file(machine.dir() + "/nvidia/nvml.conf");
  const size_t at = conf.find("processes 4242:");
  if (at != std::string::npos) conf.insert(at, "process_sizing 0\n");
  machine.file("nvidia/nvml.conf", conf);
  return machine;
}

// Both GPUs of a two-GPU machine in 80x24: bars, history, processes, each
// refresh drawn in place on the alternate screen; q or Ctrl-C ends it with
// the terminal as it was and nothing in the scrollback.
TEST(LiveView, TwoGpuMachinesFitEightyByTwentyFour) {
  testing_support::allow_preloading();
  const nvidia_test::Machine nvml = nvml_with_processes();
  struct Case {
    std::string machine, quit;
    std::vector<std::string> shown;
  };
  const Case cases[] = {
      {nvml.dir(),
       "q",
       {"^>0  NVIDIA GeForce RTX 5090 Founders Edition +0000:01:00.0$",
        "^ 1  NVIDIA GeForce RTX 4080 SUPER", "TEMP \\[[|]+ +\\] +[0-9]+/92 C",
        "POWER\\[[|]+ +\\] +[0-9]+/575 W", "^  usage  ", "^  temp   ",
        "4242 blender +SM  35%  MEM  12%", "5151 Xorg", "HELD "}},
      {machine_dir("amd-multi-card-gaps"),
       "C-c",
       {"^>0  AMD Radeon RX 6600 XT +0000:23:00.0$", "^ 1  AMD Radeon RX 6400 +0000:45:00.0$",
        "GPU  \\[[|]+ +\\] +41 %", "POWER\\[[|]+ +\\] +[0-9]+/160 W", "FAN 1850rpm"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.machine);
    const Pane pane(gpumon_command(c.machine, "--watch 0.2"), 80, 24);
    ASSERT_TRUE(pane.wait_for("^gpumon  refresh 3, every 0.2 s"));
    const std::string screen = pane.screen();
    for (const std::string& shown : c.shown)
      EXPECT_TRUE(matches(screen, shown)) << shown << "\n" << screen;
    EXPECT_TRUE(matches(screen, "^q quit"));
    pane.keys(c.quit);
    ASSERT_TRUE(pane.wait_for("^EXIT=0$"));
    EXPECT_EQ(pane.screen().find("refresh"), std::string::npos) << pane.screen();
    EXPECT_EQ(pane.history_lines(), 0);
  }
}

// Keys change the period and the GPU selected, random keys change nothing,
// a terminal too small says so and a storm of resizes redraws; SIGTERM ends
// it with the terminal restored.
TEST(LiveView, KeysResizesAndSigterm) {
  const Pane pane(gpumon_command(machine_dir("amd-multi-card-gaps"), "-l 0.5"), 80, 24);
  ASSERT_TRUE(pane.wait_for("every 0.5 s"));
  pane.keys("+");
  pane.wait_for("every 1 s");
  pane.keys("- -");
  pane.wait_for("every 0.25 s");
  pane.keys("Down");
  pane.wait_for("^>1  AMD Radeon RX 6400");
  pane.keys("x % Escape F1 PageUp ~ 9 Tab");
  pane.wait_for("^>2  AMD Radeon RX 7600");
  pane.resize(20, 5);
  pane.wait_for("^gpumon: the terminal\nis 20x5; the live\nview needs 60x10 \\(q\nquits\\)$");
  for (int i = 0; i < 20; ++i) pane.resize(30 + 5 * (i % 12), 6 + i % 25);
  pane.resize(80, 24);
  pane.wait_for("^ 1  AMD Radeon RX 6400 +0000:45:00.0$");
  for (pid_t pid : pane.children()) kill(pid, SIGTERM);
  ASSERT_TRUE(pane.wait_for("^EXIT=0$"));
  EXPECT_EQ(pane.screen().find("refresh"), std::string::npos) << pane.screen();
  EXPECT_EQ(pane.history_lines(), 0);
}

// Without a terminal type the plain redrawn table comes instead, with the
// reason on stderr; --no-tui asks for it.
TEST(LiveView, FallsBackToThePlainTable) {
  const std::string machine = machine_dir("amd-multi-card-gaps");
  const std::string err = "/tmp/zev-live-view-" + std::to_string(getpid()) + ".err";
  // stderr is shown once gpumon ended (the table's redraws clear the screen).
  auto shown = [&](const std::string& command) {
    return command + " 2>" + err + "; code=$?; cat " + err + "; (exit $code)";
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"env -u TERM " + gpumon_command(machine, "--watch 0.1 --count 2"),
       "^gpumon: TERM is not set: the plain table instead$"},
      {"TERM=bogus-terminal " + gpumon_command(machine, "--watch 0.1 --count 2"),
       "^gpumon: the terminal type 'bogus-terminal' is not known: the plain table instead$"},
      {gpumon_command(machine, "--watch 0.1 --count 2 --no-tui"), "^GPU  Name  "},
  };
  for (const auto& [command, message] : cases) {
    const Pane pane(shown(command), 120, 24);
    ASSERT_TRUE(pane.wait_for("^EXIT=0$"));
    EXPECT_TRUE(pane.wait_for(message));
    EXPECT_TRUE(pane.wait_for("^gpumon: refresh 2, every 0.1 s \\(Ctrl-C to stop\\)$"));
    EXPECT_TRUE(pane.wait_for("^1    AMD Radeon RX 6400 +0000:45:00.0 "));
  }
  unlink(err.c_str());
}

}  // namespace
