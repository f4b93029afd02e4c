#pragma once

// Host names of ping targets, resolved once per collection: all names at once, by a
// few threads, and never longer than a bound. A name whose lookup fails or is not
// done by then is unresolved for this collection; its lookup may still finish in the
// background, its answer dropped.
//
// Thread-safe. Lookups that outlive their bound count against a process-wide limit
// of threads (kMaxLookupThreads): with a name server that does not answer, each
// collection starts threads only while fewer than that are still waiting.

#include <string>
#include <vector>

namespace XRV::ping {

inline constexpr int kThreadsPerCall = 8;
inline constexpr int kMaxLookupThreads = 64;

// The canonical numeric address text of each of `names` (the first address the
// resolver gives), "" for a name not resolved within `timeoutMillis`.
std::vector<std::string> resolveNames(const std::vector<std::string>& names, int timeoutMillis);

// Lookup threads still running (finished lookups included until their thread ends).
int lookupThreadsRunning();

}  // namespace XRV::ping
