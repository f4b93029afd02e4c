#pragma once

// The copies of data providers that serve configured subnodes: for each
// [subnode TYPE KEY] section, one copy per provider of an attribute group of
// subnode type TYPE.
//
// Stateless. `providers` is changed (copies are appended), so the caller holds
// whatever guards the list's subnode changes: the subnode manager's lock.

#include <vector>

#include "framework/Configuration.h"

class UAClientClassList;

// For every section, gives every provider of `providers` whose group has the
// section's subnode type and that is no copy itself a copy for the section's key
// (subnodeCopy adds it to `providers`), unless the list holds one already. The
// copies are not started. Returns the number of copies made.
int makeConfiguredSubnodeCopies(const std::vector<XRV::SubnodeSectionName>& sections,
                                UAClientClassList& providers);
