#include "client/completion/completion.h"

namespace kvox::client {

const char* BashCompletion() {
  return R"bash(# Completion of kvoxctl's words in bash: source <(kvoxctl completion bash)

_kvoxctl() {
  local line=${COMP_LINE:0:COMP_POINT} program=${1/#\~\//$HOME/}
  local words=() names=() word gap quote='' before name quoted i

  # bash parts words at COMP_WORDBREAKS as well as at blanks. Here they are whole again, as far as
  # the cursor.
  for ((i = 0; i <= COMP_CWORD; i++)); do
    gap=${line%%[![:space:]]*}
    line=${line:${#gap}}
    word=${COMP_WORDS[i]}
    ((i < COMP_CWORD)) || word=$line
    line=${line:${#word}}
    if [[ $gap || i -eq 0 ]]; then words+=("$word"); else words[-1]+=$word; fi
  done

  case ${words[-1]} in
    [\"\']*)
      quote=${words[-1]:0:1}
      words[-1]=${words[-1]:1}
      ;;
  esac
  before=${words[-1]%"$2"} # what bash leaves as it is

  COMPREPLY=()
  mapfile -t names < <("$program" --complete "${words[@]:1}" 2>/dev/null)
  if [[ ${names[0]-} == :files ]]; then
    compopt -o default 2>/dev/null
    return
  fi
  for name in "${names[@]}"; do
    printf -v quoted %q "$name"
    if [[ -z $quote ]]; then
      name=$quoted
    elif [[ $quoted != "$name" ]]; then
      continue
    fi
    COMPREPLY+=("${name#"$before"}")
  done
}
complete -F _kvoxctl kvoxctl
)bash";
}

}  // namespace kvox::client
