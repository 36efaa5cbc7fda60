// The live view: gpumon --watch on a terminal, full screen on the terminal's
// alternate screen through ncurses, refreshed every period until q, Ctrl-C
// or SIGTERM, which all leave the terminal as it was.
#pragma once

#include <signal.h>

#include <string>
#include <vector>

#include "options.h"
#include "zev/gpu_monitor.h"

// Whether the live view can run here: standard input and output are a
// terminal, and TERM names its type. When not, *why says why (empty for
// output that is no terminal, where the plain table is what is wanted).
bool live_view_possible(std::string* why);

constexpr int kLiveViewUnavailable = -1;

// Runs the view of the given GPUs until a key, the count of --count or
// *stop (set by a signal handler) ends it; returns the exit code, or
// kLiveViewUnavailable, with nothing drawn, when the terminal's type is
// not known.
int run_live_view(zev::GpuMonitor* monitor, const std::vector<unsigned long>& slots,
                  const std::vector<std::string>& addresses, const Options& options,
                  volatile sig_atomic_t* stop);
