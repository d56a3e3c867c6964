# Completion of tarn for bash: the tool itself says what can stand next.
_tarn() {
  local word=${COMP_WORDS[COMP_CWORD]} line
  COMPREPLY=()
  while IFS= read -r line; do
    if [ "$line" = :files ]; then
      compopt -o filenames 2>/dev/null
      while IFS= read -r line; do COMPREPLY+=("$line"); done < <(compgen -f -- "$word")
    else
      COMPREPLY+=("$line")
    fi
  done < <("${COMP_WORDS[0]}" complete -- "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
}
complete -F _tarn tarn
