#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "gpu_selection.h"
#include "nvsmi_names.h"
#include "serve.h"

namespace {

enum OptionId {
  kJson = 256,
  kWatch,
  kCount,
  kQuery,
  kFormat,
  kGpu,
  kTrace,
  kMachine,
  kPlugin,
  kLookup,
  kOverlay,
  kSize,
  kGl,
  kText,
  kGlInfo,
  kServe,
  kHelpQuery,
  kVersion,
  kWide,
  kNoTui,
  kRecord,
};

const option kLongOptions[] = {
    {"json", no_argument, nullptr, kJson},
    {"watch", required_argument, nullptr, kWatch},
    {"count", required_argument, nullptr, kCount},
    {"query", required_argument, nullptr, kQuery},
    {"format", required_argument, nullptr, kFormat},
    {"gpu", required_argument, nullptr, kGpu},
    {"trace", no_argument, nullptr, kTrace},
    {"machine", required_argument, nullptr, kMachine},
    {"plugin", required_argument, nullptr, kPlugin},
    {"lookup", required_argument, nullptr, kLookup},
    {"overlay", required_argument, nullptr, kOverlay},
    {"size", required_argument, nullptr, kSize},
    {"gl", required_argument, nullptr, kGl},
    {"text", required_argument, nullptr, kText},
    {"gl-info", no_argument, nullptr, kGlInfo},
    {"serve", required_argument, nullptr, kServe},
    {"help", no_argument, nullptr, 'h'},
    {"help-query", no_argument, nullptr, kHelpQuery},
    {"version", no_argument, nullptr, kVersion},
    {"record", required_argument, nullptr, kRecord},
    {"wide", no_argument, nullptr, kWide},
    {"no-tui", no_argument, nullptr, kNoTui},
    // nvidia-smi's spellings, after gpumon's own (messages name the first).
    {"query-gpu", required_argument, nullptr, kQuery},
    {"loop", required_argument, nullptr, kWatch},
    {"id", required_argument, nullptr, kGpu},
    {nullptr, 0, nullptr, 0},
};

// The options that take no value, and what each of them sets.
const std::pair<int, bool Options::*> kFlags[] = {
    {kJson, &Options::json},       {'h', &Options::help},      {kHelpQuery, &Options::help_query},
    {kVersion, &Options::version}, {kTrace, &Options::trace},  {kGlInfo, &Options::gl_info},
    {kWide, &Options::wide},       {kNoTui, &Options::no_tui},
};

// The items of a comma-separated list, blanks around them dropped.
std::vector<std::string> split_list(const std::string& text) {
  std::vector<std::string> items;
  size_t start = 0;
  for (;;) {
    const size_t comma = text.find(',', start);
    std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
    item.erase(0, item.find_first_not_of(' '));
    item.erase(item.find_last_not_of(' ') + 1);
    items.push_back(item);
    if (comma == std::string::npos) return items;
    start = comma + 1;
  }
}

bool parse_seconds(const char* text, double* value) {
  char* end = nullptr;
  *value = std::strtod(text, &end);
  return *text != '\0' && *end == '\0' && std::isfinite(*value) && *value > 0.0;
}

bool parse_count(const char* text, long* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtol(text, &end, 10);
  return *text != '\0' && *end == '\0' && errno == 0 && *value >= 1;
}

// One option and its value (null for a flag) into *o; false with *error set
// when the value is not one the option takes.
bool apply(int id, const char* v, Options* o, bool* format_given, std::string* error) {
  const std::string value = v != nullptr ? v : "";
  auto fail = [&](const std::string& message) {
    *error = message + ", not '" + value + "'";
    return false;
  };
  for (const auto& [flag, member] : kFlags) {
    if (id == flag) {
      o->*member = true;
      return true;
    }
  }
  switch (id) {
    case kMachine:
      // An empty folder name must not fall back to the real machine.
      if (value.empty()) return fail("--machine needs a machine folder");
      o->machine = value;
      return true;
    case kPlugin: o->plugin = value; return true;
    case kLookup: o->lookup = value; return true;
    case kRecord:
      if (value.empty()) return fail("--record needs a folder to write");
      o->record = value;
      return true;
    case kWatch:
      return parse_seconds(v, &o->watch_seconds) ||
             fail("--watch needs a positive, finite number of seconds");
    case kCount: return parse_count(v, &o->count) || fail("--count needs a positive whole number");
    case kQuery:
      for (const std::string& name : split_list(value)) {
        QueryColumn column;
        if (!find_query_column(name, &column)) {
          *error = "--query has no field '" + name + "' (gpumon --help-query lists them)";
          return false;
        }
        o->query.push_back(name);
      }
      return true;
    case kFormat: {
      bool csv = false;
      o->csv_header = o->csv_units = true;
      for (const std::string& item : split_list(value)) {
        if (item == "csv") {
          csv = true;
        } else if (item == "noheader") {
          o->csv_header = false;
        } else if (item == "nounits") {
          o->csv_units = false;
        } else {
          csv = false;
          break;
        }
      }
      *format_given = true;
      return csv || fail("--format is csv[,noheader][,nounits]");
    }
    case kGpu:
      for (const std::string& selector : split_list(value)) {
        if (!valid_gpu_selector(selector))
          return fail("--gpu takes GPU numbers or PCI addresses (0, 0000:03:00.0, 03:00.0)");
        o->gpus.push_back(selector);
      }
      return true;
    case kOverlay:
      if (value.empty()) return fail("--overlay needs a file name");
      o->overlay = value;
      return true;
    case kSize: {
      int w = 0, h = 0;
      char tail = 0;
      if (std::sscanf(v, "%dx%d%c", &w, &h, &tail) != 2 || w <= 0 || h <= 0)
        return fail("--size needs WIDTHxHEIGHT in pixels");
      o->overlay_width = w;
      o->overlay_height = h;
      return true;
    }
    case kGl:
      if (value != "3.3" && value != "2.1") return fail("--gl is 3.3 or 2.1");
      o->gl_major = value[0] - '0';
      o->gl_minor = value[2] - '0';
      return true;
    case kText:
      if (value != "simplified" && value != "v2" && value != "v3" && value != "v4" && value != "v5")
        return fail("--text is simplified, v2, v3, v4 or v5");
      o->text = value;
      return true;
    case kServe: {
      std::string host;
      int port = 0;
      if (!parse_listen_address(value, &host, &port))
        return fail("--serve needs HOST:PORT (e.g. 127.0.0.1:9400, [::1]:9400)");
      o->serve = value;
      return true;
    }
  }
  *error = "unhandled option";
  return false;
}

// The name an option is known by in messages: its first long name.
std::string option_name(int id) {
  if (id == 'h') return "--help";
  for (const option& o : kLongOptions)
    if (o.name != nullptr && o.val == id) return std::string("--") + o.name;
  return "?";
}

// What a command line asks for, and the options that apply to it.
struct Mode {
  const char* name;
  std::vector<int> options;
};

Mode mode_of(const Options& o) {
  if (!o.lookup.empty()) return {"--lookup", {kLookup, kJson}};
  if (!o.record.empty()) return {"--record", {kRecord, kMachine, kPlugin}};
  if (o.gl_info) return {"--gl-info", {kGlInfo, kJson, kGl, kTrace, kMachine, kPlugin}};
  if (!o.serve.empty()) return {"--serve", {kServe, kGpu, kTrace, kMachine, kPlugin}};
  if (!o.overlay.empty())
    return {"--overlay", {kOverlay, kSize, kGl, kText, kWatch, kCount, kTrace, kMachine, kPlugin}};
  return {"the GPU report (table, --json or --query)",
          {kJson, kQuery, kFormat, kGpu, kWatch, kCount, kWide, kNoTui, kTrace, kMachine, kPlugin}};
}

// Refuses, with a one-line reason, options the chosen mode would ignore.
bool check_mode(const Options& o, const std::vector<int>& given, std::string* error) {
  if (o.help || o.help_query || o.version) return true;
  const Mode mode = mode_of(o);
  for (int id : given) {
    if (std::find(mode.options.begin(), mode.options.end(), id) != mode.options.end()) continue;
    *error = option_name(id) + " does not apply to " + mode.name +
             (id == kGpu && !o.overlay.empty() ? ", which draws every GPU" : "");
    return false;
  }
  auto refuse = [&](const char* message) {
    *error = message;
    return false;
  };
  if (o.count != 0 && o.watch_seconds == 0.0) return refuse("--count only goes with --watch");
  if (std::find(given.begin(), given.end(), kFormat) != given.end() && o.query.empty())
    return refuse("--format only goes with --query");
  if (o.json && !o.query.empty()) return refuse("--json and --query are two outputs: give one");
  if (o.wide && (o.json || !o.query.empty()))
    return refuse("--wide applies to the table, not to --json or --query");
  if (o.no_tui && (o.watch_seconds == 0.0 || o.json || !o.query.empty()))
    return refuse("--no-tui only goes with --watch and the table");
  return true;
}

}  // namespace

