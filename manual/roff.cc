#include "manual/roff.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace kvox::manual {
namespace {

constexpr struct {
  char character;
  const char* written;
} kSpecial[] = {
    {'\\', "\\e"},  {'-', "\\-"},   {'\'', "\\(aq"}, {'`', "\\(ga"},
    {'^', "\\(ha"}, {'~', "\\(ti"}, {'"', "\\(dq"},
};

std::string Escaped(char c) {
  if (c < ' ' || c > '~') {
    throw std::invalid_argument("a manual page may hold printable ASCII only, not character " +
                                std::to_string(static_cast<unsigned char>(c)));
  }
  for (const auto& row : kSpecial) {
    if (row.character == c) return row.written;
  }
  return {c};
}

bool IsOfWord(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-';
}

bool IsPlaceholder(std::string_view word) {
  const auto is_upper = [](unsigned char c) { return std::isupper(c) != 0; };
  const auto is_typed = [](unsigned char c) { return std::islower(c) != 0 || c == '-'; };
  return std::any_of(word.begin(), word.end(), is_upper) &&
         std::none_of(word.begin(), word.end(), is_typed);
}

std::vector<std::string> Lines(std::string_view text) {
  std::vector<std::string> lines;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    lines.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return lines;
}

std::string Capitals(std::string_view text) {
  std::string capitals(text);
  std::transform(capitals.begin(), capitals.end(), capitals.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return capitals;
}

}  // namespace

std::string Escaped(std::string_view text) {
  std::string escaped;
  // A line that begins with one of these is a request.
  if (text.starts_with('.') || text.starts_with('\'')) escaped = "\\&";
  for (const char c : text) escaped += Escaped(c);
  return escaped;
}

std::string Styled(std::string_view usage) {
  std::string styled;
  while (!usage.empty()) {
    const auto begin = std::find_if(usage.begin(), usage.end(), IsOfWord);
    const auto end = std::find_if_not(begin, usage.end(), IsOfWord);
    for (auto between = usage.begin(); between != begin; ++between) styled += Escaped(*between);
    const std::string_view word(begin, end);
    if (!word.empty()) {
      styled += (IsPlaceholder(word) ? "\\fI" : "\\fB") + Escaped(word) + "\\fR";
    }
    usage.remove_prefix(static_cast<size_t>(end - usage.begin()));
  }
  return styled;
}

Page::Page(std::string_view name, int section, std::string_view summary, const Edition& edition) {
  Line(".TH " + Capitals(name) + " " + std::to_string(section) + " " + edition.date + " \"kvox " +
       Escaped(edition.version) + "\" \"kvox manual\"");
  Section("Name");
  Line(Escaped(name) + " \\- " + Escaped(summary));
}

void Page::Section(std::string_view title) {
  Line(".SH " + Escaped(Capitals(title)));
  begun_ = false;
}

void Page::Subsection(std::string_view title) {
  Line(".SS " + Escaped(title));
  begun_ = false;
}

void Page::Synopsis(const std::vector<std::string>& usages) {
  for (const std::string& usage : usages) {
    if (begun_) Line(".br");
    Line(Styled(usage));
    begun_ = true;
  }
}

void Page::Paragraph(std::string_view text) {
  Begin();
  for (const std::string& line : Lines(text)) Line(Escaped(line));
}

void Page::Term(std::string_view usage, std::string_view text) {
  Line(".TP");
  Line(Styled(usage));
  for (const std::string& line : Lines(text)) Line(Escaped(line));
  begun_ = true;
}

void Page::Terms(const std::vector<HelpRow>& rows) {
  for (const HelpRow& row : rows) Term(row.what, row.help);
}

void Page::MoreTerms(const std::vector<HelpRow>& rows) {
  if (rows.empty()) return;
  Line(".RS");
  Line(".PD 0");
  Terms(rows);
  Line(".PD");
  Line(".RE");
}

void Page::More(std::string_view text) {
  Line(".IP");
  for (const std::string& line : Lines(text)) Line(Escaped(line));
}

void Page::MoreLines(std::string_view text) {
  std::string prose;
  std::vector<std::string> shaped;
  const auto flush = [&] {
    if (!prose.empty()) More(prose);
    if (!shaped.empty()) Line(".IP");
    Verbatim(shaped);
    prose.clear();
    shaped.clear();
  };
  for (const std::string& line : Lines(text)) {
    const bool shape = line.starts_with(' ');
    if (shape ? !prose.empty() : !shaped.empty()) flush();
    if (shape) {
      shaped.push_back(line);
    } else if (!line.empty()) {
      prose += line + "\n";
    }
  }
  flush();
}

void Page::Example(const std::vector<std::string>& lines) {
  Begin();
  Line(".RS 4");
  Verbatim(lines);
  Line(".RE");
}

void Page::SeeAlso(const std::vector<std::string>& pages) {
  Section("See also");
  for (const std::string& page : pages) {
    const size_t bracket = page.find('(');
    Line(".BR " + Escaped(page.substr(0, bracket)) + " " + Escaped(page.substr(bracket)) +
         (&page == &pages.back() ? "" : ","));
  }
}

void Page::Line(std::string_view line) {
  text_ += line;
  text_ += '\n';
}

void Page::Verbatim(const std::vector<std::string>& lines) {
  if (lines.empty()) return;
  Line(".EX");
  for (const std::string& line : lines) Line(Escaped(line));
  Line(".EE");
}

void Page::Begin() {
  if (begun_) Line(".PP");
  begun_ = true;
}

}  // namespace kvox::manual
