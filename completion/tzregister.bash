# bash completion for tzregister(8)                         -*- shell-script -*-
# shellcheck shell=bash

# The value that an option has on the line so far; empty when it was not given.
_tzregister_given() {
  local index
  for ((index = 1; index < COMP_CWORD; ++index)); do
    [[ ${COMP_WORDS[index]} == "$1" ]] || continue
    [[ ${COMP_WORDS[index + 1]} == = ]] && ((++index))
    ((index + 1 == COMP_CWORD)) || printf '%s' "${COMP_WORDS[index + 1]}"
    return
  done
}

_tzregister_actions() {
  case $(_tzregister_given --type) in
    Agent) echo "register configfile routingtables certificate createds" ;;
    ContentRouter | StoragePoolAuthority) echo "configfile" ;;
    storagepool) echo "discover" ;;
    *) echo "discover register configfile routingtables certificate createds" ;;
  esac
}

_tzregister_types() {
  case $(_tzregister_given --action) in
    register | routingtables | certificate | createds) echo "Agent" ;;
    configfile) echo "Agent ContentRouter StoragePoolAuthority" ;;
    discover) echo "storagepool" ;;
    *) echo "Agent ContentRouter StoragePoolAuthority storagepool" ;;
  esac
}

# The options that are not on the line yet: each may be given once.
_tzregister_options() {
  local option given=" ${COMP_WORDS[*]:1:COMP_CWORD-1} "
  for option in --version --help --action --login --passwd --passwdfile --url --type --todisk \
    --server --mkdir --agentType --keydir --agentid --hostname --file --file2 --configfile \
    --dsname --dsrules --storage --productname --dstypeid --storagepoolid -V -h; do
    [[ $given == *" $option "* ]] || printf '%s ' "$option"
  done
}

_tzregister() {
  local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} words=''
  [[ $word == = ]] && word=''
  [[ $option == = ]] && option=${COMP_WORDS[COMP_CWORD - 2]}
  [[ ${COMP_WORDS[COMP_CWORD]} == = ]] && option=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  case $option in
    --action) words=$(_tzregister_actions) ;;
    --type) words=$(_tzregister_types) ;;
    --agentType) words="0 1 2 3" ;;
    --passwdfile | --file | --file2 | --configfile)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
    --keydir | --storage)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      return
      ;;
    --login | --passwd | --url | --agentid | --hostname | --dsname | --dsrules | --productname | \
      --dstypeid | --storagepoolid) return ;;
    *) words=$(_tzregister_options) ;;
  esac
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}

complete -F _tzregister tzregister