const char* usage_text() {
  return "usage: gpumon [options]\n"
         "Loads the GPU monitor plug-in and shows the GPUs it finds.\n"
         "\n"
         "  --json               print one JSON document instead of the table\n"
         "  --query FIELD,...    print these fields, one line per GPU (gpumon --help-query\n"
         "                       lists them; nvidia-smi's --query-gpu names work too)\n"
         "  --query-gpu FIELD,...  the same as --query\n"
         "  --format csv[,noheader][,nounits]  how --query prints (default csv)\n"
         "  --gpu, -i, --id INDEX|PCI-ADDRESS[,...]  show only these GPUs (table, JSON, CSV)\n"
         "  --wide               the table with the static facts too (chip, units, TDP, ids)\n"
         "  --watch, -l, --loop SECONDS  refresh every SECONDS until interrupted (Ctrl-C); on\n"
         "                       a terminal the table is a live view (q quits, +/- change\n"
         "                       the period, arrows or 0-9 select a GPU)\n"
         "  --no-tui             with --watch: redraw the plain table instead of the live view\n"
         "  --count N            with --watch: stop after N refreshes\n"
         "  --trace              print the monitor's trace lines on stderr\n"
         "  --machine DIR        run inside the fake machine described by DIR\n"
         "  --plugin PATH        plug-in library to load (default: next to gpumon)\n"
         "  --lookup VEN:DEV[:REV]  show what the GPU database knows of a PCI id (hex)\n"
         "  --overlay FILE.png   render one frame of the monitor's overlay (graphs, usage\n"
         "                       bars, text) into FILE.png; with --watch, after the last\n"
         "                       refresh, with the usage of every refresh as curves\n"
         "  --size WxH           overlay size in pixels (default 800x400)\n"
         "  --gl 3.3|2.1         OpenGL context: 3.3 core (GLSL 1.50, default) or 2.1 (GLSL 1.20)\n"
         "  --text MODE          overlay text: simplified, v2, v3, v4 or v5 (default)\n"
         "  --gl-info            the OpenGL snapshot of a context: strings, limits, extensions\n"
         "  --serve HOST:PORT    serve Prometheus metrics on http://HOST:PORT/metrics, refreshed\n"
         "                       on each scrape, until SIGINT or SIGTERM (port 0: any free one)\n"
         "  --record DIR         write this machine (the files the monitor reads, the answers\n"
         "                       of the GPU tools it runs) as a machine folder for --machine\n"
         "  --help, -h           show this help\n"
         "  --help-query         list the --query fields and the nvidia-smi names they answer\n"
         "  --version            show gpumon's version and JSON schema version\n"
         "\n"
         "Options that do not apply to the chosen output are refused.\n"
         "Exit codes: 0 done; 1 not found (an unknown --gpu or --lookup id, no GPU to\n"
         "draw); 2 bad command line or plug-in; 3 the fake machine could not be set up;\n"
         "4 no OpenGL context, or the overlay or --record folder could not be written;\n"
         "5 --serve cannot listen on its address; 6 standard output could not be\n"
         "written.\n";
}

