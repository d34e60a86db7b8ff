// A manual page in the language of man(7). Pure.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kvox/common/help_text.h"

namespace kvox::manual {

/// What the pages have in common.
struct Edition {
  std::string version;  // "1.2.0"
  std::string date;     // "2026-11-21"
};

/// The text as it is to be read, whatever it holds. Throws std::invalid_argument when a character
/// is no printable one of ASCII.
std::string Escaped(std::string_view text);

/// A usage such as "tap gain TAP [--ramp MS]": capitals are placeholders, the rest is typed.
std::string Styled(std::string_view usage);

/// A page, written from its top to its end. Texts are taken as they are to be read.
class Page {
 public:
  /// `summary` goes on from "kvoxctl - ".
  Page(std::string_view name, int section, std::string_view summary, const Edition& edition);

  void Section(std::string_view title);
  void Subsection(std::string_view title);
  void Synopsis(const std::vector<std::string>& usages);
  void Paragraph(std::string_view text);

  /// A usage and what it does. More() belongs to it too.
  void Term(std::string_view usage, std::string_view text);
  void Terms(const std::vector<HelpRow>& rows);

  /// Within a Term: closely set rows; a text.
  void MoreTerms(const std::vector<HelpRow>& rows);
  void More(std::string_view text);

  /// A text whose lines that begin with a blank keep their shape.
  void MoreLines(std::string_view text);

  /// Lines to type.
  void Example(const std::vector<std::string>& lines);

  /// "kvoxd(8), kvosim(1)"; last.
  void SeeAlso(const std::vector<std::string>& pages);

  const std::string& text() const { return text_; }

 private:
  void Line(std::string_view line);
  void Verbatim(const std::vector<std::string>& lines);
  void Begin();

  std::string text_;
  bool begun_ = false;  // whether the section has text already
};

}  // namespace kvox::manual
