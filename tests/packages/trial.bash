# shellcheck shell=bash
# What the trials of the packages share. They run as root in a root of their own.

export DEBIAN_FRONTEND=noninteractive
readonly SPA=/root/spa

step() { printf '  %s\n' "$*"; }

fail() {
  printf 'trial: %s\n' "$*" >&2
  exit 1
}

# quietly COMMAND...: its output only when it fails.
quietly() {
  local output
  output=$("$@" 2>&1) || { printf '%s\n' "$output" | tail -n 30 >&2; fail "failed: $*"; }
}

# same WANTED FOUND WHAT
same() { [[ $1 == "$2" ]] || fail "$3: wanted \"$1\", found \"$2\""; }

# Every file there is, but for what apt, dpkg and logs change by themselves.
snapshot() {
  find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path /trial \
    -o -path /root -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/lib/rpm -o -path /var/log \
    -o -path /var/cache \) -prune -o -printf '%p\n' | sort
}

# Prepares the host as the README says.
prepare_host() {
  install -d -m 755 /usr/zenta/vrmo/qxag
  printf '[Agent]\nconfigfilepath=/etc/quorvex/Agent.cfg\npath=/usr/zenta/vrmo/qxag\n' >/etc/qxregistry.cfg
}

# Starts the authority for trying and waits for its address.
start_authority() {
  tzregister-authority --data "$SPA" >"$SPA.said" 2>"$SPA.errors" &
  authority=$!
  until grep -qs '^Stop it' "$SPA.said"; do
    kill -0 "$authority" 2>/dev/null || { cat "$SPA.errors" >&2; fail "the authority did not start"; }
    sleep 0.2
  done
}

# The commands that the authority told, run as they stand.
follow_authority() {
  local commands
  commands=$(sed -n 's/^  //p' "$SPA.said")
  [[ $commands == *tzregister-enroll* ]] || fail "the authority told no commands"
  bash -euc "$commands"
}

# Content, mode, owner and time of what a registered host keeps.
state_of_host() {
  find /etc/quorvex /etc/qxregistry.cfg /usr/zenta -type f -exec stat -c '%n %a %U %G %Y' {} + | sort
  find /etc/quorvex /etc/qxregistry.cfg /usr/zenta -type f -exec sha256sum {} + | sort
}

# The account works, by the tool and by the script.
check_account() {
  quietly tzregister --action routingtables --type Agent --agentid 1 --storagepoolid 1
  local said
  said=$(bash -euc "$(sed -n 's/^  \(tzregister-enroll\)/\1/p' "$SPA.said")" 2>/dev/null)
  same "result=unchanged agentid=1 file=/etc/quorvex/Agent.cfg" "$said" "a second enrolment"
}

check_pages() {
  local page
  for page in 8/tzregister 8/tzregister-enroll 5/qxregistry.cfg 5/quorvex.cfg; do
    [[ $(man -P cat "${page%/*}" "${page#*/}" 2>/dev/null) == *"SEE ALSO"* ]] || fail "man ${page#*/} shows nothing"
  done
  # shellcheck disable=SC2016 # expanded by the inner shell
  same "createds" "$(bash -c 'source /usr/share/bash-completion/completions/tzregister
    COMP_WORDS=(tzregister --type Agent --action cr) COMP_CWORD=4 && _tzregister && echo "${COMPREPLY[@]}"')" completion
}

# left BEFORE: what is there now and was not in that list.
left() { comm -13 "$1" <(snapshot); }
