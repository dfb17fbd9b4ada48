// The "%@"-aware printf interpreter behind stringWithFormat.
#include "platform/foundation/format.h"

#include <cstdio>
#include <string>

namespace sonorell {

namespace {

std::string textOf(const FormatArg& arg) {
  struct Visitor {
    std::string operator()(FormatArg::Null) const { return "(null)"; }
    std::string operator()(int64_t n) const { return std::to_string(n); }
    std::string operator()(uint64_t n) const { return std::to_string(n); }
    std::string operator()(double d) const {
      char buf[64];
      std::snprintf(buf, sizeof buf, "%g", d);
      return buf;
    }
    std::string operator()(const std::string& s) const { return s; }
    std::string operator()(const void* p) const {
      char buf[32];
      std::snprintf(buf, sizeof buf, "%p", p);
      return buf;
    }
  };
  return std::visit(Visitor{}, arg.v);
}

int64_t signedOf(const FormatArg& arg) {
  if (auto* i = std::get_if<int64_t>(&arg.v)) return *i;
  if (auto* u = std::get_if<uint64_t>(&arg.v)) return static_cast<int64_t>(*u);
  if (auto* d = std::get_if<double>(&arg.v)) return static_cast<int64_t>(*d);
  if (auto* p = std::get_if<const void*>(&arg.v)) return reinterpret_cast<intptr_t>(*p);
  return 0;
}

uint64_t unsignedOf(const FormatArg& arg) {
  if (auto* u = std::get_if<uint64_t>(&arg.v)) return *u;
  return static_cast<uint64_t>(signedOf(arg));
}

double doubleOf(const FormatArg& arg) {
  if (auto* d = std::get_if<double>(&arg.v)) return *d;
  if (auto* u = std::get_if<uint64_t>(&arg.v)) return static_cast<double>(*u);
  return static_cast<double>(signedOf(arg));
}

template <class T>
std::string printfOne(const std::string& conversion, T value) {
  char buf[128];
  int n = std::snprintf(buf, sizeof buf, conversion.c_str(), value);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, static_cast<size_t>(n));
  std::string big(static_cast<size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), conversion.c_str(), value);
  big.resize(static_cast<size_t>(n));
  return big;
}

// Pads a text to the field width of a "%-10@"-style conversion.
std::string padded(const std::string& flags, int width, std::string text) {
  if (width <= 0 || text.size() >= static_cast<size_t>(width)) return text;
  std::string pad(static_cast<size_t>(width) - text.size(), ' ');
  return flags.find('-') != std::string::npos ? text + pad : pad + text;
}

}  // namespace

std::string formatWithArgs(std::string_view format, std::span<const FormatArg> args) {
  static const FormatArg kMissing{FormatArg::Null{}};
  std::string out;
  out.reserve(format.size() + 32);
  size_t next = 0;
  auto take = [&]() -> const FormatArg& { return next < args.size() ? args[next++] : kMissing; };

  for (size_t i = 0; i < format.size(); ++i) {
    char c = format[i];
    if (c != '%') {
      out.push_back(c);
      continue;
    }
    size_t j = i + 1;
    std::string flags;
    while (j < format.size() &&
           std::string_view("-+ #0'").find(format[j]) != std::string_view::npos) {
      if (format[j] != '\'') flags.push_back(format[j]);
      ++j;
    }
    std::string width;
    while (j < format.size() && format[j] >= '0' && format[j] <= '9') width.push_back(format[j++]);
    std::string precision;
    if (j < format.size() && format[j] == '.') {
      precision.push_back(format[j++]);
      while (j < format.size() && format[j] >= '0' && format[j] <= '9')
        precision.push_back(format[j++]);
    }
    while (j < format.size() &&
           std::string_view("hlqLzjt").find(format[j]) != std::string_view::npos)
      ++j;
    if (j >= format.size()) {  // a lone trailing '%'
      out.append(format.substr(i));
      break;
    }
    char conv = format[j];
    std::string base = "%" + flags + width + precision;
    switch (conv) {
      case '%':
        out.push_back('%');
        break;
      case '@':
      case 's':
      case 'S': {
        std::string text = textOf(take());
        if (!precision.empty() && precision.size() > 1) {
          text = text.substr(0, std::stoul(precision.substr(1)));
        }
        out += padded(flags, width.empty() ? 0 : std::stoi(width), std::move(text));
        break;
      }
      case 'd':
      case 'i':
        out += printfOne(base + "lld", static_cast<long long>(signedOf(take())));
        break;
      case 'u':
      case 'x':
      case 'X':
      case 'o':
        out += printfOne(base + "ll" + conv, static_cast<unsigned long long>(unsignedOf(take())));
        break;
      case 'c':
        out += printfOne(base + "c", static_cast<int>(signedOf(take())));
        break;
      case 'f':
      case 'F':
      case 'e':
      case 'E':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        out += printfOne(base + conv, doubleOf(take()));
        break;
      case 'p': {
        const FormatArg& arg = take();
        auto* p = std::get_if<const void*>(&arg.v);
        out += p ? printfOne("%p", *p) : textOf(arg);
        break;
      }
      default:  // unknown conversion: keep the text as written
        out.append(format.substr(i, j - i + 1));
        break;
    }
    i = j;
  }
  return out;
}

}  // namespace sonorell
