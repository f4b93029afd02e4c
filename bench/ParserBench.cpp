// Parse throughput of the definition reader against libxml2's SAX parser over the same
// 20 MB generated agent definition, both with callbacks that do nothing.
//
// Parser works in place, so each of its iterations first copies the document into a
// work buffer; BM_DefinitionCopy measures that copy alone so that it can be taken
// off (bench/run prints both figures). libxml2 reads the document where it stands.

#include <benchmark/benchmark.h>
#include <libxml/parser.h>

#include <cstring>
#include <string>
#include <vector>

#include "DefinitionGenerator.h"
#include "definition/Parser.h"
#include "definition/XMLHandler.h"

namespace {

constexpr size_t kDocumentBytes = 20 * 1000 * 1000;

const std::string& document() {
  static const std::string text = XRV::bench::generateDefinition(kDocumentBytes);
  return text;
}

// Overrides nothing: every callback is the base class's empty one.
class NothingHandler : public XMLHandler {};

void BM_DefinitionCopy(benchmark::State& state) {
  const std::string& text = document();
  std::vector<char> work(text.size() + 1);
  for (auto _ : state) {
    memcpy(work.data(), text.c_str(), text.size() + 1);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

template <typename ParserType>
void BM_DefinitionParser(benchmark::State& state) {
  const std::string& text = document();
  std::vector<char> work(text.size() + 1);
  NothingHandler handler;
  ParserType parser(&handler);
  for (auto _ : state) {
    memcpy(work.data(), text.c_str(), text.size() + 1);
    if (!parser.parse(work.data())) {
      state.SkipWithError("the generated definition does not parse");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void ignoreStart(void* /*context*/, const xmlChar* /*name*/, const xmlChar** /*attributes*/) {}
void ignoreEnd(void* /*context*/, const xmlChar* /*name*/) {}
void ignoreStartNs(void* /*context*/, const xmlChar* /*localName*/, const xmlChar* /*prefix*/,
                   const xmlChar* /*uri*/, int /*namespaceCount*/, const xmlChar** /*namespaces*/,
                   int /*attributeCount*/, int /*defaultedCount*/, const xmlChar** /*attributes*/) {
}
void ignoreEndNs(void* /*context*/, const xmlChar* /*localName*/, const xmlChar* /*prefix*/,
                 const xmlChar* /*uri*/) {}
void ignoreCharacters(void* /*context*/, const xmlChar* /*text*/, int /*length*/) {}

void parseWithLibXml2(benchmark::State& state, xmlSAXHandler* sax) {
  static const bool initialised = [] {
    xmlInitParser();
    return true;
  }();
  benchmark::DoNotOptimize(initialised);
  const std::string& text = document();
  for (auto _ : state) {
    if (xmlSAXUserParseMemory(sax, nullptr, text.data(), static_cast<int>(text.size())) != 0) {
      state.SkipWithError("libxml2 rejects the generated definition");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

// The peer: libxml2's SAX2 interface (startElementNs / endElementNs / characters), its
// default and on this document its faster one.
void BM_LibXml2Sax2(benchmark::State& state) {
  xmlSAXHandler sax;
  memset(&sax, 0, sizeof sax);
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElementNs = ignoreStartNs;
  sax.endElementNs = ignoreEndNs;
  sax.characters = ignoreCharacters;
  parseWithLibXml2(state, &sax);
}

// For reference: the SAX1 interface (startElement / endElement / characters), whose
// callbacks have the shape of XMLHandler's.
void BM_LibXml2Sax1(benchmark::State& state) {
  xmlSAXHandler sax;
  memset(&sax, 0, sizeof sax);
  sax.startElement = ignoreStart;
  sax.endElement = ignoreEnd;
  sax.characters = ignoreCharacters;
  parseWithLibXml2(state, &sax);
}

}  // namespace

BENCHMARK(BM_DefinitionCopy)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DefinitionParser<Parser>)->Name("BM_Parser")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DefinitionParser<DecodingParser>)
    ->Name("BM_DecodingParser")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibXml2Sax2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibXml2Sax1)->Unit(benchmark::kMillisecond);
