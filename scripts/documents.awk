# Holds the log lines that docs/troubleshooting.md names against the sources: first the sources, then
# the document. Every fixed part of a line, between two "…", must stand in a source. A line is what
# the first column of a table quotes.

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
    parts = split(quoted[q], part, "…")
    for (p = 1; p <= parts; ++p) {
      if (length(part[p]) < 5 || index(text, part[p]) > 0) continue
      print FILENAME ":" FNR ": no source logs \"" part[p] "\""
      failed = 1
    }
  }
}

END { exit failed }
