/* A stand-in for nvidia-smi that answers the CSV queries the monitor makes,
 * from the data of the fake machine it is installed in.
 *
 * Data: nvidia/nvidia-smi.conf of the machine (the folder above the bin/
 * this program was started from), or the file named by
 * ZEV_FAKE_NVIDIA_SMI_CONF:
 *
 *   count 2
 *   gpu 0
 *   name NVIDIA GeForce RTX 5090
 *   pci.device_id 0x2B8510DE
 *   power.draw 27.84
 *   temperature.memory N/A
 *   gpu 1
 *   ...
 *
 * A value is printed as the answer line. Special values:
 *   <nothing>       no output at all
 *   <crash>         the program dies of SIGSEGV before printing
 *   <nonl>text      text without the trailing newline
 *   <exit N>text    text, then exit status N
 * "\n" in a value stands for a line break. A field the data does not list
 * prints "[N/A]", as nvidia-smi does for values a board does not have.
 *
 * Accepted command lines, exactly (anything else is an error, exit 2):
 *   nvidia-smi --query-gpu=count --format=csv,noheader
 *   nvidia-smi --id=<N> --query-gpu=<field> --format=csv,noheader[,nounits]
 * The count prints one line per GPU, each the total. Without "nounits",
 * numbers get their units (" %", " MiB", " W", " MHz"), as nvidia-smi prints
 * them. An index without a "gpu" section prints "No devices were found".
 *
 * Captured answers: with a line
 *   capture <file> <state>
 * (a file next to the data, and a state such as "idle" or "load") the fake
 * answers from the output of a real nvidia-smi as the nvidia_gpu_exporter
 * project's capture script recorded it: the section "# <state> :: query-gpu"
 * holds the answer to `--query-gpu=<every field> --format=csv`, a header of
 * field names (units in brackets) and one line per GPU. Any field of that
 * header can then be asked, for the GPU whose "index" it is; an answer is
 * printed as captured, with its unit ("38 %", "[N/A]"), and without the unit
 * under "nounits" ("38"), as nvidia-smi does. The capture is read as it is
 * and never changed; "gpu" sections are ignored then.
 *
 * Each start appends its command line to nvidia/nvidia-smi.log of the
 * machine, or to the file named by ZEV_FAKE_NVIDIA_SMI_LOG. */
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fake_text.h"

static const char* const kFields[] = {"name",
                                      "driver_version",
                                      "vbios_version",
                                      "pci.device_id",
                                      "pci.sub_device_id",
                                      "pci.bus",
                                      "fan.speed",
                                      "memory.total",
                                      "memory.used",
                                      "utilization.gpu",
                                      "utilization.memory",
                                      "temperature.gpu",
                                      "temperature.memory",
                                      "power.draw",
                                      "clocks.current.sm",
                                      "clocks.current.memory"};

static const char* unit_of(const char* field) {
  if (strcmp(field, "fan.speed") == 0 || strncmp(field, "utilization.", 12) == 0) return " %";
  if (strncmp(field, "memory.", 7) == 0) return " MiB";
  if (strcmp(field, "power.draw") == 0) return " W";
  if (strncmp(field, "clocks.", 7) == 0) return " MHz";
  return "";
}

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
  fake_dirname(self, 2); /* <machine>/bin/nvidia-smi -> <machine> */
  if (snprintf(out, size, "%s/nvidia/%s", self, name) >= (int)size) out[0] = '\0';
}

/* Prints a value with its special forms; returns the exit status. */
static int answer(const char* value, const char* unit, int copies) {
  if (strcmp(value, "<nothing>") == 0) return 0;
  if (strcmp(value, "<crash>") == 0) {
    fflush(stdout);
    raise(SIGSEGV);
    return 139;
  }
  int status = 0;
  int newline = 1;
  if (strncmp(value, "<nonl>", 6) == 0) {
    value += 6;
    newline = 0;
  } else if (strncmp(value, "<exit ", 6) == 0) {
    status = atoi(value + 6);
    const char* end = strchr(value, '>');
    value = end != NULL ? end + 1 : "";
  }
  char text[4096];
  size_t n = 0;
  for (const char* p = value; *p != '\0' && n + 1 < sizeof text; ++p) {
    if (p[0] == '\\' && p[1] == 'n') {
      text[n++] = '\n';
      ++p;
    } else {
      text[n++] = *p;
    }
  }
  text[n] = '\0';
  const int numeric = text[0] >= '0' && text[0] <= '9';
  for (int i = 0; i < copies; ++i) {
    fputs(text, stdout);
    if (numeric) fputs(unit, stdout);
    if (newline) fputc('\n', stdout);
  }
  return status;
}

