# shellcheck shell=bash
# What the scripts share: the programs that they need, and a server that runs
# as a process group of its own and ends with the script that started it.

# fail MESSAGE: ends the script with a message under its name.
fail() {
  printf '%s: %s\n' "${0##*/}" "$1" >&2
  exit 1
}

# require_program NAME PACKAGE: fails unless the program is there. Debian keeps
# servers in sbin, which an ordinary user's PATH leaves out.
PATH=$PATH:${PATH//\/bin/\/sbin}
require_program() {
  command -v "$1" >/dev/null || fail "$1 is not installed (Debian package $2)"
}

readonly POLL_INTERVAL_S=0.05
readonly ANSWER_TIMEOUT_S=5

# is_port TEXT: a port number, or 0 for any.
is_port() {
  [[ $1 =~ ^[0-9]{1,5}$ ]] && ((10#$1 <= 65535))
}

# answers PORT: true when a server there sends a line back; to a plain request
# a TLS server sends one as well, that it wants TLS.
answers() {
  (
    exec 3<>"/dev/tcp/127.0.0.1/$1"
    printf 'HEAD / HTTP/1.0\r\n\r\n' >&3
    read -r -t "$ANSWER_TIMEOUT_S" _ <&3
  ) 2>/dev/null
}

# take_directory DIR: fails when another script has taken it. It is given up
# when this script ends, however it ends: its children close "taken".
take_directory() {
  exec {taken}<"$1"
  flock --nonblock "$taken" || fail "another server runs on $1"
}

# end_with_this_script GROUP: the group gets TERM when this script is told to
# stop or ends by itself, and also when it is killed: then the pipe that it
# holds open closes without a word, and the reader at its other end steps in.
end_with_this_script() {
  group=$1
  exec {alive}> >(
    exec >/dev/null 2>&1 {taken}<&-
    trap '' TERM INT HUP
    read -r _ || kill -TERM -- "-$group"
  )
  trap end_group EXIT
  trap 'exit 0' TERM INT HUP
}

# end_group: ends the group now, and once only.
end_group() {
  [[ -n $group ]] || return 0
  kill -TERM -- "-$group" 2>/dev/null || true
  printf 'ended\n' >&"$alive"
  group=
}

# wait_until CONDITION PROCESS SECONDS: true once the condition holds; false
# when the process ends before that, or the time is up.
wait_until() {
  local deadline=$((SECONDS + $3))
  until "$1"; do
    kill -0 "$2" 2>/dev/null || return 1
    ((SECONDS < deadline)) || return 1
    sleep "$POLL_INTERVAL_S"
  done
}

# wait_for_end PROCESS: returns only when the server ends unasked.
wait_for_end() {
  local status=0
  wait "$1" || status=$?
  fail "the server ended by itself with status $status"
}
