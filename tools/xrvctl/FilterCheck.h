#pragma once

// Checks the row filters of the attribute groups a definition declares: a filter
// that does not parse is dropped by the agent, so every row of its group is shown.

#include <string>
#include <vector>

// One warning per group whose filter does not parse in its grammar, or whose
// grammar is unknown; the warning holds the filter and a marker line under the
// place of the error. Filters of the "filter" grammar are checked after variable
// substitution, with the values this process can see.
std::vector<std::string> checkGroupFilters();
