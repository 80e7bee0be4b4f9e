# bash completion for qvopl(1). What there is to complete is asked of the program: its help tells the commands and
# their options, and the program itself the codes, names and instances.

# The options of a command, with the kind of value that one takes behind it: "--ipc-path DIRECTORY".
_qvopl_options() {
  "$@" --help 2>/dev/null |
    sed -nE 's/^  (-[a-z],)?(--[a-z-]+)( ([A-Z]+).*)?( .*)?$/\2 \4/p'
}

_qvopl_commands() {
  "$@" --help 2>/dev/null | sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+)( .*)?$/\1/p'
}

# Names that the shell could take for something else are left to be typed.
_qvopl_objects() {
  "$@" --json 2>/dev/null |
    sed -nE '/"kind":/{n;s/^ *"name": "([A-Za-z0-9_.:@%+-]+)",$/\1/p}' | sort -u
}

_qvopl_instances() {
  "$@" --json 2>/dev/null | sed -nE 's/^ *"instance": "([A-Za-z0-9_.:@%+-]+)",?$/\1/p' | sort -u
}

_qvopl_codes() {
  "$@" 2>/dev/null | sed -nE 's/^0x[0-9A-F]+ +(OPL_[A-Z_]+).*/\1/p'
}

_qvopl() {
  local program=${COMP_WORDS[0]} current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local -a command=("$program") directory=()
  local options word kind words='' value='' ended='' i

  # --option=value comes as three words.
  if [[ $current == = ]]; then
    current=
  elif [[ $previous == = ]]; then
    previous=${COMP_WORDS[COMP_CWORD - 2]}
  fi

  # The command, and whether an option's value is due. Options stand behind the command.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${COMP_WORDS[i]}
    if [[ $word == --ipc-path && ${COMP_WORDS[i + 1]-} == = ]]; then
      directory=(--ipc-path "${COMP_WORDS[i + 2]-}")
    elif [[ $word == --ipc-path ]]; then
      directory=(--ipc-path "${COMP_WORDS[i + 1]-}")
    elif [[ $word == [a-z]* && ($i -eq 1 || ($i -eq 2 && ${command[1]-} == server)) ]]; then
      command+=("$word")
    elif [[ $word == -- ]]; then
      ended=yes
    fi
  done
  [[ ${directory[1]-} ]] || directory=()
  options=$(_qvopl_options "${command[@]}")
  if [[ $previous == --* && ! $ended ]]; then
    while read -r word kind; do [[ $word == "$previous" ]] && value=$kind; done <<<"$options"
  fi

  COMPREPLY=()
  if [[ $previous == --instance && $value ]]; then
    words=$(_qvopl_instances "$program" list "${directory[@]}")
  elif [[ $value == DIRECTORY ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$current")
    compopt -o filenames 2>/dev/null
    return
  elif [[ $value == FILE || $value == PROGRAM ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    compopt -o filenames 2>/dev/null
    return
  elif [[ $value ]]; then
    return
  elif [[ $current == -* && ! $ended ]]; then
    words=$(cut -d' ' -f1 <<<"$options")
  else
    case ${command[1]-} in
      '' | server) ((${#command[@]} > 2)) || words=$(_qvopl_commands "${command[@]}") ;;
      explain) words=$(_qvopl_codes "$program" explain) ;;
      list | show | watch | clean) words=$(_qvopl_objects "$program" list "${directory[@]}") ;;
    esac
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _qvopl qvopl
