# Completion of arpsup for bash. The program itself says what may follow.
_arpsup() {
  mapfile -t COMPREPLY < <("$1" complete-words "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -o default -F _arpsup arpsup
