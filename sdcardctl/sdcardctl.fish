# fish completion for sdcardctl(1); the program itself knows the candidates.

function __sdcardctl_candidates
    set -l words (commandline -opc) (commandline -ct)
    set -l candidates ($words[1] __complete $words[2..-1] 2>/dev/null)
    if string match -q \t'*' -- $candidates[1]
        __fish_complete_path (commandline -ct)
    else
        string join \n -- $candidates
    end
end

complete -c sdcardctl -f -a '(__sdcardctl_candidates)'
