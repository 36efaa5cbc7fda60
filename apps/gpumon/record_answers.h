// The answers of the GPU tools the monitor runs (nvidia-smi, vcgencmd), kept
// while a monitor runs and replayed by the machine folder's bin/ scripts.
//
// While recording, a stand-in of each tool that is installed comes first on
// PATH: it runs the real tool, keeps the arguments, output and exit code in
// <folder>/bin/answers/<tool>/NNNN.{args,out,rc} and passes the output on.
// Replayed, bin/<tool> prints the first answer kept for the same arguments.
#pragma once

#include <string>
#include <vector>

namespace record {

// A shell word holding `text` as it is ('...', with ' written '\'').
std::string shell_word(const std::string& text);

// The tools whose answers are kept.
const std::vector<std::string>& recorded_tools();

// Where `tool` is installed on PATH ("" when it is not).
std::string find_on_path(const std::string& tool);

// Writes, into `shims` (a folder), a stand-in for each installed tool that
// keeps its answers under `folder`; returns the tools it wrote one for.
std::vector<std::string> write_recording_shims(const std::string& shims, const std::string& folder);

// How many answers of `tool` were kept in `folder`.
size_t count_answers(const std::string& folder, const std::string& tool);

// Writes <folder>/bin/<tool>, the script that replays the kept answers.
bool write_replay_script(const std::string& folder, const std::string& tool);

}  // namespace record
