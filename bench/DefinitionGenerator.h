#pragma once

// Builds agent definitions of a chosen size for the parser benchmarks.
//
// The document looks like what people write by hand or export: an XML declaration,
// a root element, the "appl" element, one "metadata" element with many "ag" groups
// (5 to 30 "attr" children each, with name/type/size/hint attributes; some names
// start with "-", some hints hold &amp; &lt; &gt; or &#233;), then one data-source
// element per group (mostly "script", some "ping" and "log_monitor") with its
// "metric" children, separated by comments, blank lines and two-space indentation.
// It is well-formed XML, keeps attributes apart with single spaces, uses only ASCII
// bytes, and is the same for the same size and seed.

#include <cstddef>
#include <string>

namespace XRV::bench {

// A definition of at least `approximateBytes` bytes (it ends with the last group
// that passes the size, and the closing tags).
std::string generateDefinition(size_t approximateBytes, unsigned seed = 1);

}  // namespace XRV::bench
