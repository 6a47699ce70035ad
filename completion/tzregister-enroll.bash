# bash completion for tzregister-enroll(8)                  -*- shell-script -*-
# shellcheck shell=bash

# The options that are not on the line yet.
_tzregister_enroll_options() {
  local option given=" ${COMP_WORDS[*]:1:COMP_CWORD-1} "
  for option in --help --version --url --login --passwdfile --hostname --file --productname \
    --keydir --server --storage --mkdir --make-key --storagepoolid --force --attempts --textfile --cleartext -h; do
    [[ $given == *" $option "* ]] || printf '%s ' "$option"
  done
}

_tzregister_enroll() {
  local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]}
  [[ $option == = ]] && option=${COMP_WORDS[COMP_CWORD - 2]}
  [[ $word == = ]] && word='' option=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $option in
    --passwdfile | --file | --textfile)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      ;;
    --keydir | --storage)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      ;;
    --url | --login | --hostname | --productname | --storagepoolid | --attempts) ;;
    *) mapfile -t COMPREPLY < <(compgen -W "$(_tzregister_enroll_options)" -- "$word") ;;
  esac
}

complete -F _tzregister_enroll tzregister-enroll
