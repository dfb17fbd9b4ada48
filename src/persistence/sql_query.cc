#include "persistence/sql_query.h"

namespace sonorell {

namespace sql_detail {

SqlQuery build(std::string_view format, const std::vector<Arg>& args) {
  SqlQuery out;
  size_t next = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    char c = format[i];
    if (c != '%' || i + 1 >= format.size()) {
      out.sql.push_back(c);
      out.text.push_back(c);
      continue;
    }
    size_t j = i + 1;
    while (j + 1 < format.size() && (format[j] == 'l' || format[j] == 'q')) ++j;
    if (format[j] == '%') {
      out.sql.push_back('%');
      out.text.push_back('%');
      i = j;
      continue;
    }
    const Arg& arg = next < args.size() ? args[next++] : Arg{Arg::Kind::Value, "(null)", {}};
    out.text += arg.shown;
    switch (arg.kind) {
      case Arg::Kind::Name:
        out.sql += arg.shown;
        break;
      case Arg::Kind::Query:
        out.sql += arg.query->sql;
        out.params.insert(out.params.end(), arg.query->params.begin(), arg.query->params.end());
        break;
      case Arg::Kind::Value: {
        bool quoted = !out.sql.empty() && out.sql.back() == '"' && j + 1 < format.size() &&
                      format[j + 1] == '"';
        if (quoted) {
          out.sql.pop_back();
          out.sql.push_back('?');
          out.text.push_back('"');
          ++j;  // the closing quote
        } else {
          out.sql.push_back('?');
        }
        out.params.push_back(arg.value);
        break;
      }
    }
    i = j;
  }
  return out;
}

}  // namespace sql_detail

SqlQuery sqlJoin(const std::vector<SqlQuery>& parts, std::string_view separator) {
  SqlQuery out;
  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) {
      out.sql += separator;
      out.text += separator;
    }
    out.sql += parts[i].sql;
    out.text += parts[i].text;
    out.params.insert(out.params.end(), parts[i].params.begin(), parts[i].params.end());
  }
  return out;
}

}  // namespace sonorell
