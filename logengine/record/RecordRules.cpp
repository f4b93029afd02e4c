// Compiling one MDL document's patterns into the rules every file thread of the
// table shares.

#include <algorithm>
#include <cstdint>

#include "record/AttributeValue.h"
#include "record/RecordBuilder.h"

namespace xrvlog {
namespace {

// PatternError says "filter N: ..." about the position in its own set; the MDL line
// and column say it better.
std::string withoutFilterNumber(const PatternError& error) {
  const std::string prefix = "filter " + std::to_string(error.pattern() + 1) + ": ";
  std::string message = error.what();
  if (message.starts_with(prefix)) {
    message.erase(0, prefix.size());
  }
  return message;
}

PatternSpec termSpec(const MdlPattern& term) {
  PatternSpec filter;
  filter.kind = term.kind == MdlPattern::Kind::Scan ? PatternKind::Scan : PatternKind::Whole;
  filter.expression = term.regex;
  if (term.replaceFirst) {
    filter.replacement = replacementFromTemplate(*term.replaceFirst);
  }
  return filter;
}

}  // namespace

RecordRuleError::RecordRuleError(int line, int column, const std::string& message)
    : std::runtime_error(message), line_(line), column_(column) {}

std::shared_ptr<const RecordRules> RecordRules::compile(const MdlDocument& document,
                                                        const MatchLimits& limits) {
  return compile(document, limits, kDefaultMaxRecordBytes);
}

std::shared_ptr<const RecordRules> RecordRules::compile(const MdlDocument& document,
                                                        const MatchLimits& limits,
                                                        std::size_t maxRecordBytes) {
  std::shared_ptr<RecordRules> rules(new RecordRules);
  rules->document_ = document;
  rules->maxRecordBytes_ = std::max<std::size_t>(maxRecordBytes, 1);
  rules->compileRecordSet(limits);
  rules->compileFields(limits);
  rules->compileFilters(limits);
  return rules;
}

const std::vector<RecordRules::PatternInfo>& RecordRules::patterns() const { return patterns_; }

const MdlDocument& RecordRules::document() const { return document_; }

std::size_t RecordRules::maxRecordBytes() const { return maxRecordBytes_; }

void RecordRules::compileRecordSet(const MatchLimits& limits) {
  if (!document_.recordSet) {
    return;
  }
  const MdlRecordSet& recordSet = *document_.recordSet;
  PatternSpec boundary{PatternKind::Scan, recordSet.pattern, {}, {}};
  try {
    boundary_ = PatternSet::compile({std::move(boundary)}, limits);
  } catch (const PatternError& error) {
    throw RecordRuleError(recordSet.line, recordSet.column, withoutFilterNumber(error));
  }
  patterns_.push_back({"", recordSet.pattern});
}

void RecordRules::compileFields(const MatchLimits& limits) {
  std::size_t taken = 0;  // fields taken by attributes, in order
  for (const MdlAttribute& mdl : document_.attributes) {
    Attribute attribute;
    attribute.name = mdl.name;
    attribute.type = mdl.type;
    attribute.size = static_cast<std::size_t>(mdl.size);
    if (mdl.type == AttributeType::RemoteHost) {
      attribute.value.source = Source::Host;
    } else if (document_.split == FieldSplit::Whole) {
      attribute.value.source = Source::Record;
    } else {
      attribute.value = {Source::Field, taken++};
    }
    attributes_.push_back(std::move(attribute));
  }
  if (document_.split == FieldSplit::Delimiter) {
    fieldCount_ = taken;
    for (const MdlAttribute& mdl : document_.attributes) {
      for (const MdlFilter& filter : mdl.filters) {
        for (const MdlPattern& term : filter.alternatives) {
          fieldCount_ = std::max(fieldCount_, static_cast<std::size_t>(term.input));
        }
      }
    }
    return;
  }
  if (document_.split != FieldSplit::Regex) {
    return;
  }
  // The attributes' groups first, then every group a filter reads.
  PatternSpec fieldPattern{PatternKind::Scan, document_.fieldRegex, {}, {}};
  for (const MdlAttribute& mdl : document_.attributes) {
    if (mdl.type != AttributeType::RemoteHost) {
      fieldPattern.fields.push_back({mdl.name, mdl.group.empty() ? mdl.name : mdl.group});
    }
  }
  for (const MdlAttribute& mdl : document_.attributes) {
    for (const MdlFilter& filter : mdl.filters) {
      for (const MdlPattern& term : filter.alternatives) {
        const auto group = static_cast<std::size_t>(term.input);
        if (group == 0) {
          continue;
        }
        if (groupFields_.size() <= group) {
          groupFields_.resize(group + 1, SIZE_MAX);
        }
        if (groupFields_[group] == SIZE_MAX) {
          groupFields_[group] = fieldPattern.fields.size();
          fieldPattern.fields.push_back({"input " + std::to_string(group), std::to_string(group)});
        }
      }
    }
  }
  try {
    fieldSet_ = PatternSet::compile({std::move(fieldPattern)}, limits);
  } catch (const PatternError& error) {
    throw RecordRuleError(document_.fieldRegexLine, document_.fieldRegexColumn,
                          withoutFilterNumber(error));
  }
  patterns_.push_back({"", document_.fieldRegex});
}

RecordRules::Input RecordRules::inputFor(int input) const {
  if (input == 0) {
    return {Source::Record, 0};
  }
  const auto number = static_cast<std::size_t>(input);
  switch (document_.split) {
    case FieldSplit::Whole:
      // The record is the one field.
      return {number == 1 ? Source::Record : Source::Empty, 0};
    case FieldSplit::Delimiter:
      return {Source::Field, number - 1};
    case FieldSplit::Regex:
      return {Source::Field, groupFields_.at(number)};
  }
  return {};
}

void RecordRules::compileFilters(const MatchLimits& limits) {
  for (std::size_t index = 0; index < document_.attributes.size(); ++index) {
    const MdlAttribute& mdl = document_.attributes[index];
    for (const MdlFilter& mdlFilter : mdl.filters) {
      Filter filter;
      filter.drop = mdlFilter.drop;
      const std::vector<MdlPattern>& terms = mdlFilter.alternatives;
      for (std::size_t first = 0; first < terms.size();) {
        std::size_t end = first + 1;
        while (end < terms.size() && terms[end].input == terms[first].input) {
          ++end;
        }
        std::vector<PatternSpec> filters;
        for (std::size_t term = first; term < end; ++term) {
          filters.push_back(termSpec(terms[term]));
        }
        TermRun run;
        run.input = inputFor(terms[first].input);
        run.firstPattern = patterns_.size();
        try {
          run.set = PatternSet::compile(std::move(filters), limits);
        } catch (const PatternError& error) {
          const MdlPattern& bad = terms[first + error.pattern()];
          throw RecordRuleError(bad.line, bad.column, withoutFilterNumber(error));
        }
        for (std::size_t term = first; term < end; ++term) {
          patterns_.push_back({mdl.name, terms[term].regex});
        }
        run.index = runCount_++;
        filter.runs.push_back(std::move(run));
        first = end;
      }
      attributes_[index].filters.push_back(std::move(filter));
    }
  }
}

}  // namespace xrvlog
