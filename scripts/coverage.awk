# Sums up line coverage: the first file lists all sources, the second is the export of llvm-cov.
# `root` is the tree's folder with a slash, `least` the required percentage.

function group(path) {
  if (path ~ /(^|\/)main\.cc$/) return "main.cc files"
  if (path ~ /^kvox\/common\//) return "kvox/common"
  sub(/\/.*/, "", path)
  return path
}

function ignored(path) { return path ~ /^(tests|bench|fuzz)\// || path ~ /_test\.cc$/ }

function percent(ran, all) { return all == 0 ? 100 : 100 * ran / all }

function row(name, ran, all) {
  printf "  %-44s %6d %6d %6.1f %%\n", name, all, all - ran, percent(ran, all)
}

# Prints the `count` names with the highest weights.
function print_most(count, weights,    i, name, most) {
  for (i = 0; i < count; ++i) {
    most = ""
    for (name in weights) {
      if (weights[name] > 0 && (most == "" || weights[name] > weights[most])) most = name
    }
    if (most == "") return
    row(most, ran[most], lines[most])
    delete weights[most]
  }
}

FNR == NR {
  if (!ignored($0)) unseen[$0] = 1
  next
}

/^SF:/ {
  path = substr($0, 4)
  inside = index(path, root) == 1
  path = substr(path, length(root) + 1)
  inside = inside && path !~ /^build\// && !ignored(path)
  delete unseen[path]
}

inside && /^DA:/ {
  split($0, parts, /[:,]/)
  room = group(path)
  ++lines[path]
  ++room_lines[room]
  if (parts[3] > 0) {
    ++ran[path]
    ++room_ran[room]
  }
}

END {
  printf "\n  %-44s %6s %6s %8s\n", "folder", "lines", "missed", "ran"
  for (room in room_lines) {
    if (room == "main.cc files") continue
    order[++count] = room
    total += room_lines[room]
    total_ran += room_ran[room]
  }
  for (i = 2; i <= count; ++i) {
    for (j = i; j > 1 && order[j] < order[j - 1]; --j) {
      swap = order[j]
      order[j] = order[j - 1]
      order[j - 1] = swap
    }
  }
  for (i = 1; i <= count; ++i) row(order[i], room_ran[order[i]], room_lines[order[i]])
  row("total", total_ran, total)
  row("main.cc files, not in the total", room_ran["main.cc files"], room_lines["main.cc files"])

  print "\n  files that miss most"
  for (path in lines) missed[path] = lines[path] - ran[path]
  print_most(10, missed)
  for (path in unseen) print "  not counted, as no program here has code of it: " path

  if (percent(total_ran, total) < least) {
    printf "\ncoverage: %.1f %% of the lines ran, %d %% must\n", percent(total_ran, total), least
    exit 1
  }
}
