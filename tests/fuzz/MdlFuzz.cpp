// Fuzz target for the MDL reader of the log engine. Nothing may crash, leak or run
// away; a refused text names a line and a column inside the text (or the line just
// past its end) and says what was expected; an accepted one has what the engine
// relies on: a table, sources with names and at least one attribute.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Require.h"
#include "mdl/MdlReader.h"

namespace {

// The length of line `number` (1-based) without its line end; -1 when the text has
// fewer lines.
long lineLength(std::string_view text, int number) {
  size_t start = 0;
  for (int line = 1; line < number; ++line) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) {
      return -1;
    }
    start = end + 1;
  }
  std::string_view line = text.substr(start, text.find('\n', start) - start);
  if (!line.empty() && line.back() == '\r') {
    line.remove_suffix(1);
  }
  return static_cast<long>(line.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(bytes), size);
  xrvlog::MdlReadResult result = xrvlog::MdlReader::read(text);
  if (!result.ok()) {
    const xrvlog::MdlError& error = result.error();
    require(!error.message.empty());
    require(error.line >= 1 && error.column >= 1);
    long length = lineLength(text, error.line);
    require(length < 0 ? error.column == 1 : error.column <= length + 1);
    return 0;
  }
  const xrvlog::MdlDocument& document = result.document();
  require(!document.application.empty() && !document.table.empty());
  require(!document.sources.empty() && document.sources.size() <= xrvlog::MdlLimits::kSources);
  for (const xrvlog::MdlSource& source : document.sources) {
    require(!source.name.empty());
  }
  require(!document.attributes.empty());
  for (const xrvlog::MdlAttribute& attribute : document.attributes) {
    require(attribute.size >= 1 && attribute.size <= document.maximumAttributeSize);
    for (const xrvlog::MdlFilter& filter : attribute.filters) {
      require(!filter.alternatives.empty());
      for (const xrvlog::MdlPattern& term : filter.alternatives) {
        require(!term.regex.empty());
      }
    }
  }
  return 0;
}
