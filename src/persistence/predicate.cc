#include "sonorell/predicate.h"

#include "persistence/predicate_compiler.h"
#include "platform/foundation/format.h"

namespace sonorell {

namespace {

std::string describeValue(const QSOPredicateValue& value) {
  return std::visit(
      [](const auto& v) -> std::string {
        using V = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<V, std::monostate>) {
          return "nil";
        } else if constexpr (std::is_same_v<V, std::string>) {
          return "\"" + v + "\"";
        } else if constexpr (std::is_same_v<V, Date>) {
          return Value(v).description();
        } else if constexpr (std::is_same_v<V, bool>) {
          return v ? "YES" : "NO";
        } else {
          return Value(v).description();
        }
      },
      value);
}

const char* comparisonText(QSOComparison comparison) {
  switch (comparison) {
    case QSOComparison::Equal:
      return "==";
    case QSOComparison::NotEqual:
      return "!=";
    case QSOComparison::Less:
      return "<";
    case QSOComparison::LessOrEqual:
      return "<=";
    case QSOComparison::Greater:
      return ">";
    case QSOComparison::GreaterOrEqual:
      return ">=";
    case QSOComparison::Contains:
      return "CONTAINS";
    case QSOComparison::BeginsWith:
      return "BEGINSWITH";
    case QSOComparison::In:
      return "IN";
  }
  return "?";
}

}  // namespace

QSOPredicate QSOPredicate::comparison(std::string attribute, QSOComparison comparison,
                                      std::vector<QSOPredicateValue> values, bool caseInsensitive) {
  Node node;
  node.kind = Kind::Comparison;
  node.attribute = std::move(attribute);
  node.comparison = comparison;
  node.values = std::move(values);
  node.caseInsensitive = caseInsensitive;
  return QSOPredicate(std::make_shared<const Node>(std::move(node)));
}

QSOPredicate QSOPredicate::andPredicate(std::vector<QSOPredicate> subpredicates) {
  Node node;
  node.kind = Kind::And;
  node.subpredicates = std::move(subpredicates);
  return QSOPredicate(std::make_shared<const Node>(std::move(node)));
}

QSOPredicate QSOPredicate::orPredicate(std::vector<QSOPredicate> subpredicates) {
  Node node;
  node.kind = Kind::Or;
  node.subpredicates = std::move(subpredicates);
  return QSOPredicate(std::make_shared<const Node>(std::move(node)));
}

QSOPredicate QSOPredicate::notPredicate(QSOPredicate subpredicate) {
  Node node;
  node.kind = Kind::Not;
  node.subpredicates.push_back(std::move(subpredicate));
  return QSOPredicate(std::make_shared<const Node>(std::move(node)));
}

std::optional<std::string> QSOPredicate::validationError() const {
  CompiledSql compiled = compileWhere(*this);
  if (compiled.ok()) return std::nullopt;
  return compiled.error;
}

std::string QSOPredicate::description() const {
  switch (kind()) {
    case Kind::And:
    case Kind::Or: {
      std::string out = "(";
      for (size_t i = 0; i < subpredicates().size(); ++i) {
        if (i > 0) out += kind() == Kind::And ? " AND " : " OR ";
        out += subpredicates()[i].description();
      }
      return out + ")";
    }
    case Kind::Not:
      return "NOT " +
             (subpredicates().empty() ? std::string("()") : subpredicates()[0].description());
    case Kind::Comparison:
      break;
  }
  std::string op = comparisonText(comparisonType());
  if (isCaseInsensitive()) op += "[c]";
  std::string operand;
  if (comparisonType() == QSOComparison::In) {
    operand = "{";
    for (size_t i = 0; i < values().size(); ++i) {
      operand += (i > 0 ? ", " : "") + describeValue(values()[i]);
    }
    operand += "}";
  } else {
    operand = values().empty() ? std::string("nil") : describeValue(values()[0]);
  }
  return stringWithFormat("%@ %@ %@", attribute(), op, operand);
}

QSOPredicate operator&&(QSOPredicate a, QSOPredicate b) {
  return QSOPredicate::andPredicate({std::move(a), std::move(b)});
}

QSOPredicate operator||(QSOPredicate a, QSOPredicate b) {
  return QSOPredicate::orPredicate({std::move(a), std::move(b)});
}

QSOPredicate operator!(QSOPredicate a) { return QSOPredicate::notPredicate(std::move(a)); }

QSOPredicate QSOAttribute::equals(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::Equal, {std::move(v)}, caseInsensitive);
}
QSOPredicate QSOAttribute::notEquals(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::NotEqual, {std::move(v)}, caseInsensitive);
}
QSOPredicate QSOAttribute::lessThan(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::Less, {std::move(v)}, caseInsensitive);
}
QSOPredicate QSOAttribute::lessThanOrEqual(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::LessOrEqual, {std::move(v)},
                                  caseInsensitive);
}
QSOPredicate QSOAttribute::greaterThan(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::Greater, {std::move(v)}, caseInsensitive);
}
QSOPredicate QSOAttribute::greaterThanOrEqual(QSOPredicateValue v, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::GreaterOrEqual, {std::move(v)},
                                  caseInsensitive);
}
QSOPredicate QSOAttribute::contains(std::string text, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::Contains, {std::move(text)},
                                  caseInsensitive);
}
QSOPredicate QSOAttribute::beginsWith(std::string text, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::BeginsWith, {std::move(text)},
                                  caseInsensitive);
}
QSOPredicate QSOAttribute::in(std::vector<QSOPredicateValue> values, bool caseInsensitive) const {
  return QSOPredicate::comparison(name_, QSOComparison::In, std::move(values), caseInsensitive);
}

}  // namespace sonorell
