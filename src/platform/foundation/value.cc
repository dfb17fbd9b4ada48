// Value conversions and descriptions.
#include "sonorell/value.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>

#include "sonorell/error.h"

namespace sonorell {

namespace {
template <class... F>
struct Overloaded : F... {
  using F::operator()...;
};
template <class... F>
Overloaded(F...) -> Overloaded<F...>;

std::string describeDate(const Date& date) {
  std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[40];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
  return buf;
}

std::string quoteIfNeeded(const std::string& s) {
  bool plain = !s.empty();
  for (char c : s) {
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.')) plain = false;
  }
  return plain ? s : "\"" + s + "\"";
}
}  // namespace

std::optional<int64_t> Value::asInt() const {
  return std::visit(
      Overloaded{[](bool b) -> std::optional<int64_t> { return b ? 1 : 0; },
                 [](int64_t n) -> std::optional<int64_t> { return n; },
                 [](uint64_t n) -> std::optional<int64_t> { return static_cast<int64_t>(n); },
                 [](double d) -> std::optional<int64_t> {
                   if (std::isnan(d)) return std::nullopt;
                   return static_cast<int64_t>(d);
                 },
                 [](const auto&) -> std::optional<int64_t> { return std::nullopt; }},
      v_);
}

std::optional<uint64_t> Value::asUInt() const {
  if (const auto* u = getIf<uint64_t>()) return *u;
  if (auto i = asInt()) return static_cast<uint64_t>(*i);
  return std::nullopt;
}

std::optional<double> Value::asDouble() const {
  if (const auto* d = getIf<double>()) return *d;
  if (const auto* u = getIf<uint64_t>()) return static_cast<double>(*u);
  if (auto i = asInt()) return static_cast<double>(*i);
  return std::nullopt;
}

std::optional<bool> Value::asBool() const {
  if (const auto* b = getIf<bool>()) return *b;
  if (auto i = asInt()) return *i != 0;
  if (const auto* s = getIf<std::string>()) {
    if (*s == "YES" || *s == "true" || *s == "1") return true;
    if (*s == "NO" || *s == "false" || *s == "0") return false;
  }
  return std::nullopt;
}

std::optional<std::string> Value::asString() const {
  if (const auto* s = getIf<std::string>()) return *s;
  return std::nullopt;
}

ErrorPtr Value::asError() const {
  if (const auto* e = getIf<ErrorPtr>()) return *e;
  return nullptr;
}

std::string Value::description() const {
  return std::visit(
      Overloaded{
          [](std::monostate) -> std::string { return "(null)"; },
          [](bool b) -> std::string { return b ? "1" : "0"; },
          [](int64_t n) { return std::to_string(n); }, [](uint64_t n) { return std::to_string(n); },
          [](double d) {
            char buf[32];
            std::snprintf(buf, sizeof buf, "%g", d);
            return std::string(buf);
          },
          [](const std::string& s) { return s; }, [](const Date& d) { return describeDate(d); },
          [](const Array& a) { return describe(a); },
          [](const Dictionary& d) { return describe(d); },
          [](const ObjectPtr& o) { return o ? o->description() : std::string("(null)"); },
          [](const ErrorPtr& e) { return e ? e->description() : std::string("(null)"); }},
      v_);
}

bool operator==(const Value& a, const Value& b) {
  if (a.v_.index() != b.v_.index()) return false;
  if (const auto* e = a.getIf<ErrorPtr>()) {
    const auto& f = *b.getIf<ErrorPtr>();
    if (!*e || !f) return *e == f;
    return (*e)->domain == f->domain && (*e)->code == f->code && (*e)->userInfo == f->userInfo;
  }
  if (const auto* o = a.getIf<Value::ObjectPtr>()) {
    const auto& p = *b.getIf<Value::ObjectPtr>();
    if (!*o || !p) return *o == p;
    return (*o)->equals(*p);
  }
  return a.v_ == b.v_;
}

std::string describe(const Dictionary& dictionary) {
  std::string out = "{\n";
  for (const auto& [key, value] : dictionary) {
    std::string text =
        value.is<std::string>() ? quoteIfNeeded(*value.asString()) : value.description();
    out += "    " + quoteIfNeeded(key) + " = " + text + ";\n";
  }
  return out + "}";
}

std::string describe(const Array& array) {
  std::string out = "(\n";
  for (size_t i = 0; i < array.size(); ++i) {
    const Value& value = array[i];
    out +=
        "    " + (value.is<std::string>() ? quoteIfNeeded(*value.asString()) : value.description());
    out += i + 1 < array.size() ? ",\n" : "\n";
  }
  return out + ")";
}

}  // namespace sonorell
