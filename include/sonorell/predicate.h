/// Typed queries over stored audiobooks: predicates (comparisons of one attribute with values,
/// combined with and/or/not) and sort descriptors that a host builds and hands to the object
/// store. The store checks attributes against its model and binds every value, so no text of a
/// predicate ever becomes SQL. Plain immutable values; safe to share between threads.
/// @file
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

/// A value a predicate compares with. Numbers for number attributes ("actualSize",
/// "chapterized"), dates for date attributes, strings for text and list attributes; the null
/// value only with == and != (is / is not absent).
using QSOPredicateValue = std::variant<std::monostate, bool, int64_t, double, std::string, Date>;

/// How a comparison predicate compares its attribute with its values.
enum class QSOComparison {
  Equal,           ///< == (a null value: the attribute is absent)
  NotEqual,        ///< != (a null value: the attribute is present)
  Less,            ///< <
  LessOrEqual,     ///< <=
  Greater,         ///< >
  GreaterOrEqual,  ///< >=
  Contains,        ///< text attributes only
  BeginsWith,      ///< text attributes only
  In,              ///< equal to one of the values
};

/// A condition on stored audiobooks, for QSOPersistenceEngine::audiobooksForPredicate() and
/// its counts: a comparison of one attribute, or and/or/not of other predicates. Build
/// comparisons with QSOAttribute and combine them with &&, || and !. An immutable value whose
/// copies share one tree.
class SONORELL_EXPORT QSOPredicate {
 public:
  /// What a predicate node is.
  enum class Kind {
    Comparison,  ///< attribute(), comparisonType(), values()
    And,         ///< all of subpredicates()
    Or,          ///< any of subpredicates()
    Not          ///< not the one subpredicate
  };

  /// One attribute compared with values (one value, or the list of In). `caseInsensitive` folds
  /// ASCII letters on both sides.
  static QSOPredicate comparison(std::string attribute, QSOComparison comparison,
                                 std::vector<QSOPredicateValue> values,
                                 bool caseInsensitive = false);
  /// True when every subpredicate is.
  static QSOPredicate andPredicate(std::vector<QSOPredicate> subpredicates);
  /// True when any subpredicate is.
  static QSOPredicate orPredicate(std::vector<QSOPredicate> subpredicates);
  /// True when the subpredicate is not.
  static QSOPredicate notPredicate(QSOPredicate subpredicate);

  /// What this node is.
  Kind kind() const { return node_->kind; }
  /// The attribute compared (comparisons only).
  const std::string& attribute() const { return node_->attribute; }
  /// The comparison made (comparisons only).
  QSOComparison comparisonType() const { return node_->comparison; }
  /// The values compared with (comparisons only).
  const std::vector<QSOPredicateValue>& values() const { return node_->values; }
  /// Whether ASCII case is folded (comparisons only).
  bool isCaseInsensitive() const { return node_->caseInsensitive; }
  /// The combined predicates (and, or, not).
  const std::vector<QSOPredicate>& subpredicates() const { return node_->subpredicates; }

  /// Why the object store would refuse this predicate (an attribute it does not know, a value of
  /// the wrong type, an operator the attribute does not take), or empty when it is valid.
  std::optional<std::string> validationError() const;
  /// Readable form for logs, e.g. (title BEGINSWITH[c] "hob" AND actualSize > 1000).
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

/// QSOPredicate::andPredicate({a, b}).
SONORELL_EXPORT QSOPredicate operator&&(QSOPredicate a, QSOPredicate b);
/// QSOPredicate::orPredicate({a, b}).
SONORELL_EXPORT QSOPredicate operator||(QSOPredicate a, QSOPredicate b);
/// QSOPredicate::notPredicate(a).
SONORELL_EXPORT QSOPredicate operator!(QSOPredicate a);

/// Builds comparisons on one attribute: QSOAttribute("title").beginsWith("Hob", true).
class SONORELL_EXPORT QSOAttribute {
 public:
  /// The attribute named `name` (a property of QSOAudiobookInterface, "title" say).
  explicit QSOAttribute(std::string name) : name_(std::move(name)) {}

  /// attribute == v (QSOComparison::Equal).
  QSOPredicate equals(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// attribute != v.
  QSOPredicate notEquals(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// attribute < v.
  QSOPredicate lessThan(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// attribute <= v.
  QSOPredicate lessThanOrEqual(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// attribute > v.
  QSOPredicate greaterThan(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// attribute >= v.
  QSOPredicate greaterThanOrEqual(QSOPredicateValue v, bool caseInsensitive = false) const;
  /// The text attribute contains `text`.
  QSOPredicate contains(std::string text, bool caseInsensitive = false) const;
  /// The text attribute begins with `text`.
  QSOPredicate beginsWith(std::string text, bool caseInsensitive = false) const;
  /// The attribute equals one of `values`.
  QSOPredicate in(std::vector<QSOPredicateValue> values, bool caseInsensitive = false) const;

 private:
  std::string name_;
};

/// Order of a fetch: by one attribute, ascending or descending, optionally folding ASCII case.
/// Ties keep the order in which the audiobooks were added.
struct SONORELL_EXPORT QSOSortDescriptor {
  std::string key;               ///< the attribute sorted by
  bool ascending = true;         ///< smallest first
  bool caseInsensitive = false;  ///< fold ASCII case when comparing texts

  /// A case-sensitive order by `key`.
  static QSOSortDescriptor sortDescriptorWithKey(std::string key, bool ascending) {
    return QSOSortDescriptor{std::move(key), ascending, false};
  }
};

}  // namespace sonorell
