// gpumon --record DIR: writes the machine gpumon runs on as a machine folder
// that gpumon --machine DIR replays: the files the monitor reads (see
// record_files.h), the answers of the GPU tools it runs (record_answers.h)
// and a README saying when and on what it was recorded. Nothing else of the
// machine is copied, and nothing on it is changed.
#pragma once

#include <string>

// Records into `folder`, which must be new or empty; the monitor runs from
// `plugin`, in runs of `program` (this gpumon). Returns gpumon's exit code,
// with a message on stderr on failure.
int record_machine(const std::string& folder, const std::string& plugin,
                   const std::string& program);
