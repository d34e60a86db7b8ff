#include "client/model/graphviz.h"

#include <fmt/format.h>

#include <map>
#include <set>
#include <string_view>

#include "kvox/common/fixed_text.h"

namespace kvox::client {
namespace {

/// As a quoted word. Names may hold any byte.
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

/// Buffers that a tap point is bound to.
struct Bound {
  std::set<std::string> tapouts;
  std::set<std::string> injects;
};

Bound BoundBuffers(const Snapshot& snapshot) {
  Bound bound;
  for (const TapPoint& tap : snapshot.taps) {
    bound.tapouts.insert(tap.tapout);
    bound.injects.insert(tap.inject);
  }
  return bound;
}

class Picture {
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

/// A tap point is drawn at each end where it is bound: it gives audio on the left and takes it on
/// the right.
void DrawTap(const TapPoint& tap, Picture& picture) {
  if (tap.tapout.empty() && tap.inject.empty()) {
    if (tap.enabled) picture.Node("tap " + tap.FullName(), tap.FullName(), "box", true, true);
    return;
  }
  if (!tap.tapout.empty()) {
    picture.Node("from " + tap.FullName(), tap.FullName(), "box", tap.enabled, false);
    picture.Edge("from " + tap.FullName(), tap.tapout, tap.enabled);
  }
  if (!tap.inject.empty()) {
    picture.Node("to " + tap.FullName(), tap.FullName(), "box", tap.enabled, false);
    picture.Edge(tap.inject, "to " + tap.FullName(), tap.enabled);
  }
}

void DrawBuffer(const Buffer& buffer, const std::set<std::string>& bound, Picture& picture) {
  const bool served =
      buffer.direction == Direction::kTapOut ? !buffer.consumers.empty() : !buffer.producer.empty();
  const bool has_tap = bound.contains(buffer.name);
  if (!served && !has_tap && !buffer.enabled) return;
  picture.Node(buffer.name, buffer.name, "cds", buffer.enabled, !served || !has_tap);
}

void DrawProcessor(const Processor& processor, Picture& picture) {
  const std::string name = "processor " + processor.id;
  picture.Node(name, processor.id + " (" + processor.type + ")", "ellipse", processor.enabled,
               processor.input.empty());
  if (!processor.input.empty()) picture.Edge(processor.input, name, processor.enabled);
  if (!processor.output.empty()) picture.Edge(name, processor.output, processor.enabled);
}

std::string Legend() {
  const struct {
    const char* name;
    bool on;
    bool lacking;
  } kRows[] = {{"on", true, false}, {"off", false, false}, {"lacks an end", true, true}};
  Picture picture;
  for (const auto& row : kRows) {
    picture.Node(std::string("legend ") + row.name, row.name, "box", row.on, row.lacking);
  }
  return "  subgraph cluster_legend {\n  label=\"legend\"; color=gray;\n" + picture.Take() +
         "  }\n";
}

}  // namespace

std::string GraphAsDot(const Snapshot& snapshot) {
  const Bound bound = BoundBuffers(snapshot);
  Picture picture;
  for (const Buffer& buffer : snapshot.tapouts) DrawBuffer(buffer, bound.tapouts, picture);
  for (const Buffer& buffer : snapshot.injects) DrawBuffer(buffer, bound.injects, picture);
  for (const TapPoint& tap : snapshot.taps) DrawTap(tap, picture);
  for (const Processor& processor : snapshot.processors) DrawProcessor(processor, picture);
  return "digraph kvox {\n  rankdir=LR;\n  node [fontname=\"sans-serif\"];\n" + picture.Take() +
         Legend() + "}\n";
}

}  // namespace kvox::client