/* ------------------------------------------------------------ captures */

#define MAX_COLUMNS 512

/* Splits a CSV line of nvidia-smi (", " between values, nothing quoted) in
 * place; returns the number of values. */
static int split_csv(char* line, char** values) {
  int n = 0;
  for (char* p = line; n < MAX_COLUMNS;) {
    values[n++] = p;
    char* comma = strstr(p, ", ");
    if (comma == NULL) break;
    *comma = '\0';
    p = comma + 2;
  }
  return n;
}

/* The next line of *cursor, cut off in place (without "\r\n"); NULL at the end. */
static char* next_raw_line(char** cursor) {
  char* line = *cursor;
  if (line == NULL || *line == '\0') return NULL;
  char* end = strchr(line, '\n');
  if (end != NULL) {
    *end = '\0';
    *cursor = end + 1;
  } else {
    *cursor = line + strlen(line);
  }
  size_t n = strlen(line);
  if (n > 0 && line[n - 1] == '\r') line[n - 1] = '\0';
  return line;
}

/* Answers the query from the capture `source` ("<file> <state>") of the data
 * file at conf_path; returns the exit status. */
static int answer_from_capture(const char* conf_path, const char* source, long index,
                               const char* field, int units) {
  char file[1024] = "", state[64] = "";
  if (sscanf(source, "%1023s %63s", file, state) != 2) {
    fprintf(stderr, "fake nvidia-smi: capture needs a file and a state: %s\n", source);
    return 2;
  }
  char path[4096];
  fake_copy(path, sizeof path, conf_path);
  fake_dirname(path, 1);
  strncat(path, "/", sizeof path - strlen(path) - 1);
  strncat(path, file, sizeof path - strlen(path) - 1);
  char* text = fake_read_file(path);
  if (text == NULL) {
    fprintf(stderr, "fake nvidia-smi: cannot read the capture %s\n", path);
    return 2;
  }
  char section[128];
  snprintf(section, sizeof section, "# %s :: query-gpu", state);

  char* cursor = text;
  char* line = NULL;
  while ((line = next_raw_line(&cursor)) != NULL && strncmp(line, section, strlen(section)) != 0) {
  }
  while (line != NULL && line[0] == '#') line = next_raw_line(&cursor);
  if (line == NULL) {
    fprintf(stderr, "fake nvidia-smi: no \"%s\" section in %s\n", section, path);
    free(text);
    return 2;
  }
  static char* names[MAX_COLUMNS];
  static char* values[MAX_COLUMNS];
  const int columns = split_csv(line, names);
  int wanted = -1, index_column = -1;
  const char* unit = ""; /* of the wanted field: "fan.speed [%]" has "%" */
  for (int c = 0; c < columns; ++c) {
    char* bracket = strstr(names[c], " [");
    if (bracket != NULL) {
      *bracket = '\0';
      char* close = strchr(bracket + 2, ']');
      if (close != NULL) *close = '\0';
    }
    if (strcmp(names[c], field) == 0) {
      wanted = c;
      unit = bracket != NULL ? bracket + 2 : "";
    }
    if (strcmp(names[c], "index") == 0) index_column = c;
  }
  if (wanted < 0) {
    printf("Field \"%s\" is not a valid field to query.\n", field);
    free(text);
    return 2;
  }

  int status = 6, row = 0;
  while ((line = next_raw_line(&cursor)) != NULL && line[0] != '\0') {
    if (split_csv(line, values) != columns) {
      fprintf(stderr, "fake nvidia-smi: a line of %s does not match its header\n", path);
      status = 2;
      break;
    }
    const long gpu = index_column >= 0 ? strtol(values[index_column], NULL, 10) : row;
    ++row;
    if (index >= 0 && gpu != index) continue;
    char* value = values[wanted];
    /* "38 %" prints as "38" under nounits; "[N/A]" stays. */
    const size_t n = strlen(value), u = strlen(unit);
    if (!units && u > 0 && n > u + 1 && value[n - u - 1] == ' ' &&
        strcmp(value + n - u, unit) == 0) {
      value[n - u - 1] = '\0';
    }
    printf("%s\n", value);
    status = 0;
    if (index >= 0) break;
  }
  if (status == 6) printf("No devices were found\n");
  free(text);
  return status;
}

