#include "persistence/predicate_compiler.h"

#include <chrono>

#include "persistence/store_entities.h"
#include "persistence/store_model.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {

// Thrown inside the compiler only, to refuse a predicate from any depth; never escapes it.
struct Refusal {
  std::string reason;
};

[[noreturn]] void refuse(std::string reason) { throw Refusal{std::move(reason)}; }

std::string quoted(std::string_view column) { return stringWithFormat("\"%@\"", column); }

const char* operatorText(QSOComparison comparison) {
  switch (comparison) {
    case QSOComparison::Equal:
      return "=";
    case QSOComparison::NotEqual:
      return "<>";
    case QSOComparison::Less:
      return "<";
    case QSOComparison::LessOrEqual:
      return "<=";
    case QSOComparison::Greater:
      return ">";
    case QSOComparison::GreaterOrEqual:
      return ">=";
    default:
      return "";
  }
}

bool isText(const AttributeDescription& a) {
  return a.type == AttributeType::String || a.type == AttributeType::Transformable;
}

// The stored form a value must take to be compared with the column, or a refusal.
StoredValue parameterFor(const AttributeDescription& attribute, const QSOPredicateValue& value,
                         bool asText) {
  switch (attribute.type) {
    case AttributeType::String:
      if (const auto* s = std::get_if<std::string>(&value)) return *s;
      break;
    case AttributeType::Transformable:
      if (const auto* s = std::get_if<std::string>(&value)) {
        if (asText) return *s;
        // Compared with the stored bytes, so it goes through the same transformer.
        auto bytes = storedBytesForAttribute(attribute, Value(*s));
        if (!bytes) refuse(stringWithFormat("no stored form for a value of %@", attribute.name));
        return std::move(*bytes);
      }
      break;
    case AttributeType::Integer64:
    case AttributeType::Boolean:
      if (const auto* n = std::get_if<int64_t>(&value)) return *n;
      if (const auto* b = std::get_if<bool>(&value)) return int64_t{*b ? 1 : 0};
      if (const auto* d = std::get_if<double>(&value)) {
        // Whole numbers compare exactly; others would need a floating column.
        if (static_cast<double>(static_cast<int64_t>(*d)) == *d) return static_cast<int64_t>(*d);
        refuse(stringWithFormat("%@ holds whole numbers; %g is not one", attribute.name, *d));
      }
      break;
    case AttributeType::Date:
      if (const auto* date = std::get_if<Date>(&value)) {
        auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(date->time_since_epoch());
        return static_cast<int64_t>(nanos.count());
      }
      break;
  }
  static constexpr const char* kTypeNames[] = {"a string", "a number", "a boolean or number",
                                               "a date", "a string"};
  refuse(stringWithFormat("attribute %@ must be compared with %s", attribute.name,
                          kTypeNames[static_cast<int>(attribute.type)]));
}

class Compiler {
 public:
  std::string expression(const QSOPredicate& p) {
    switch (p.kind()) {
      case QSOPredicate::Kind::And:
      case QSOPredicate::Kind::Or: {
        bool isAnd = p.kind() == QSOPredicate::Kind::And;
        // An empty conjunction is true, an empty disjunction false.
        if (p.subpredicates().empty()) return isAnd ? "1" : "0";
        std::string out = "(";
        for (size_t i = 0; i < p.subpredicates().size(); ++i) {
          if (i > 0) out += isAnd ? " AND " : " OR ";
          out += expression(p.subpredicates()[i]);
        }
        return out + ")";
      }
      case QSOPredicate::Kind::Not:
        if (p.subpredicates().size() != 1) refuse("NOT takes exactly one predicate");
        // A comparison with an absent value is unknown in SQL; counting it as false keeps NOT
        // the plain negation a host expects.
        return "(NOT COALESCE(" + expression(p.subpredicates()[0]) + ", 0))";
      case QSOPredicate::Kind::Comparison:
        return comparison(p);
    }
    refuse("unknown predicate kind");
  }

  std::vector<StoredValue> params;

