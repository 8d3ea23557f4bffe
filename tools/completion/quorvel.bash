# Completes the commands and options of the three programs, as their own help lists them.
_quorvel() {
  local word=${COMP_WORDS[COMP_CWORD]} command='' index known
  for ((index = 1; index < COMP_CWORD; ++index)); do
    if [[ ${COMP_WORDS[index]} != -* ]]; then
      command=${COMP_WORDS[index]}
      break
    fi
  done
  known=$("${COMP_WORDS[0]}" ${command:+"$command"} --help 2>/dev/null | sed -nE \
    -e 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p' -e '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p')
  mapfile -t COMPREPLY < <(compgen -W "$known" -- "$word")
}
# Where nothing matches, names of files.
complete -o default -F _quorvel migration-host quorvelctl legacy-image
