#include "SampleOutput.h"

#include <algorithm>
#include <ostream>

#include <nlohmann/json.hpp>

namespace {

std::string cellText(const DecodedColumn& cell) {
  return cell.isNumber() ? std::to_string(cell.number) : cell.text;
}

// Characters on the screen: UTF-8 continuation bytes take no room.
size_t displayWidth(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void pad(std::ostream& out, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    out << ' ';
  }
}

std::string csvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos &&
      (text.empty() || (text.front() != ' ' && text.back() != ' '))) {
    return text;
  }
  std::string quoted = "\"";
  for (char c : text) {
    quoted += c;
    if (c == '"') {
      quoted += '"';
    }
  }
  return quoted + "\"";
}

}  // namespace

void printSampleTable(const std::vector<SampledGroup>& groups, std::ostream& out) {
  for (size_t g = 0; g < groups.size(); ++g) {
    const SampledGroup& sampled = groups[g];
    out << (g == 0 ? "" : "\n") << sampled.group << " (" << sampled.table
        << "): " << sampled.rows.size() << (sampled.rows.size() == 1 ? " row" : " rows") << "\n";
    std::vector<size_t> width(sampled.columns.size());
    for (size_t c = 0; c < sampled.columns.size(); ++c) {
      width[c] = displayWidth(sampled.columns[c]);
    }
    std::vector<std::vector<std::string>> cells;
    cells.reserve(sampled.rows.size());
    for (const auto& row : sampled.rows) {
      cells.emplace_back();
      for (size_t c = 0; c < row.size() && c < width.size(); ++c) {
        cells.back().push_back(cellText(row[c]));
        width[c] = std::max(width[c], displayWidth(cells.back().back()));
      }
    }
    auto line = [&](const std::vector<std::string>& values) {
      for (size_t c = 0; c < values.size(); ++c) {
        const size_t room = width[c] - displayWidth(values[c]);
        const bool last = c + 1 == values.size();
        if (sampled.numeric[c]) {
          pad(out, room);
          out << values[c];
        } else {
          out << values[c];
          if (!last) {
            pad(out, room);
          }
        }
        out << (last ? "\n" : "  ");
      }
    };
    line(sampled.columns);
    for (const auto& row : cells) {
      line(row);
    }
  }
}

void printSampleJson(const std::vector<SampledGroup>& groups, std::ostream& out) {
  using Json = nlohmann::ordered_json;
  Json document = Json::array();
  for (const SampledGroup& sampled : groups) {
    Json rows = Json::array();
    for (const auto& row : sampled.rows) {
      Json object = Json::object();
      for (const DecodedColumn& cell : row) {
        object[cell.name] = cell.isNumber() ? Json(cell.number) : Json(cell.text);
      }
      rows.push_back(std::move(object));
    }
    document.push_back({{"group", sampled.group},
                        {"table", sampled.table},
                        {"node", sampled.node},
                        {"rows", std::move(rows)}});
  }
  out << document.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

void printSampleCsv(const std::vector<SampledGroup>& groups, std::ostream& out) {
  for (size_t g = 0; g < groups.size(); ++g) {
    const SampledGroup& sampled = groups[g];
    out << (g == 0 ? "" : "\n");
    for (size_t c = 0; c < sampled.columns.size(); ++c) {
      out << (c == 0 ? "" : ",") << csvField(sampled.columns[c]);
    }
    out << "\n";
    for (const auto& row : sampled.rows) {
      for (size_t c = 0; c < row.size(); ++c) {
        out << (c == 0 ? "" : ",") << csvField(cellText(row[c]));
      }
      out << "\n";
    }
  }
}
