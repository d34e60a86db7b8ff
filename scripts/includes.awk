# Holds every quoted include against the table of scripts/includes.txt, which is the first file.

# The headers that the interface's contract stands for are included as aidl/kvox/….
function folder(path) {
  if (path ~ /^kvox\/common\//) return "kvox/common"
  if (path ~ /^aidl\/kvox\//) return "interface"
  sub(/\/.*/, "", path)
  return path
}

FILENAME == ARGV[1] {
  if ($0 !~ /^#/ && NF > 0) {
    known[$1] = 1
    allowed[$1] = " " $0 " "
  }
  next
}

FNR == 1 {
  room = folder(FILENAME)
  if (!(room in known)) {
    print FILENAME ": folder " room " is not in scripts/includes.txt"
    failed = 1
  }
}

/^#include "/ {
  split($0, parts, "\"")
  target = folder(parts[2])
  if (allowed[room] ~ / \* /) next
  if (index(allowed[room], " " target " ") == 0) {
    print FILENAME ":" FNR ": " room " may not include " target " (" parts[2] ")"
    failed = 1
  }
}

END { exit failed }
