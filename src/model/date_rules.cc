#include "model/date_rules.h"

#include <time.h>

#include <cctype>
#include <chrono>
#include <cmath>
#include <string>
#include <vector>

namespace sonorell {

namespace {

struct Token {
  char letter = 0;      // pattern letter; 0 for literal text
  size_t width = 0;     // number of repeated letters
  std::string literal;  // for literal text
};

// Splits a pattern into runs of one letter and literal text ('quoted', '' for a quote).
std::vector<Token> tokenize(std::string_view pattern) {
  std::vector<Token> tokens;
  auto addLiteral = [&tokens](char c) {
    if (tokens.empty() || tokens.back().letter != 0) tokens.push_back({});
    tokens.back().literal += c;
  };
  for (size_t i = 0; i < pattern.size();) {
    char c = pattern[i];
    if (c == '\'') {
      if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
        addLiteral('\'');
        i += 2;
        continue;
      }
      size_t close = pattern.find('\'', i + 1);
      if (close == std::string_view::npos) close = pattern.size();
      for (size_t k = i + 1; k < close; ++k) addLiteral(pattern[k]);
      i = close + 1;
    } else if (std::isalpha(static_cast<unsigned char>(c))) {
      size_t run = i;
      while (run < pattern.size() && pattern[run] == c) ++run;
      tokens.push_back({c, run - i, {}});
      i = run;
    } else {
      addLiteral(c);
      ++i;
    }
  }
  return tokens;
}

int daysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

}  // namespace

std::optional<Date> dateFromString(std::string_view text, std::string_view pattern) {
  int year = 1970, month = 1, day = 1, hour = 0, minute = 0, second = 0;
  double fraction = 0;
  size_t at = 0;
  for (const Token& token : tokenize(pattern)) {
    if (token.letter == 0) {
      if (text.substr(at, token.literal.size()) != token.literal) return std::nullopt;
      at += token.literal.size();
      continue;
    }
    // Numeric fields take the digits that follow; a run of letters sets the minimum width only
    // for the year (as "yyyy" does), others accept one or two digits.
    size_t maxDigits = token.letter == 'y' ? 9 : (token.letter == 'S' ? 9 : 2);
    size_t start = at;
    while (at < text.size() && at - start < maxDigits &&
           std::isdigit(static_cast<unsigned char>(text[at]))) {
      ++at;
    }
    if (at == start) return std::nullopt;
    std::string digits(text.substr(start, at - start));
    long value = std::stol(digits);
    switch (token.letter) {
      case 'y':
        year = static_cast<int>(value);
        break;
      case 'M':
        month = static_cast<int>(value);
        break;
      case 'd':
        day = static_cast<int>(value);
        break;
      case 'H':
        hour = static_cast<int>(value);
        break;
      case 'm':
        minute = static_cast<int>(value);
        break;
      case 's':
        second = static_cast<int>(value);
        break;
      case 'S':
        fraction = static_cast<double>(value) / std::pow(10.0, static_cast<double>(digits.size()));
        break;
      default:
        return std::nullopt;  // a letter we do not read
    }
  }
  if (at != text.size()) return std::nullopt;
  if (year < 1678 || year > 2261) return std::nullopt;  // what a nanosecond time_point holds
  if (month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 59) {
    return std::nullopt;
  }

  struct tm fields = {};
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  fields.tm_mday = day;
  fields.tm_hour = hour;
  fields.tm_min = minute;
  fields.tm_sec = second;
  fields.tm_isdst = -1;  // let the zone's rules decide daylight saving
  tzset();
  time_t seconds = mktime(&fields);
  if (seconds == static_cast<time_t>(-1)) {
    // Also the answer for one second before 1970 UTC; only a round trip tells them apart.
    struct tm check = {};
    if (!localtime_r(&seconds, &check) || check.tm_year != year - 1900 || check.tm_min != minute) {
      return std::nullopt;
    }
  }
  auto whole = std::chrono::system_clock::from_time_t(seconds);
  auto part = std::chrono::duration_cast<std::chrono::system_clock::duration>(
      std::chrono::duration<double>(fraction));
  return whole + part;
}

}  // namespace sonorell
