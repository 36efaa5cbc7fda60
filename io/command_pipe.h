// Running a command line through a shell and taking the first line of its
// output, as the command-based readers do.
#pragma once

enum class PipeAnswer { kNoProcess, kNoLine, kLine };

// Runs `command` with popen, clears `line` (size bytes) and reads the first
// output line into it with fgets (at most size - 1 characters). The pipe is
// closed on every path.
PipeAnswer first_line_of(const char* command, char* line, int size);
