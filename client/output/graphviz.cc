#include "client/output/graphviz.h"

#include <fmt/format.h>

#include <set>
#include <string_view>

#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

/// As a quoted string. Names may hold any byte.
std::string Quoted(const std::string& text) {
  std::string quoted;
  for (const char c : ValidUtf8(text)) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c >= '\0' && c < ' ' ? '?' : c;
  }
  return '"' + quoted + '"';
}

const char* Style(bool on) {
  return on ? "style=solid, color=darkgreen" : "style=dashed, color=gray40, fontcolor=gray40";
}

constexpr char kLacking[] = "color=red, penwidth=2";

class DotWriter {
 public:
  void Node(const std::string& name, const std::string& label, const char* shape, bool on,
            bool lacking) {
    text_ += fmt::format("  {} [label={}, shape={}, {}{}{}];\n", Quoted(name), Quoted(label), shape,
                         Style(on), lacking ? ", " : "", lacking ? kLacking : "");
  }
  void Edge(const std::string& from, const std::string& to, bool on) {
    text_ += fmt::format("  {} -> {} [{}];\n", Quoted(from), Quoted(to), Style(on));
  }
  std::string Take() { return std::move(text_); }

 private:
  std::string text_;
};

/// A tap point is drawn at each end where it is bound: it provides audio on the left and receives
/// it on the right.
void DrawTap(const TapPoint& tap, DotWriter& dot) {
  if (tap.tapout.empty() && tap.inject.empty()) {
    if (tap.enabled) dot.Node("tap " + tap.FullName(), tap.FullName(), "box", true, true);
    return;
  }
  if (!tap.tapout.empty()) {
    dot.Node("from " + tap.FullName(), tap.FullName(), "box", tap.enabled, false);
    dot.Edge("from " + tap.FullName(), tap.tapout, tap.enabled);
  }
  if (!tap.inject.empty()) {
    dot.Node("to " + tap.FullName(), tap.FullName(), "box", tap.enabled, false);
    dot.Edge(tap.inject, "to " + tap.FullName(), tap.enabled);
  }
}

/// `bound` holds the names of buffers that a tap point is bound to.
void DrawBuffer(const Buffer& buffer, const std::set<std::string>& bound, DotWriter& dot) {
  const bool served =
      buffer.direction == Direction::kTapOut ? !buffer.consumers.empty() : !buffer.producer.empty();
  const bool has_tap = bound.contains(buffer.name);
  if (!served && !has_tap && !buffer.enabled) return;
  dot.Node(buffer.name, buffer.name, "cds", buffer.enabled, !served || !has_tap);
}

void DrawProcessor(const Processor& processor, DotWriter& dot) {
  const std::string name = "processor " + processor.id;
  dot.Node(name, processor.id + " (" + processor.type + ")", "ellipse", processor.enabled,
           processor.input.empty());
  if (!processor.input.empty()) dot.Edge(processor.input, name, processor.enabled);
  if (!processor.output.empty()) dot.Edge(name, processor.output, processor.enabled);
}

std::string Legend() {
  const struct {
    const char* name;
    bool on;
    bool lacking;
  } kRows[] = {{"on", true, false}, {"off", false, false}, {"lacks an end", true, true}};
  DotWriter dot;
  for (const auto& row : kRows) {
    dot.Node(std::string("legend ") + row.name, row.name, "box", row.on, row.lacking);
  }
  return "  subgraph cluster_legend {\n  label=\"legend\"; color=gray;\n" + dot.Take() + "  }\n";
}

}  // namespace

std::string GraphAsDot(const Snapshot& snapshot) {
  std::set<std::string> bound;
  for (const TapPoint& tap : snapshot.taps) bound.insert({tap.tapout, tap.inject});
  DotWriter dot;
  for (const auto* buffers : {&snapshot.tapouts, &snapshot.injects}) {
    for (const Buffer& buffer : *buffers) DrawBuffer(buffer, bound, dot);
  }
  for (const TapPoint& tap : snapshot.taps) DrawTap(tap, dot);
  for (const Processor& processor : snapshot.processors) DrawProcessor(processor, dot);
  return "digraph kvox {\n  rankdir=LR;\n  node [fontname=\"sans-serif\"];\n" + dot.Take() +
         Legend() + "}\n";
}

}  // namespace kvox::client
