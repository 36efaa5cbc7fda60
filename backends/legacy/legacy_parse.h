// What the legacy tools' answers say, as pure functions of one output line
// (as fgets gives it, with its newline) of the command lines the readers run.
#pragma once

namespace legacy_parse {

// "[10de:2684]" (lspci -nn, cut to the bracketed id pair): the vendor after
// the bracket, the device after the colon; either output may be null. False
// for a line of 9 characters or fewer.
bool pci_codes(const char* line, unsigned long* vendor, unsigned long* device);

// "rev a1": the two digits after "rev" and a blank, lower-cased into
// revision[0] and revision[1] (no terminator). Both must lie before the
// line's newline.
bool pci_revision(const char* line, char* revision);

// The adapter name lspci prints (the line cut after the class): copied as
// it is, newline included, into `name` (128 bytes). False for an empty line.
bool adapter_name(const char* line, char* name);

// The shell's answer for a missing tool, when it reaches the output.
bool says_command_not_found(const char* line);

// aticonfig's temperature ("54.50" after the pipeline's cut) in whole
// degrees; false when the line's number is not above 0.
bool temperature_celsius(const char* line, float* celsius);

}  // namespace legacy_parse
