#include "CommonOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Quarn::Qphase {

namespace {

std::string Plain(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

// The whole text as a finite number; false for anything else ("12abc", "", "nan").
bool ParseNumber(const std::string& text, double& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno == 0 && std::isfinite(value);
}

// A whole number written as digits with an optional sign ("12", "-2"); "1e2" and "12.0" are not,
// whatever their value, since the option's value is then converted as an integer.
bool IsIntegerText(const std::string& text) {
  const std::size_t digits = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
  return text.size() > digits && text.find_first_not_of("0123456789", digits) == std::string::npos;
}

// The refusal of `text`: what was given and what is needed. NaN and infinities are named as such,
// since NaN passes every check made of comparisons.
std::string Refusal(const std::string& text, const std::string& needed) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (!text.empty() && end == text.c_str() + text.size() && !std::isfinite(value)) {
    return text + " is not a finite number; " + needed + " is needed";
  }
  return "got " + (text.empty() ? std::string("an empty value") : text) + "; " + needed + " is needed";
}

}  // namespace

CLI::Validator WholeNumberFrom(long lo, long hi) {
  const std::string needed = "a whole number from " + std::to_string(lo) + " to " + std::to_string(hi);
  return CLI::Validator(
      [lo, hi, needed](std::string& text) -> std::string {
        double value = 0.0;
        if (IsIntegerText(text) && ParseNumber(text, value) && value >= static_cast<double>(lo) &&
            value <= static_cast<double>(hi)) {
          return "";
        }
        return Refusal(text, needed);
      },
      "INT in [" + std::to_string(lo) + " - " + std::to_string(hi) + "]");
}

CLI::Validator NumberFrom(double lo, double hi) {
  const std::string needed = "a number from " + Plain(lo) + " to " + Plain(hi);
  return CLI::Validator(
      [lo, hi, needed](std::string& text) -> std::string {
        double value = 0.0;
        if (ParseNumber(text, value) && value >= lo && value <= hi) return "";
        return Refusal(text, needed);
      },
      "NUMBER in [" + Plain(lo) + " - " + Plain(hi) + "]");
}

CLI::Validator NumberAbove(double bound) {
  const std::string needed = "a number above " + Plain(bound);
  return CLI::Validator(
      [bound, needed](std::string& text) -> std::string {
        double value = 0.0;
        if (ParseNumber(text, value) && value > bound) return "";
        return Refusal(text, needed);
      },
      "NUMBER > " + Plain(bound));
}

CLI::Validator NumberAtLeast(double bound) {
  const std::string needed = "a number of at least " + Plain(bound);
  return CLI::Validator(
      [bound, needed](std::string& text) -> std::string {
        double value = 0.0;
        if (ParseNumber(text, value) && value >= bound) return "";
        return Refusal(text, needed);
      },
      "NUMBER >= " + Plain(bound));
}

CLI::Validator FiniteNumber() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        double value = 0.0;
        return ParseNumber(text, value) ? "" : Refusal(text, "a finite number");
      },
      "NUMBER");
}

CLI::Validator OneOf(std::vector<std::string> allowed, const std::string& needed) {
  std::string names;
  for (const std::string& name : allowed)
    names += (names.empty() ? "" : ", ") + name;
  return CLI::Validator(
      [allowed, needed](std::string& text) -> std::string {
        for (const std::string& name : allowed)
          if (text == name) return "";
        return Refusal(text, needed);
      },
      "{" + names + "}");
}

void AddMaxValueOption(CLI::App& app, int& maxValue) {
  app.add_option("--max-value", maxValue,
                 "Saturation level (default: the sample type's maximum, e.g. 4095 for a 12-bit camera)")
      ->check(WholeNumberFrom(1, 65535));
}

void AddThreadsOption(CLI::App& app, int& threads, const char* description) {
  app.add_option("--threads", threads, description)->check(WholeNumberFrom(0, 1024));
}

}  // namespace Quarn::Qphase
