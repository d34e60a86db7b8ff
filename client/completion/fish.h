// The script that completes kvoxctl's words in fish.
#pragma once

namespace kvox::client {

/// Works when sourced, and as a file that fish loads.
inline constexpr char kFishCompletion[] =
    R"fish(# Completion of kvoxctl's words in fish: kvoxctl completion fish | source

function __kvoxctl_words
    set -l words (commandline -opc)
    # The word at the cursor may have a quote without end.
    set -l typed (string unescape -- (commandline -ct | string replace -r '^[\'"]' ''))
    set -l program (string replace -r '^~/' ~/ -- $words[1])
    set -l names ($program --complete $words[2..] "$typed" 2>/dev/null)
    if test "$names[1]" = :files
        set -l option (string match -r '^-[^=]*=' -- "$typed"; or echo)
        set names $option(__fish_complete_path (string replace -- "$option" '' "$typed"))
    end
    string join -- \n $names
end

complete -c kvoxctl -f -a '(__kvoxctl_words)'
)fish";

}  // namespace kvox::client
