#pragma once

// Registering subnodes with the framework and taking them back: the requests
// (with the affinity features and the local host information every subnode
// carries) and their traces. Stateless: whether a subnode counts as registered is
// the caller's to keep. Thread-safe as far as the framework's registration service is.

// Registers the subnode `msn`. True when it counts as registered from now on: the
// framework accepted it, or the request is pending until the connection is back.
bool registerSubnodeWithFramework(const char* msn, const char* affinity, const char* type,
                                  const char* version);
// Deregisters the subnode `msn`. True when it no longer counts as registered (the
// request was accepted or is pending); false when it was refused and still counts
// as registered.
bool deregisterSubnodeFromFramework(const char* msn);
