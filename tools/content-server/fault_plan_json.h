// Reads a fault plan written as JSON, the form in which tests in other processes hand one to the
// server's admin endpoint. Pure function of its argument; safe from any thread.
#pragma once

#include <string_view>
#include <vector>

#include "fault_plan.h"

namespace sonorell::content {

// {"rules": [{"route", "path"?, "skip"?, "count"?, "fault": {"status", "body", "contentType",
// "delayMs", "dropConnection", "cutAfterBytes", "declaredLength", "bytesPerSecond",
// "ignoreRange", "changeFile"}}]}, every fault knob optional. A missing "skip" is 0, a missing
// "count" is 1 (Trigger's default) and a null one means every request; a null "path" or knob is
// the same as a missing one. Throws std::invalid_argument naming the first thing wrong; unknown
// fields are wrong too, so that a misspelt knob cannot pass for a plan that does nothing.
std::vector<FaultRule> parseFaultPlan(std::string_view text);

}  // namespace sonorell::content
