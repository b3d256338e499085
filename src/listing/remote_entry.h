// One line of a server's LIST answer, parsed.
//
// Two line styles are accepted: the Unix long listing of "ls -l" and the DOS
// style (date first, then "<DIR>" or a size). The entry keeps the raw line and,
// per named field, the range of the line that the field matched; fields are
// read as text and never converted. A line that fits neither style throws
// "Unable to parse FTP LIST output '<line>'".

#ifndef BRINDLE_LISTING_REMOTE_ENTRY_H_
#define BRINDLE_LISTING_REMOTE_ENTRY_H_

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

class RemoteEntry {
 public:
  // The named fields of the pattern. `name` stays the last one: the count
  // of fields is taken from it.
  enum class Field {
    type,
    permission,
    filecode,
    owner,
    group,
    size,
    date,
    name
  };

  // The value of one field. A field that took no part in the match reads as
  // empty text.
  struct Capture {
    std::string_view text;
    bool matched = false;
    bool operator==(std::string_view other) const { return text == other; }
  };

  // Takes the line over and parses it; throws TorvaneUtilException when the
  // line does not match.
  explicit RemoteEntry(std::string line);

  const std::string& line() const { return line_; }
  Capture capture(Field field) const;

  // Type "d" or "<DIR>".
  bool is_directory() const;

  // The name. For a symbolic link (type "l") the text before " -> ", or with
  // want_target the text after it; a link name without " -> " yields its
  // text from the fourth character on (std::out_of_range when it is shorter
  // than three characters).
  std::string entry_name(bool want_target) const;
  // The same, as a view into line().
  std::string_view entry_name_view(bool want_target) const;

  // The regular expression text, exactly as matched.
  static const char* pattern_text();

 private:
  struct Range {
    std::size_t offset = 0;
    std::size_t length = 0;
    bool matched = false;
  };
  // One range per field, indexed by Field, whose last field is `name`.
  static constexpr std::size_t kFieldCount =
      static_cast<std::size_t>(Field::name) + 1;

  std::string line_;
  std::array<Range, kFieldCount> fields_;
};

#endif  // BRINDLE_LISTING_REMOTE_ENTRY_H_
