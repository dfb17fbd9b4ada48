// Typed queries over stored audiobooks: predicates (comparisons of one attribute with values,
// combined with and/or/not) and sort descriptors that a host builds and hands to the object
// store. The store checks attributes against its model and binds every value, so no text of a
// predicate ever becomes SQL. Plain immutable values; safe to share between threads.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "sonorell/export.h"
#include "sonorell/value.h"

namespace sonorell {

// A value a predicate compares with. Numbers for number attributes ("actualSize",
// "chapterized"), dates for date attributes, strings for text and list attributes; the null
// value only with == and != (is / is not absent).
using QSOPredicateValue = std::variant<std::monostate, bool, int64_t, double, std::string, Date>;

enum class QSOComparison {
  Equal,
  NotEqual,
  Less,
  LessOrEqual,
  Greater,
  GreaterOrEqual,
  Contains,    // text attributes only
  BeginsWith,  // text attributes only
  In,          // equal to one of the values
};

class SONORELL_EXPORT QSOPredicate {
 public:
  enum class Kind { Comparison, And, Or, Not };

  // One attribute compared with values (one value, or the list of In). `caseInsensitive` folds
  // ASCII letters on both sides.
  static QSOPredicate comparison(std::string attribute, QSOComparison comparison,
                                 std::vector<QSOPredicateValue> values,
                                 bool caseInsensitive = false);
  static QSOPredicate andPredicate(std::vector<QSOPredicate> subpredicates);
  static QSOPredicate orPredicate(std::vector<QSOPredicate> subpredicates);
  static QSOPredicate notPredicate(QSOPredicate subpredicate);

  Kind kind() const { return node_->kind; }
  const std::string& attribute() const { return node_->attribute; }
  QSOComparison comparisonType() const { return node_->comparison; }
  const std::vector<QSOPredicateValue>& values() const { return node_->values; }
  bool isCaseInsensitive() const { return node_->caseInsensitive; }
  const std::vector<QSOPredicate>& subpredicates() const { return node_->subpredicates; }

  // Why the object store would refuse this predicate (an attribute it does not know, a value of
  // the wrong type, an operator the attribute does not take), or empty when it is valid.
  std::optional<std::string> validationError() const;
  // Readable form for logs, e.g. (title BEGINSWITH[c] "hob" AND actualSize > 1000).
  std::string description() const;

 private:
  struct Node {
    Kind kind = Kind::Comparison;
    std::string attribute;
    QSOComparison comparison = QSOComparison::Equal;
    std::vector<QSOPredicateValue> values;
    bool caseInsensitive = false;
    std::vector<QSOPredicate> subpredicates;
  };
  explicit QSOPredicate(std::shared_ptr<const Node> node) : node_(std::move(node)) {}
  std::shared_ptr<const Node> node_;
};

SONORELL_EXPORT QSOPredicate operator&&(QSOPredicate a, QSOPredicate b);
SONORELL_EXPORT QSOPredicate operator||(QSOPredicate a, QSOPredicate b);
SONORELL_EXPORT QSOPredicate operator!(QSOPredicate a);

// Builds comparisons on one attribute: QSOAttribute("title").beginsWith("Hob", true).
class SONORELL_EXPORT QSOAttribute {
 public:
  explicit QSOAttribute(std::string name) : name_(std::move(name)) {}

  QSOPredicate equals(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate notEquals(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate lessThan(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate lessThanOrEqual(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate greaterThan(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate greaterThanOrEqual(QSOPredicateValue v, bool caseInsensitive = false) const;
  QSOPredicate contains(std::string text, bool caseInsensitive = false) const;
  QSOPredicate beginsWith(std::string text, bool caseInsensitive = false) const;
  QSOPredicate in(std::vector<QSOPredicateValue> values, bool caseInsensitive = false) const;

 private:
  std::string name_;
};

// Order of a fetch: by one attribute, ascending or descending, optionally folding ASCII case.
// Ties keep the order in which the audiobooks were added.
struct SONORELL_EXPORT QSOSortDescriptor {
  std::string key;
  bool ascending = true;
  bool caseInsensitive = false;

  static QSOSortDescriptor sortDescriptorWithKey(std::string key, bool ascending) {
    return QSOSortDescriptor{std::move(key), ascending, false};
  }
};

}  // namespace sonorell
