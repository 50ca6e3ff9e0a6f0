# bash completion for kddc
#
# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# Needs nothing but bash. Commands and options are those that --help names. For VOLUME it offers
# folders and the registered volumes; whoever may not read the registry gets the folders alone.

# Offers those lines of standard input that begin with what was typed.
_kddc_lines() {
  local line
  while IFS= read -r line; do
    [[ -n $line && $line == "$typed"* ]] && COMPREPLY+=("$line")
  done
}

# Offers files or folders (-f, -d).
_kddc_paths() {
  compopt -o filenames 2>/dev/null
  _kddc_lines < <(compgen "$1" -- "$typed")
}

# The long options in the help of the words given, without those that only print.
_kddc_options() {
  "$@" --help 2>/dev/null | sed -n -E 's/^  (-[^-],)?(--[a-z-]+).*/\2/p'
}

_kddc_subcommands() {
  "$@" --help 2>/dev/null | sed -n -E '/^Subcommands:/,$ s/^  ([a-z]+) .*/\1/p'
}

# A mount point that JSON must escape is left out.
_kddc_volumes() {
  timeout 1 "$1" --quiet volumes list --json 2>/dev/null |
    sed -n -E 's/.*"mount_point":"([^"\\]*)".*/\1/p'
}

_kddc() {
  local program=$1 typed=${2//\\/} previous=$3 command=() i
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; ++i)); do
    case ${COMP_WORDS[i]} in
      --catalogue | --state | --since | --format | --devt) ((++i)) ;;
      -*) ;;
      *) command+=("${COMP_WORDS[i]}") ;;
    esac
  done
  # Behind the name of a command, or of a command of `volumes`, come its arguments.
  if [[ ${command[0]-} == volumes ]]; then command=("${command[@]::2}"); else command=("${command[@]::1}"); fi

  case $previous in
    --catalogue | --state) _kddc_paths -d && return ;;
    --format) _kddc_lines <<<$'swap\nstream' && return ;;
    --since) _kddc_lines <<<$'15m\n2h\n1d\n1w' && return ;;
    --devt) return ;;
  esac
  if [[ $typed == -* ]]; then
    _kddc_lines < <({ _kddc_options "$program"; _kddc_options "$program" "${command[@]}"; } | sort -u)
    return
  fi
  case ${command[*]} in
    '' | volumes) _kddc_lines < <(_kddc_subcommands "$program" "${command[@]}") ;;
    'volumes list' | 'volumes refresh') ;;
    dump | replay) _kddc_paths -f ;;
    *)
      _kddc_paths -d
      _kddc_lines < <(_kddc_volumes "$program" | grep -vxFf <(printf '%s\n' "${COMPREPLY[@]:-/}"))
      ;;
  esac
}
complete -F _kddc kddc
