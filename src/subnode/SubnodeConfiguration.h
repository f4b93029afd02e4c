#pragma once

// A subnode's configuration section as a HashMap, for code that hands it on as a
// whole (the script data source exports every entry to its commands).

class HashMap;

// A copy of the [subnode TYPE KEY] section of the configuration file: keys and
// values are malloc'd copies. Null when the file has no such section. Release it
// with freeSubnodeConfiguration.
HashMap* getSubnodeConfiguration(const char* subnodeType, const char* subnodeKey);

// Frees every key and value and the map itself. Null is ignored.
void freeSubnodeConfiguration(HashMap* configuration);
