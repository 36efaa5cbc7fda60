/* A stand-in for nvidia-settings' query mode, answering from the data of the
 * fake machine it is installed in.
 *
 * Data: nvidia/nvidia-settings.conf of the machine (the folder above the
 * bin/ this program was started from), or the file named by
 * ZEV_FAKE_NVIDIA_SETTINGS_CONF. Each query is a line with its arguments as
 * given on the command line, followed by its output lines, each written
 * after "| ":
 *
 *   -q NvidiaDriverVersion -t
 *   | 550.54.14
 *   -q [gpu:0]/GPUUtilization -t
 *   | graphics=12, memory=3, video=0, PCIe=1
 *
 * A query the data does not list gets the error nvidia-settings prints for
 * an unknown attribute (on stderr, exit 1). Each start appends its command
 * line to nvidia/nvidia-settings.log of the machine, or to the file named by
 * ZEV_FAKE_NVIDIA_SETTINGS_LOG. */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fake_text.h"

static void machine_file(const char* env, const char* name, char* out, size_t size) {
  const char* given = getenv(env);
  if (given != NULL && *given != '\0') {
    fake_copy(out, size, given);
    return;
  }
  char self[4096];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) {
    out[0] = '\0';
    return;
  }
  self[n] = '\0';
  fake_dirname(self, 2);
  snprintf(out, size, "%s/nvidia/%s", self, name);
}

int main(int argc, char** argv) {
  char query[4096] = "";
  for (int i = 1; i < argc; ++i) {
    if (i > 1) strncat(query, " ", sizeof query - strlen(query) - 1);
    strncat(query, argv[i], sizeof query - strlen(query) - 1);
  }
  char log_path[4096];
  machine_file("ZEV_FAKE_NVIDIA_SETTINGS_LOG", "nvidia-settings.log", log_path, sizeof log_path);
  if (log_path[0] != '\0') {
    char line[4200];
    snprintf(line, sizeof line, "nvidia-settings %s", query);
    fake_append_line(log_path, line);
  }

  char conf_path[4096];
  machine_file("ZEV_FAKE_NVIDIA_SETTINGS_CONF", "nvidia-settings.conf", conf_path,
               sizeof conf_path);
  char* text = fake_read_file(conf_path);
  if (text == NULL) {
    fprintf(stderr,
            "ERROR: The control display is undefined; please run `nvidia-settings "
            "--help` for usage information.\n");
    return 1;
  }

  /* Raw lines: the answer lines keep their own blanks after "| ". */
  int in_answer = 0;
  int answered = 0;
  char* cursor = text;
  while (*cursor != '\0') {
    char* line = cursor;
    char* end = strchr(cursor, '\n');
    if (end != NULL) {
      *end = '\0';
      cursor = end + 1;
    } else {
      cursor += strlen(cursor);
    }
    if (strncmp(line, "| ", 2) == 0 || strcmp(line, "|") == 0) {
      if (in_answer) printf("%s\n", line[1] == '\0' ? "" : line + 2);
      continue;
    }
    if (line[0] == '#' || line[0] == '\0') continue;
    in_answer = strcmp(line, query) == 0;
    answered |= in_answer;
  }
  free(text);
  if (!answered) {
    fprintf(stderr, "ERROR: Error querying attribute in \"%s\".\n", query);
    return 1;
  }
  return 0;
}
