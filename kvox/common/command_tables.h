// The text tables of IKvox commands. The service prints them with these formats; kvoxctl and the
// test campaign parse them with the same widths and words.
//
// A table is a header, then one line per object. A line starts with two blanks; columns are
// left-aligned with one blank between them. A value that is wider than its column moves the rest of
// its line to the right.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kvox {

/// Blanks before a line's first column, and between columns.
inline constexpr size_t kRowIndent = 2;
inline constexpr size_t kColumnGap = 1;

/// Width of every column that has no width of its own below.
inline constexpr size_t kColumnWidth = 9;

/// How each header starts; no row starts like this.
inline constexpr char kTableHeaderStart[] = "  Id  ";

/// In a column: no buffer, no processor.
inline constexpr char kNoneInTable[] = "-";

// ListProcessors: the title, then "  none" or the table, all in one text.
inline constexpr char kProcessorTableTitle[] = "Kvox processors: ";
inline constexpr char kNoProcessorsInTable[] = "  none";
inline constexpr char kProcessorTableHeader[] =
    "\n  Id        Type      InBuffer  OutBuffer Enabled  ";
/// Id, type, tap-out buffer, inject buffer, enabled (0 or 1).
inline constexpr char kProcessorTableRow[] = "\n  %-9s %-9s %-9s %-9s %-9u";

// TapList, TapInfo. The tap point's name has two columns: the code, and the index after a dot.
inline constexpr char kTapTableHeader[] =
    "  Id        Format              BlockLen  NonInterl JitterBuf OutBuffer InBuffer  Enabled  ";
/// Code, index, format, block length, non-interleaved samples, jitter buffer, tap-out buffer,
/// inject buffer, enabled.
inline constexpr char kTapTableRow[] = "\n  %4s.%-2u   %-19s %-9u %-9u %-9u %-9s %-9s %-9u";
inline constexpr size_t kTapCodeWidth = 4;
inline constexpr size_t kTapIndexWidth = 2;
inline constexpr size_t kTapNameGap = 3;  // blanks after the index
inline constexpr size_t kTapFormatWidth = 19;
/// kHz, channels, letter of the encoding, bits: "48kHz, 2ch, i16".
inline constexpr char kTapFormat[] = "%gkHz, %uch, %c%u";
inline constexpr char kTapListFailed[] = "  No tap points";
inline constexpr char kTapListEmpty[] = "  No tap points registered";

// ListTapOutBuffers and ListInjectBuffers differ in the header's end, the id's sign and the text
// for no buffers.
inline constexpr char kTapOutTableTitle[] = "Tap-out buffers:";
inline constexpr char kTapOutTableHeader[] = "  Id        Name      InProc    OutProc   Enabled";
/// Number, name, the processor that writes it, those that read it (comma-separated), enabled.
inline constexpr char kTapOutTableRow[] = "\n  %-9d %-9s %-9s %-9s %-9u";
inline constexpr char kNoTapOuts[] = "  none\n";
inline constexpr char kInjectTableTitle[] = "Inject buffers:";
inline constexpr char kInjectTableHeader[] = "  Id        Name      InProc    OutProc   Enabled  ";
inline constexpr char kInjectTableRow[] = "\n  %-9u %-9s %-9s %-9s %-9u";
inline constexpr char kNoInjects[] = "  none";

// ShowGraph: a line per processor, five stations with arrows between them:
// tap point, tap-out buffer, processor, inject buffer, tap point.
inline constexpr char kGraphTitle[] = "Connection graph:";
inline constexpr char kGraphEmpty[] = "  No Kvox processors";
inline constexpr char kGraphArrow[] = " --> ";
inline constexpr size_t kGraphStations = 5;
inline constexpr char kNotConnected[] = "NC";
/// After the name of a tap point or processor that is off.
inline constexpr char kGraphDisabled[] = " (disabled)";
/// Cores of the co-processor whose tap points the graph shows.
inline constexpr int kGraphCores[] = {2, 3, 4};

// Block length and jitter buffer of a processor, in frames: both have the same range, and only the
// block length goes in steps.
inline constexpr uint32_t kMinBlockLength = 480;
inline constexpr uint32_t kMaxBlockLength = 24000;
inline constexpr uint32_t kBlockLengthStep = 480;
inline constexpr uint32_t kDefaultBlockLength = 4800;
/// The same for help and messages.
inline constexpr char kBlockLengthRange[] = "480 to 24000 frames in steps of 480";
inline constexpr char kJitterBufferRange[] = "480 to 24000 frames";

// Lines of the debug command "health": what is wrong and shown by no list.
inline constexpr char kHealthWord[] = "health";
inline constexpr char kHealthGaveUp[] =
    "gave up: ";  // a tap-out buffer whose device failed for good
inline constexpr char kHealthNoCore[] =
    "no core: ";  // one that the co-processor has refused to list

/// A capture that runs, or the last one when it failed, with tabs between the fields: buffer,
/// "recording" or "failed", samples, cause, file.
inline constexpr char kHealthCapture[] = "capture\t";
inline constexpr char kCaptureRecording[] = "recording";
inline constexpr char kCaptureFailed[] = "failed";

/// Statistics entries of one processor: more would not fit into one reply of the transport (1 MiB).
inline constexpr uint32_t kMaxStatsEntries = ((1u << 20) - 4096) / sizeof(float);

}  // namespace kvox
