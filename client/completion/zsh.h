// The script that completes kvoxctl's words in zsh.
#pragma once

namespace kvox::client {

/// Works when sourced, and as the file _kvoxctl in a directory of $fpath.
inline constexpr char kZshCompletion[] = R"zsh(#compdef kvoxctl
# Completion of kvoxctl's words in zsh: source <(kvoxctl completion zsh)

_kvoxctl() {
  local program=${~words[1]}
  local -a names
  names=(${(f)"$("$program" --complete "${(@Q)words[2,CURRENT-1]}" "${(Q)PREFIX}" 2>/dev/null)"})
  if [[ ${names[1]-} == :files ]]; then
    [[ $PREFIX != -*=* ]] || compset -P '*='
    _files
  elif (($#names)); then
    # What kvoxctl prints fits, in whatever case it was typed.
    compadd -M 'm:{[:lower:][:upper:]}={[:upper:][:lower:]}' -- "${names[@]}"
  fi
}

if [[ ${funcstack[1]-} == _kvoxctl ]]; then _kvoxctl "$@"; else compdef _kvoxctl kvoxctl; fi
)zsh";

}  // namespace kvox::client
