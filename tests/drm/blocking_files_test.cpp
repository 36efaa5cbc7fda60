// A FIFO where a sysfs file should be, with or without a writer that never
// writes, must not hold the monitor: initialize, a refresh, the update thread
// and terminate all return, and the FIFO reads as an empty file would. Each
// run happens in a child process that reports its steps through a pipe, so
// that a run that hangs is killed after a bounded wait and named.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "drm_host.h"

namespace {

using testing_support::MachineScope;
using testing_support::PluginHandle;
using testing_support::TraceCapture;

const std::string C = "/sys/class/drm/card1/device/";
const std::string H = C + "hwmon/hwmon3/";

enum class Stand { kEmptyFile, kFifo, kFifoWithIdleWriter };

void say(int out, const std::string& text) {
  const std::string line = text + "\n";
  if (write(out, line.data(), line.size()) < 0) _exit(3);
}

// The child: the machine with `path` replaced, one monitor through its whole
// life; the steps reached, then the DRM block of the trace, go to `out`.
[[noreturn]] void run_child(int out, const std::string& path, Stand stand) {
  TraceCapture traces;
  MachineScope scope("amd-rdna3-rx7900xtx");
  PluginHandle plugin;
  if (!scope.ok() || !plugin.ok()) _exit(2);
  const std::string staged = machine::staged_root() + path;
  std::filesystem::remove(staged);
  if (stand == Stand::kEmptyFile) {
    drm_test::edit({{path, ""}});
  } else if (mkfifo(staged.c_str(), 0644) != 0) {
    _exit(2);
  }
  // A writer that never writes: reads find no data rather than an end.
  if (stand == Stand::kFifoWithIdleWriter && open(staged.c_str(), O_RDWR) < 0) _exit(2);
  zev::GpuMonitor* monitor = plugin.create();
  say(out, "step initialize");
  monitor->initialize();
  say(out, "step update_dynamic_data");
  monitor->update_dynamic_data();
  say(out, "step update thread");
  monitor->start_update_thread(5);
  usleep(30000);
  monitor->stop_update_thread();
  say(out, "step terminate");
  monitor->terminate();
  plugin.destroy_raw(monitor);
  say(out, "step done");
  for (const std::string& line : drm_test::drm_block(traces.texts())) say(out, line);
  _exit(0);
}

// Everything the child said; *finished is false when it had to be killed
// after 10 s, or did not exit with 0.
std::string run(const std::string& path, Stand stand, bool* finished) {
  int fds[2];
  if (pipe(fds) != 0) return "no pipe";
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    run_child(fds[1], path, stand);
  }
  close(fds[1]);
  std::string said;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  *finished = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        limit - std::chrono::steady_clock::now());
    pollfd p = {fds[0], POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    char chunk[4096];
    const ssize_t got = read(fds[0], chunk, sizeof chunk);
    if (got <= 0) {
      *finished = true;
      break;
    }
    said.append(chunk, static_cast<size_t>(got));
  }
  close(fds[0]);
  if (!*finished) kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) *finished = false;
  return said;
}

TEST(BlockingFiles, ReadAsEmptyWithoutHoldingTheMonitor) {
  // The hwmon name (read whole by the host library), the vendor probe, and
  // values read by the scan and by every refresh.
  for (const std::string& path :
       {H + "name", C + "vendor", H + "temp1_input", C + "gpu_busy_percent", H + "temp3_label",
        C + "mem_busy_percent", C + "uevent"}) {
    SCOPED_TRACE(path);
    bool finished = false;
    const std::string empty = run(path, Stand::kEmptyFile, &finished);
    ASSERT_TRUE(finished) << empty;
    for (Stand stand : {Stand::kFifo, Stand::kFifoWithIdleWriter}) {
      SCOPED_TRACE(stand == Stand::kFifo ? "FIFO" : "FIFO with a writer");
      const std::string fifo = run(path, stand, &finished);
      EXPECT_TRUE(finished) << "the monitor stopped after:\n" << fifo;
      EXPECT_EQ(fifo, empty);
    }
  }
}

}  // namespace