int main(int argc, char** argv) {
  char log_path[4096];
  machine_file("ZEV_FAKE_NVIDIA_SMI_LOG", "nvidia-smi.log", log_path, sizeof log_path);
  char command[4096] = "nvidia-smi";
  for (int i = 1; i < argc; ++i) {
    strncat(command, " ", sizeof command - strlen(command) - 1);
    strncat(command, argv[i], sizeof command - strlen(command) - 1);
  }
  if (log_path[0] != '\0') fake_append_line(log_path, command);

  /* The command line: the count, or one field of one GPU. */
  long index = -1;
  const char* field = NULL;
  int units = 1;
  if (argc == 3 && strcmp(argv[1], "--query-gpu=count") == 0 &&
      strcmp(argv[2], "--format=csv,noheader") == 0) {
    field = "count";
  } else if (argc == 4 && strncmp(argv[1], "--id=", 5) == 0 &&
             strncmp(argv[2], "--query-gpu=", 12) == 0 &&
             (strcmp(argv[3], "--format=csv,noheader") == 0 ||
              strcmp(argv[3], "--format=csv,noheader,nounits") == 0)) {
    char* end = NULL;
    index = strtol(argv[1] + 5, &end, 10);
    if (end == argv[1] + 5 || *end != '\0' || index < 0) {
      fprintf(stderr, "Invalid device ID: %s\n", argv[1] + 5);
      return 2;
    }
    field = argv[2] + 12;
    units = strcmp(argv[3], "--format=csv,noheader") == 0;
  } else {
    fprintf(stderr, "fake nvidia-smi: unexpected command line: %s\n", command);
    return 2;
  }

  char conf_path[4096];
  machine_file("ZEV_FAKE_NVIDIA_SMI_CONF", "nvidia-smi.conf", conf_path, sizeof conf_path);
  char* text = fake_read_file(conf_path);
  if (text == NULL) {
    printf(
        "NVIDIA-SMI has failed because it couldn't communicate with the NVIDIA driver. "
        "Make sure that the latest NVIDIA driver is installed and running.\n\n");
    return 9;
  }

  const char* count_value = NULL;
  const char* value = NULL;
  int found_gpu = 0;
  long section = -1;
  char* cursor = text;
  for (char* line; (line = fake_next_line(&cursor)) != NULL;) {
    if (*line == '\0' || *line == '#') continue;
    char* rest = NULL;
    char* key = fake_split_key(line, &rest);
    if (section < 0 && strcmp(key, "capture") == 0) {
      const int status = answer_from_capture(conf_path, rest, index, field, units);
      free(text);
      return status;
    }
    if (strcmp(key, "gpu") == 0) {
      section = strtol(rest, NULL, 10);
      if (section == index) found_gpu = 1;
    } else if (section < 0 && strcmp(key, "count") == 0) {
      count_value = rest;
    } else if (section >= 0 && section == index && strcmp(key, field) == 0) {
      value = rest;
    }
  }

  int known = 0;
  for (size_t i = 0; i < sizeof kFields / sizeof kFields[0]; ++i) {
    if (strcmp(field, kFields[i]) == 0) known = 1;
  }
  if (index >= 0 && !known) {
    printf("Field \"%s\" is not a valid field to query.\n", field);
    free(text);
    return 2;
  }

  int status = 0;
  if (index < 0) {
    const char* v = count_value != NULL ? count_value : "0";
    const int copies = atoi(v) > 0 && v[0] >= '0' && v[0] <= '9' ? atoi(v) : 1;
    status = answer(v, "", copies);
  } else if (!found_gpu) {
    printf("No devices were found\n");
    status = 6;
  } else {
    status = answer(value != NULL ? value : "[N/A]", units ? unit_of(field) : "", 1);
  }
  free(text);
  return status;
}
