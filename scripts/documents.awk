# Compares docs/troubleshooting.md with the log lines of the sources. The input is the sources, then
# the document, whose lines are the quotes in the first column of its tables.
#
# - Every fixed part of a line of the document, between two "…", must be in a source.
# - Every warning and error with a literal text in a source must be a line of the document.

FILENAME !~ /\.md$/ {
  text = text $0 " "
  next
}

!joined {
  gsub(/"[ \t]*"/, "", text) # a literal that continues on the next line
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

# Whether `literal` has the parts of `line` in order.
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
    # A line made elsewhere ("%s") is also in the reply to the client.
    if (words ~ /[a-z]/ && !is_explained(literal)) {
      print "docs/troubleshooting.md: does not explain the log line \"" literal "\""
      failed = 1
    }
  }
  exit failed
}