const char* usage_hint() { return "Run 'gpumon --help' for the options.\n"; }

bool parse_options(int argc, char** argv, Options* options, std::string* error) {
  opterr = 0;  // the messages are ours
  optind = 0;  // a fresh scan
  std::vector<bool> machine_arg(static_cast<size_t>(argc), false);
  std::vector<int> given;
  bool format_given = false;
  for (;;) {
    const int first = optind == 0 ? 1 : optind;
    // "+": stop at the first word that is no option, and never reorder argv.
    int id = getopt_long(argc, argv, "+:hl:i:", kLongOptions, nullptr);
    if (id == -1) break;
    if (id == '?') {
      *error = optopt > 0 && optopt < 256
                   ? std::string("unknown option '-") + static_cast<char>(optopt) + "'"
                   : std::string("unknown option '") + argv[optind - 1] + "'";
      return false;
    }
    if (id == ':') {
      *error = std::string("option '") + argv[optind - 1] + "' needs a value";
      return false;
    }
    if (id == 'l') id = kWatch;  // nvidia-smi's -l SECONDS
    if (id == 'i') id = kGpu;    // nvidia-smi's -i ID
    if (!apply(id, optarg, options, &format_given, error)) return false;
    given.push_back(id);
    if (id == kMachine)
      for (int i = first; i < optind; ++i) machine_arg[static_cast<size_t>(i)] = true;
  }
  if (optind < argc) {
    *error = std::string("unexpected argument '") + argv[optind] + "'";
    return false;
  }
  for (int i = 1; i < argc; ++i)
    if (!machine_arg[static_cast<size_t>(i)]) options->args_without_machine.push_back(argv[i]);
  return check_mode(*options, given, error);
}
