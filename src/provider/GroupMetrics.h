#pragma once

// Metrics made from an attribute group's declaration, for data sources that have no
// element of their own listing them (the built-in status groups, configuration
// discovery).

class AttributeGroupMeta;
class ResultsManager;

// Gives `provider` one metric per attribute of `meta` (ORIGINNODE aside), in the
// group's order: text attributes as STRING_DATA, the others as NUMERIC_DATA or
// NUMERIC_64BIT_DATA, hidden ones hidden. Nothing for null.
void addMetricsFromGroup(ResultsManager* provider, const AttributeGroupMeta* meta);
