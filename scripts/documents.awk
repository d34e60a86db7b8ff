# Holds docs/troubleshooting.md and the log lines of the sources against each other: first the sources,
# then the document. A line is what the first column of a table quotes.
#
# - Every fixed part of a line of the document, between two "…", must stand in a source.
# - Every warning and error whose text is written in a source must be a line of the document.

FILENAME !~ /\.md$/ {
  text = text $0 " "
  next
}

!joined {
  gsub(/"[ \t]*"/, "", text) # a literal that goes on in the next line
  joined = 1
}

/^\| `/ {
  split($0, columns, "|")
  count = split(columns[2], quoted, "`")
  for (q = 2; q <= count; q += 2) {
    lines[++line_count] = quoted[q]
    parts = split(quoted[q], part, "…")
    for (p = 1; p <= parts; ++p) {
      if (length(part[p]) < 5 || index(text, part[p]) > 0) continue
      print FILENAME ":" FNR ": no source logs \"" part[p] "\""
      failed = 1
    }
  }
}

# Whether the parts of `line` stand in `literal` one after the other.
function fits(line, literal, parts, part, p, at) {
  parts = split(line, part, "…")
  for (p = 1; p <= parts; ++p) {
    if (part[p] == "") continue
    at = index(literal, part[p])
    if (at == 0) return 0
    literal = substr(literal, at + length(part[p]))
  }
  return 1
}

function is_explained(literal, l) {
  for (l = 1; l <= line_count; ++l) if (fits(lines[l], literal)) return 1
  return 0
}

END {
  while (match(text, /Log(Priority::k)?(Warning|Error)(\(|, k[A-Za-z]*,)[ \t]*"([^"\\]|\\.)*"/)) {
    literal = substr(text, RSTART, RLENGTH)
    text = substr(text, RSTART + RLENGTH)
    gsub(/^[^"]*"|\\n|"$/, "", literal)
    words = literal
    gsub(/%[0-9.]*[a-z]+/, "", words)
    # A line that is made elsewhere ("%s") is also the answer to the client who asked.
    if (words ~ /[a-z]/ && !is_explained(literal)) {
      print "docs/troubleshooting.md: does not explain the log line \"" literal "\""
      failed = 1
    }
  }
  exit failed
}
