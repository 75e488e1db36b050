# fish completion for kpim(1)

set -l commands pack list verify diff unpack check latest help
set -l none "not __fish_seen_subcommand_from $commands"

# Whether COMMAND was chosen and has that many operands before the word that is completed.
function __kpim_operands
    set -l words (commandline -opc)
    set -l operands
    set -l skips 0
    for word in $words[3..-1]
        if test $skips -eq 1
            set skips 0
        else if contains -- $word -o --output --exclude --threads --kind --locale --ca-file --time-limit
            set skips 1
        else if not string match -q -- '-?*' $word
            set -a operands $word
        end
    end
    test (count $words) -ge 2; and test "$words[2]" = "$argv[1]"; and test (count $operands) -eq $argv[2]
end

complete -c kpim -f
complete -c kpim -n $none -a pack -d 'build a blob out of a bundle'
complete -c kpim -n $none -a list -d 'print the tree that a blob holds'
complete -c kpim -n $none -a verify -d 'check that a blob is well formed, and the same as a bundle'
complete -c kpim -n $none -a diff -d 'compare two blobs, or a blob and a directory'
complete -c kpim -n $none -a unpack -d 'write the tree of a blob to disk'
complete -c kpim -n $none -a check -d 'check whether this version may be installed'
complete -c kpim -n $none -a latest -d 'fetch the current version description'
complete -c kpim -n $none -a help -d 'print the help of a command'
complete -c kpim -n $none -l version -d 'print the version and exit'
complete -c kpim -s h -l help -d 'print the help message and exit'

complete -c kpim -n '__kpim_operands pack 0' -a '(__fish_complete_directories)'
complete -c kpim -n '__fish_seen_subcommand_from pack' -s o -l output -r -F -d 'where to write the blob'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l exclude -x -d 'leave out entries that match'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l threads -x -a '1 2' -d '1, or 2 for speed'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l sort -d 'order entries by name'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l no-sort -d 'keep the order of the file system'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l verify -d 'decode the blob again and compare'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l quiet -d 'no warnings and no progress'
complete -c kpim -n '__fish_seen_subcommand_from pack' -l strict -d 'make every warning an error'

complete -c kpim -n '__kpim_operands list 0; or __kpim_operands verify 0; or __kpim_operands unpack 0' -F
complete -c kpim -n '__kpim_operands diff 0; or __kpim_operands diff 1' -F
complete -c kpim -n '__kpim_operands verify 1; or __kpim_operands unpack 1' -a '(__fish_complete_directories)'
complete -c kpim -n '__fish_seen_subcommand_from pack list verify diff unpack check latest' -l json -d 'print the result as JSON'

complete -c kpim -n '__fish_seen_subcommand_from latest' -l kind -x -a 'pep pl' -d 'flavour of the player'
complete -c kpim -n '__fish_seen_subcommand_from latest' -l locale -x -d 'whose description to fetch'
complete -c kpim -n '__fish_seen_subcommand_from latest' -l ca-file -r -F -d 'authorities to trust'
complete -c kpim -n '__fish_seen_subcommand_from latest' -l time-limit -x -d 'seconds that it may take'
complete -c kpim -n '__fish_seen_subcommand_from help' -a 'pack list verify diff unpack check latest'
