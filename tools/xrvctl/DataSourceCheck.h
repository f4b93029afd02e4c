#pragma once

// Checks the data sources a definition made against the attribute groups it declares:
// the mistakes that leave a table empty or put values under the wrong column.

#include <string>
#include <vector>

// One warning per problem, for the providers in the agent's provider list and the
// groups in metaMap (both as the definition just read left them).
std::vector<std::string> checkDataSourcesAgainstGroups();
