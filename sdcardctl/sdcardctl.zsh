#compdef sdcardctl
# zsh completion for sdcardctl(1); the program itself knows the candidates.

local candidate
local -a candidates described
candidates=("${(@f)$(${(Q)words[1]} __complete "${(@Q)words[2,CURRENT]}" 2>/dev/null)}")
if [[ $candidates[1] == $'\t'* ]]; then
    _files
    return
fi
for candidate in $candidates; do
    described+=("${${candidate%%$'\t'*}//:/\\:}:${candidate#*$'\t'}")
done
_describe sdcardctl described
