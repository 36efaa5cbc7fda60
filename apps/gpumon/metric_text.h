// The pieces of the Prometheus text exposition format (version 0.0.4) that
// gpumon --serve writes: label lists, samples and metric families.
#pragma once

#include <string>
#include <vector>

// A label value as the text format writes it between its quotes: backslash,
// double quote and line feed escaped, and bytes that are not UTF-8 replaced
// by U+FFFD (Prometheus rejects a scrape holding any).
std::string escape_label_value(const std::string& text);

// A sample value: the shortest exact decimal form, without an exponent
// (2619000000, 0.37).
std::string format_number(double value);

// A list of labels, name="value", in the order added. A label whose value
// is empty is left out: to Prometheus it is the same as none.
class Labels {
 public:
  Labels& add(const char* name, const std::string& value);
  // A copy with one more label.
  Labels with(const char* name, const std::string& value) const;
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

// One metric family: its samples as they are added, written after its
// # HELP and # TYPE lines, or not at all when it has none.
class MetricFamily {
 public:
  MetricFamily(const char* name, const char* type, const char* help)
      : name_(name), type_(type), help_(help) {}
  void add(const Labels& labels, double value);
  void write_to(std::string* out) const;

 private:
  const char* name_;
  const char* type_;
  const char* help_;
  std::string samples_;
};
