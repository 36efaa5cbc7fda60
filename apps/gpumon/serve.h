// gpumon --serve ADDR:PORT: the monitor's GPUs as Prometheus metrics over
// HTTP, refreshed on each scrape.
#pragma once

#include <string>
#include <vector>

#include "listen_socket.h"
#include "options.h"
#include "zev/gpu_monitor.h"

// Initialises the monitor and serves GET /metrics on options.serve (as
// parse_listen_address reads it) until SIGINT or SIGTERM, for the GPUs
// options.gpus picks (all when none); trace lines go to stderr with
// options.trace. Prints "gpumon: serving http://HOST:PORT/metrics" on stderr
// once it listens. Returns the exit code: kExitOk after a signal,
// kExitNotFound for a --gpu that matches no GPU, kExitServe when the address
// cannot be listened on. The caller terminates the monitor.
int serve_metrics(zev::GpuMonitor* monitor, const Options& options);