 private:
  std::string comparison(const QSOPredicate& p) {
    const AttributeDescription* attribute = audiobookAttributeNamed(p.attribute());
    if (!attribute) refuse(stringWithFormat("unknown attribute \"%@\"", p.attribute()));
    const auto& values = p.values();
    QSOComparison op = p.comparisonType();
    bool folded = p.isCaseInsensitive() && isText(*attribute);
    std::string column = quoted(attribute->name);

    if (op == QSOComparison::In) {
      if (values.empty()) return "0";
      std::string list;
      for (const auto& value : values) {
        if (std::holds_alternative<std::monostate>(value)) refuse("IN does not take null");
        params.push_back(parameterFor(*attribute, value, folded));
        list += list.empty() ? "?" : ", ?";
      }
      return stringWithFormat("(%@ IN (%@))", textColumn(*attribute, column, folded), list);
    }
    if (values.size() != 1) refuse(stringWithFormat("%@ takes one value", p.description()));
    const QSOPredicateValue& value = values[0];

    if (std::holds_alternative<std::monostate>(value)) {
      if (op == QSOComparison::Equal) return stringWithFormat("(%@ IS NULL)", column);
      if (op == QSOComparison::NotEqual) return stringWithFormat("(%@ IS NOT NULL)", column);
      refuse("null can only be compared with == or !=");
    }

    if (op == QSOComparison::Contains || op == QSOComparison::BeginsWith) {
      if (!isText(*attribute)) {
        refuse(stringWithFormat("%@ is not text: CONTAINS and BEGINSWITH take text attributes",
                                attribute->name));
      }
      std::string text = castToText(*attribute, column);
      StoredValue needle = parameterFor(*attribute, value, true);
      if (op == QSOComparison::Contains) {
        params.push_back(needle);
        return folded ? stringWithFormat("(instr(lower(%@), lower(?)) > 0)", text)
                      : stringWithFormat("(instr(%@, ?) > 0)", text);
      }
      params.push_back(needle);
      params.push_back(needle);
      return folded ? stringWithFormat("(lower(substr(%@, 1, length(?))) = lower(?))", text)
                    : stringWithFormat("(substr(%@, 1, length(?)) = ?)", text);
    }

    params.push_back(parameterFor(*attribute, value, folded));
    return stringWithFormat("(%@ %s ?)", textColumn(*attribute, column, folded), operatorText(op));
  }

  static std::string castToText(const AttributeDescription& attribute, const std::string& column) {
    return attribute.type == AttributeType::Transformable ? "CAST(" + column + " AS TEXT)" : column;
  }

  // The column as compared: bytes as stored unless folded, then as text without ASCII case.
  static std::string textColumn(const AttributeDescription& attribute, const std::string& column,
                                bool folded) {
    if (!folded) return column;
    return castToText(attribute, column) + " COLLATE NOCASE";
  }
};

}  // namespace

CompiledSql compileWhere(const QSOPredicate& predicate) {
  Compiler compiler;
  try {
    std::string sql = compiler.expression(predicate);
    return {std::move(sql), std::move(compiler.params), {}};
  } catch (const Refusal& refusal) {
    return {{}, {}, refusal.reason};
  }
}

CompiledSql compileOrderBy(const std::vector<QSOSortDescriptor>& sortDescriptors) {
  std::string sql;
  for (const QSOSortDescriptor& sort : sortDescriptors) {
    const AttributeDescription* attribute = audiobookAttributeNamed(sort.key);
    if (!attribute) return {{}, {}, stringWithFormat("unknown sort key \"%@\"", sort.key)};
    std::string term = quoted(attribute->name);
    if (sort.caseInsensitive && isText(*attribute)) {
      if (attribute->type == AttributeType::Transformable) term = "CAST(" + term + " AS TEXT)";
      term += " COLLATE NOCASE";
    }
    sql += term + (sort.ascending ? " ASC, " : " DESC, ");
  }
  sql += "\"pk\" ASC";
  return {std::move(sql), {}, {}};
}

}  // namespace sonorell
