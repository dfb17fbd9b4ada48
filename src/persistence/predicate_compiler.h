// Turns host-built predicates and sort descriptors into SQL over the "QSOAudiobook" table.
// Attribute names are checked against the store model and only the model's own column names
// are written into the text; every value becomes a bound parameter. Pure; safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "persistence/store_connection.h"
#include "sonorell/predicate.h"

namespace sonorell {

struct CompiledSql {
  std::string sql;  // with "?" for each parameter
  std::vector<StoredValue> params;
  std::string error;  // non-empty when the input was refused; sql and params are then empty
  bool ok() const { return error.empty(); }
};

// A boolean SQL expression for a WHERE clause.
CompiledSql compileWhere(const QSOPredicate& predicate);
// The terms of an ORDER BY clause (without the words), ending with the insertion order so that
// equal keys always page the same way.
CompiledSql compileOrderBy(const std::vector<QSOSortDescriptor>& sortDescriptors);

}  // namespace sonorell
