// SQL statements built from the documented statement formats: identifiers are written into the
// text, values are bound as parameters. Each query also keeps the text with the values written
// in, which is what the logs show, so the log reads as the format gives it while no value ever
// becomes SQL. Plain values.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

namespace sonorell {

using SqlValue = std::variant<std::monostate, int64_t, double, std::string>;

struct SqlQuery {
  std::string sql;   // executed, with "?" for each bound value
  std::string text;  // logged, with the values written in
  std::vector<SqlValue> params;
};

// An identifier (table or column name) from our own code, written into the statement.
struct SqlName {
  std::string_view name;
};

namespace sql_detail {
struct Arg {
  enum class Kind { Name, Value, Query } kind;
  std::string shown;  // the text the log shows
  SqlValue value;     // Value
  const SqlQuery* query = nullptr;
};

template <class T>
Arg toArg(const T& v) {
  if constexpr (std::is_same_v<T, SqlName>) {
    return {Arg::Kind::Name, std::string(v.name), {}, nullptr};
  } else if constexpr (std::is_same_v<T, SqlQuery>) {
    return {Arg::Kind::Query, v.text, {}, &v};
  } else if constexpr (std::is_same_v<T, bool>) {
    return {Arg::Kind::Value, v ? "1" : "0", int64_t{v}, nullptr};
  } else if constexpr (std::is_integral_v<T> && std::is_unsigned_v<T>) {
    // Stored as the same 64 bits: values above INT64_MAX come back through the unsigned cast.
    return {Arg::Kind::Value, std::to_string(v), static_cast<int64_t>(v), nullptr};
  } else if constexpr (std::is_integral_v<T>) {
    return {Arg::Kind::Value, std::to_string(v), static_cast<int64_t>(v), nullptr};
  } else {
    std::string s{std::string_view(v)};
    return {Arg::Kind::Value, s, s, nullptr};
  }
}

SqlQuery build(std::string_view format, const std::vector<Arg>& args);
}  // namespace sql_detail

// Formats with "%@", "%lu", "%u", "%d" conversions. A value placed between double quotes
// ("%@") is bound without the quotes; a SqlQuery argument is spliced in with its parameters.
template <class... A>
SqlQuery sqlFormat(std::string_view format, const A&... args) {
  return sql_detail::build(format, {sql_detail::toArg(args)...});
}

// Joins queries with a separator, keeping their parameters in order.
SqlQuery sqlJoin(const std::vector<SqlQuery>& parts, std::string_view separator);

}  // namespace sonorell
