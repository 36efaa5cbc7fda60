#include "live_view.h"

#include <curses.h>
#include <termcap.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "exit_codes.h"
#include "gpu_selection.h"
#include "json_report.h"
#include "live_layout.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kShortestPeriod = 0.1, kLongestPeriod = 3600.0;

short color_pair(Tone tone) {
  switch (tone) {
    case Tone::kGood: return 1;
    case Tone::kWarn: return 2;
    case Tone::kHot: return 3;
    case Tone::kLabel: return 4;
    case Tone::kTitle: return 5;
    case Tone::kSelected: return 5;
    case Tone::kNormal: break;
  }
  return 0;
}

void start_colors() {
  if (!has_colors()) return;
  start_color();
  use_default_colors();
  init_pair(1, COLOR_GREEN, -1);
  init_pair(2, COLOR_YELLOW, -1);
  init_pair(3, COLOR_RED, -1);
  init_pair(4, COLOR_CYAN, -1);
  init_pair(5, COLOR_WHITE, -1);
}

void paint(const std::vector<Row>& rows) {
  erase();
  for (size_t y = 0; y < rows.size(); ++y) {
    for (const Span& span : rows[y]) {
      attr_t attributes = has_colors() ? COLOR_PAIR(color_pair(span.tone)) : A_NORMAL;
      if (span.tone == Tone::kTitle || span.tone == Tone::kHot) attributes |= A_BOLD;
      if (span.tone == Tone::kSelected) attributes |= A_REVERSE | A_BOLD;
      attron(attributes);
      mvaddnstr(static_cast<int>(y), span.column, span.text.c_str(),
                static_cast<int>(span.text.size()));
      attroff(attributes);
    }
  }
  refresh();
}

// The NVML list's position of a GPU record, for its process samples; -1
// when the GPU is no NVML GPU.
long nvml_position(zev::GpuMonitor* monitor, const zev::GPU* gpu) {
  for (unsigned long i = 0; i < monitor->nvml_get_num_gpus(); ++i)
    if (monitor->nvml_get_gpu(i) == gpu) return static_cast<long>(i);
  return -1;
}

// One refresh: the sensors, the processes of the NVML GPUs, the histories.
void refresh_readings(zev::GpuMonitor* monitor, const std::vector<GpuView>& gpus,
                      LiveState* state) {
  monitor->update_dynamic_data();
  state->histories.resize(gpus.size());
  for (size_t i = 0; i < gpus.size(); ++i) {
    const long nvml = nvml_position(monitor, gpus[i].gpu);
    if (nvml >= 0) monitor->nvml_update_process_utilization(static_cast<unsigned long>(nvml));
    state->histories[i].add(*gpus[i].gpu);
  }
  ++state->refreshes;
}

// A key: true when it ends the view.
bool handle_key(int key, size_t gpu_count, LiveState* state) {
  switch (key) {
    case 'q':
    case 'Q': return true;
    case '+':
    case '=': state->period_seconds = std::min(state->period_seconds * 2.0, kLongestPeriod); break;
    case '-':
    case '_': state->period_seconds = std::max(state->period_seconds / 2.0, kShortestPeriod); break;
    case KEY_DOWN:
    case KEY_RIGHT:
    case '\t':
      if (gpu_count > 0) state->selected = (state->selected + 1) % gpu_count;
      break;
    case KEY_UP:
    case KEY_LEFT:
      if (gpu_count > 0) state->selected = (state->selected + gpu_count - 1) % gpu_count;
      break;
    default:
      if (key >= '0' && key <= '9' && static_cast<size_t>(key - '0') < gpu_count)
        state->selected = static_cast<size_t>(key - '0');
      break;
  }
  return false;
}

}  // namespace

bool live_view_possible(std::string* why) {
  why->clear();
  if (!isatty(STDOUT_FILENO) || !isatty(STDIN_FILENO)) return false;
  const char* term = std::getenv("TERM");
  if (term == nullptr || *term == '\0') {
    *why = "TERM is not set";
    return false;
  }
  // Asked first, as newterm leaks what it made for a type it does not know.
  if (tgetent(nullptr, term) != 1) {
    *why = std::string("the terminal type '") + term + "' is not known";
    return false;
  }
  return true;
}

int run_live_view(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
                  const std::vector<std::string>& addresses, const Options& options,
                  volatile sig_atomic_t* stop) {
  SCREEN* screen = newterm(nullptr, stdout, stdin);
  if (screen == nullptr) return kLiveViewUnavailable;
  cbreak();  // keys at once; Ctrl-C still interrupts
  noecho();
  keypad(stdscr, TRUE);
  curs_set(0);
  start_colors();

  LiveState state;
  state.period_seconds = options.watch_seconds;
  const char* cpu = monitor->get_cpu_name();
  state.cpu = cpu != nullptr ? cpu : "";
  std::vector<GpuView> gpus = gpu_views(monitor, slots, addresses, utc_timestamp());
  Clock::time_point next = Clock::now();
  bool done = false;
  while (!done && !*stop) {
    if (Clock::now() >= next) {
      if (options.count != 0 && state.refreshes >= options.count) break;
      refresh_readings(monitor, gpus, &state);
      next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(state.period_seconds));
      paint(layout_live_view(gpus, state, COLS, LINES));
    }
    // Wait for a key until the next refresh, waking at least every 100 ms
    // so that a signal is seen.
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()).count();
    timeout(static_cast<int>(std::clamp<long long>(left, 0, 100)));
    const int key = getch();
    if (key == ERR) continue;
    const double period = state.period_seconds;
    done = handle_key(key, gpus.size(), &state);
    // A new period starts from now; a resize or any key redraws.
    if (state.period_seconds != period)
      next = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(state.period_seconds));
    if (!done) paint(layout_live_view(gpus, state, COLS, LINES));
  }
  endwin();
  delscreen(screen);
  return kExitOk;
}
