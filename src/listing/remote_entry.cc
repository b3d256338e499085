#include "listing/remote_entry.h"

#include <boost/regex.hpp>

#include <cstddef>
#include <iterator>

#include "util/torvane_util_exception.h"

namespace {

constexpr const char* kPattern =
    R"(^((?<type>[-bcCdDlMnpPs?])(?<permission>[-r][-w][-xsS][-r][-w][-xsS][-r][-w][-xsStT])\s+(?<filecode>\d+)\s+(?<owner>\S+)\s+(?<group>\S+)\s+(?<size>\d+)\s+(?<date>(\w{3}\s+\d{1,2}\s+\d{1,2}:\d{2})|(\w{3}\s+\d{1,2}\s+\d{4}))\s+(?<name>.+))|((?<date>\d{1,4}[\.-]\d{2}[\.-]\d{1,4}\s+\d{1,2}:\d{2}([AP]M)?)\s+((?<type>[^0-9\s]+)|(?<size>\d+))\s+(?<name>.+))$)";

// The capture name of each field in the pattern, in the order of Field.
struct FieldName {
  RemoteEntry::Field field;
  const char* name;
};
using Field = RemoteEntry::Field;
constexpr FieldName kFieldNames[] = {
    {Field::type, "type"},         {Field::permission, "permission"},
    {Field::filecode, "filecode"}, {Field::owner, "owner"},
    {Field::group, "group"},       {Field::size, "size"},
    {Field::date, "date"},         {Field::name, "name"}};

// Each field's name stands at the field's own index, and every field has one.
constexpr bool names_follow_fields() {
  constexpr std::size_t count = static_cast<std::size_t>(Field::name) + 1;
  if (std::size(kFieldNames) != count) return false;
  for (std::size_t i = 0; i < count; ++i)
    if (kFieldNames[i].field != static_cast<Field>(i)) return false;
  return true;
}
static_assert(names_follow_fields(), "kFieldNames follows RemoteEntry::Field");

// Compiled on first use and kept for the rest of the run.
const boost::regex& list_line_pattern() {
  static const boost::regex pattern(kPattern);
  return pattern;
}

}  // namespace

const char* RemoteEntry::pattern_text() { return kPattern; }

RemoteEntry::RemoteEntry(std::string line) : line_(std::move(line)) {
  boost::smatch match;
  if (!boost::regex_match(line_, match, list_line_pattern())) {
    throw torvane::TorvaneUtilException("Unable to parse FTP LIST output '" +
                                        line_ + "'");
  }
  // A name used in both branches reads as its leftmost group that matched,
  // which is what the library returns for a repeated name.
  for (std::size_t i = 0; i < kFieldCount; ++i) {
    const auto& sub = match[kFieldNames[i].name];
    if (!sub.matched) continue;
    fields_[i].offset = static_cast<std::size_t>(sub.first - line_.begin());
    fields_[i].length = static_cast<std::size_t>(sub.length());
    fields_[i].matched = true;
  }
}

RemoteEntry::Capture RemoteEntry::capture(Field field) const {
  const Range& range = fields_[static_cast<std::size_t>(field)];
  if (!range.matched) return {};
  return {.text = std::string_view(line_).substr(range.offset, range.length),
          .matched = true};
}

bool RemoteEntry::is_directory() const {
  const Capture type = capture(Field::type);
  return type == "d" || type == "<DIR>";
}

std::string RemoteEntry::entry_name(bool want_target) const {
  return std::string(entry_name_view(want_target));
}

std::string_view RemoteEntry::entry_name_view(bool want_target) const {
  const std::string_view name = capture(Field::name).text;
  if (capture(Field::type) == "l") {
    const auto arrow = name.find(" -> ");
    if (!want_target) return name.substr(0, arrow);
    // Without an arrow, npos + 4 wraps to 3: the name from its fourth
    // character on, out of range for a name shorter than three characters.
    return name.substr(arrow + 4);
  }
  return name;
}
