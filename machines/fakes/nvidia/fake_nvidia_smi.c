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
 * Each start appends its command line to nvidia/nvidia-smi.log of the
 * machine, or to the file named by ZEV_FAKE_NVIDIA_SMI_LOG. */
#define _GNU_SOURCE
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "fake_text.h"

static const char* const kFields[] = {
    "name",              "driver_version",     "vbios_version",   "pci.device_id",
    "pci.sub_device_id", "pci.bus",            "fan.speed",       "memory.total",
    "memory.used",       "utilization.gpu",    "utilization.memory", "temperature.gpu",
    "temperature.memory", "power.draw",        "clocks.current.sm", "clocks.current.memory"};

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
  snprintf(out, size, "%s/nvidia/%s", self, name);
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
    int known = 0;
    for (size_t i = 0; i < sizeof kFields / sizeof kFields[0]; ++i) {
      if (strcmp(field, kFields[i]) == 0) known = 1;
    }
    if (!known) {
      printf("Field \"%s\" is not a valid field to query.\n", field);
      return 2;
    }
  } else {
    fprintf(stderr, "fake nvidia-smi: unexpected command line: %s\n", command);
    return 2;
  }

  char conf_path[4096];
  machine_file("ZEV_FAKE_NVIDIA_SMI_CONF", "nvidia-smi.conf", conf_path, sizeof conf_path);
  char* text = fake_read_file(conf_path);
  if (text == NULL) {
    printf("NVIDIA-SMI has failed because it couldn't communicate with the NVIDIA driver. "
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
    if (strcmp(key, "gpu") == 0) {
      section = strtol(rest, NULL, 10);
      if (section == index) found_gpu = 1;
    } else if (section < 0 && strcmp(key, "count") == 0) {
      count_value = rest;
    } else if (section >= 0 && section == index && strcmp(key, field) == 0) {
      value = rest;
    }
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
