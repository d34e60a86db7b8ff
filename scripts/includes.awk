# Checks includes against two tables, the first two files: ours, quoted, against
# scripts/includes.txt; third-party ones, in angle brackets, against scripts/includes_of_others.txt.

# Headers generated from the interface's contract are included as aidl/kvox/….
function folder(path) {
  if (match(path, /^(kvox\/(common|flight|sound|toml)|platform\/(linux|android))\//)) return substr(path, 1, RLENGTH - 1)
  if (path ~ /^aidl\/kvox\//) return "interface"
  sub(/\/.*/, "", path)
  return path
}

# Folders that are built only for Linux hosts.
function host_only(room) {
  return room ~ /^(platform\/linux|sim|manual|bench|examples|tests|fuzz)$/
}

function complain(room, header) {
  print FILENAME ":" FNR ": " room " may not include " header
  failed = 1
}

# Whether a row of the second table allows the header in the folder.
function offered(header, room, row) {
  if (header !~ /\./) return 1
  for (row in offers) {
    if (row != header && !(row ~ /\*$/ && index(header, substr(row, 1, length(row) - 1)) == 1)) continue
    if (offers[row] == "*" || index("," offers[row] ",", "," room ",") > 0) return 1
  }
  return 0
}

FILENAME == ARGV[1] {
  if ($0 !~ /^#/ && NF > 0) {
    known[$1] = 1
    allowed[$1] = " " $0 " "
  }
  next
}

FILENAME == ARGV[2] {
  if ($0 !~ /^#/ && NF > 0) offers[$1] = $2
  next
}

FNR == 1 {
  room = folder(FILENAME)
  if (!(room in known)) {
    print FILENAME ": folder " room " is not in scripts/includes.txt"
    failed = 1
  }
}

/^ *# *include "/ {
  split($0, parts, "\"")
  target = folder(parts[2])
  if (allowed[room] ~ / \* /) next
  if (index(allowed[room], " " target " ") == 0) complain(room, target " (" parts[2] ")")
}

/^ *# *include </ {
  split($0, parts, /[<>]/)
  if (!host_only(room) && !offered(parts[2], room)) complain(room, "<" parts[2] ">; see scripts/includes_of_others.txt")
}

END { exit failed }
