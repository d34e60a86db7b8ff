#include "sim/completion.h"

#include <fmt/format.h>

#include "sim/command_line.h"

namespace kvox::sim {
namespace {

// In all scripts, `context` are the words so far that are neither options nor files, and `value` is
// the option whose value comes next.

constexpr char kBash[] =
    R"bash(# Completion of kvosim's words in bash: source <(kvosim completion bash)

_kvosim() {
  local context='' value='' options='' names='' files='' word
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    if [[ $word == = ]]; then continue; fi # bash parts --option=value
    if [[ $value ]]; then
      value=''
      continue
    fi
    case $context:$word in
      @VALUES@) value=$word ;;
      *:-* | @TAKING_FILES@) ;;
      *) context+=${context:+ }$word ;;
    esac
  done
  COMPREPLY=()
  case $value in
    @FILES@)
      compopt -o default 2>/dev/null
      return
      ;;
    ?*) return ;;
  esac
  case $context in
@PLACES@  esac
  if [[ $2 == -* ]]; then names=$options files=''; fi
  if [[ $files ]]; then compopt -o default 2>/dev/null; fi
  mapfile -t COMPREPLY < <(compgen -W "$names" -- "$2")
}
complete -F _kvosim kvosim
)bash";

constexpr char kZsh[] = R"zsh(#compdef kvosim
# Completion of kvosim's words in zsh: source <(kvosim completion zsh)

_kvosim() {
  local context='' value='' files='' word
  local -a options names
  for word in "${(@)words[2,CURRENT-1]}"; do
    if [[ -n $value ]]; then
      value=''
      continue
    fi
    case $context:$word in
      (@VALUES@) value=$word ;;
      (*:-* | @TAKING_FILES@) ;;
      (*) context+=${context:+ }$word ;;
    esac
  done
  if [[ $PREFIX == -*=* ]]; then
    value=${PREFIX%%=*}
    compset -P '*='
  fi
  case $value in
    (@FILES@)
      _files
      return
      ;;
    (?*) return 1 ;;
  esac
  case $context in
@PLACES@  esac
  if [[ $PREFIX == -* ]]; then
    _describe -o option options
  elif [[ -n $files ]]; then
    _files
  else
    _describe word names
  fi
}

if [[ ${funcstack[1]-} == _kvosim ]]; then _kvosim "$@"; else compdef _kvosim kvosim; fi
)zsh";

constexpr char kFish[] =
    R"fish(# Completion of kvosim's words in fish: kvosim completion fish | source

function __kvosim_at
    set -l context
    set -l value
    for word in (commandline -opc)[2..]
        if set -q value[1]
            set value
            continue
        end
        switch "$context:$word"
            case @VALUES@
                set value $word
            case '*:-*' @TAKING_FILES@
            case '*'
                set -a context $word
        end
    end
    test "$context" = "$argv"
end

complete -c kvosim -f
@PLACES@)fish";

std::string Filled(std::string text, const std::string& field, const std::string& value) {
  for (size_t at = 0; (at = text.find(field, at)) != text.npos; at += value.size()) {
    text.replace(at, field.size(), value);
  }
  return text;
}

void Add(std::string& list, const std::string& separator, const std::string& item) {
  list += (list.empty() ? "" : separator) + item;
}

/// For a shell, which reads it as one word.
std::string Quoted(const std::string& text, const char* quote) {
  return "'" + Filled(text, "'", quote) + "'";
}

/// "--stats" where all places are to have it, ":--stats" with the place.
std::string ValuesIn(const std::vector<Place>& places, const std::string& separator,
                     bool with_place, bool only_files) {
  std::string list;
  for (const Place& place : places) {
    for (const PlaceOption& option : place.options) {
      if (option.value.empty() || (only_files && !option.takes_file())) continue;
      Add(list, separator, (with_place ? place.words + ":" : "") + option.name);
    }
  }
  return list;
}

/// "compare:*"
std::string TakingFiles(const std::vector<Place>& places, const std::string& separator,
                        const std::string& quote) {
  std::string list;
  for (const Place& place : places) {
    if (!place.files) continue;
    Add(list, separator, std::string(quote).append(place.words).append(":*").append(quote));
  }
  return list;
}

std::string InBash(const Place& place) {
  std::string options;
  std::string names;
  for (const PlaceOption& option : place.options) Add(options, " ", option.name);
  for (const HelpRow& word : place.next) Add(names, " ", word.what);
  return fmt::format("    '{}') options='{}' names='{}' files={} ;;\n", place.words, options, names,
                     place.files ? "yes" : "''");
}

std::string InZsh(const Place& place) {
  const auto item = [](const std::string& word, const std::string& help) {
    return Quoted(word + ":" + help, R"('\'')");
  };
  std::string options;
  std::string names;
  for (const PlaceOption& option : place.options) {
    Add(options, "\n        ", item(option.name, option.help));
  }
  for (const HelpRow& word : place.next) Add(names, "\n        ", item(word.what, word.help));
  return fmt::format("    ('{}')\n      options=({})\n      names=({})\n      files={}\n      ;;\n",
                     place.words, options, names, place.files ? "yes" : "''");
}

std::string InFish(const Place& place) {
  const std::string here =
      "complete -c kvosim -n '__kvosim_at" + (place.words.empty() ? "" : " " + place.words) + "'";
  const auto quoted = [](const std::string& text) { return Quoted(text, R"(\')"); };
  std::string lines;
  for (const PlaceOption& option : place.options) {
    lines += here + " -l " + option.name.substr(2);
    if (!option.value.empty()) lines += option.takes_file() ? " -r -F" : " -x";
    lines += " -d " + quoted(option.help) + "\n";
  }
  for (const HelpRow& word : place.next) {
    lines += here + " -a " + word.what + " -d " + quoted(word.help) + "\n";
  }
  return lines + (place.files ? here + " -F\n" : "");
}

}  // namespace

std::string CompletionScript(const std::string& shell) {
  const bool fish = shell == "fish";
  const bool zsh = shell == "zsh";
  const std::string or_else = fish ? " " : " | ";
  const std::vector<Place> places = Places();
  std::string text = fish ? kFish : zsh ? kZsh : kBash;
  std::string all;
  for (const Place& place : places) {
    all += fish ? InFish(place) : zsh ? InZsh(place) : InBash(place);
  }
  text = Filled(text, "@VALUES@", ValuesIn(places, or_else, true, false));
  text = Filled(text, "@FILES@", ValuesIn(places, or_else, false, true));
  text = Filled(text, "@TAKING_FILES@", TakingFiles(places, or_else, fish ? "'" : ""));
  return Filled(text, "@PLACES@", all);
}

}  // namespace kvox::sim
