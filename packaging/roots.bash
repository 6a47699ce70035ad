# shellcheck shell=bash
# Roots of Debian's releases, for the scripts that build packages and try them. They are
# kept in build/package-roots, and made anew when other packages are wanted in them.

readonly MIRROR=http://deb.debian.org/debian
readonly ROOTS=$PWD/build/package-roots

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# in_root [--offline] ROOT [VARIABLE=VALUE...] COMMAND...: among processes and mounts that
# end with it. Offline there is nothing but loopback.
in_root() {
  local apart=(unshare --mount --pid --fork --kill-child --mount-proc)
  [[ $1 != --offline ]] || { apart+=(--net bash -euc 'ip link set lo up; exec "$@"' bash); shift; }
  # shellcheck disable=SC2016 # expanded by the inner shell
  "${apart[@]}" bash -euc '
    mount -t proc proc "$1/proc"
    mount -t devtmpfs dev "$1/dev" && mount -t devpts -o newinstance pts "$1/dev/pts"
    exec chroot "$1" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 TZ=UTC "${@:2}"' \
    bash "$@"
}

# logged LOG WHAT COMMAND...: the end of the log is shown when the command fails.
logged() {
  "${@:3}" >"$1" 2>&1 || { tail -n 40 "$1" >&2; fail "$2 failed; its whole log is $1"; }
}

# make_root NAME FROM ARCHITECTURE DEPENDENCIES: a root with what these need, added to the
# root FROM. Without FROM a bare one of the release NAME.
make_root() {
  local root=$ROOTS/$1
  rm -rf --one-file-system "$root" "$root.made"
  if [[ -z $2 ]]; then
    # Nothing here has to outlast a power failure.
    mmdebstrap --variant=minbase --dpkgopt=force-unsafe-io "$1" "$root" "$MIRROR"
    return
  fi
  # No service starts while packages are installed.
  # shellcheck disable=SC2016 # expanded by the inner shell
  cp -a "$ROOTS/$2" "$root" &&
    cp /etc/resolv.conf "$root/etc/resolv.conf" &&
    in_root "$root" DEBIAN_FRONTEND=noninteractive bash -euc '
      printf "#!/bin/sh\nexit 101\n" >/usr/sbin/policy-rc.d
      chmod 755 /usr/sbin/policy-rc.d
      [ -z "$1" ] || dpkg --add-architecture "$1"
      apt-get update
      apt-get satisfy -y --no-install-recommends "$2"
      apt-get clean
      rm /usr/sbin/policy-rc.d' bash "$3" "$4"
}

# ensure_root NAME [FROM ARCHITECTURE DEPENDENCIES]: makes a root unless it is there; the
# one that it is made from first.
ensure_root() {
  local root=$ROOTS/$1 from=${2:-} architecture=${3:-} dependencies=${4:-} wanted="${*:2}"
  mkdir -p "$ROOTS"
  if [[ -n $from && ! -e $ROOTS/$from.made ]]; then ensure_root "$from"; fi
  {
    # Somebody else may be making it.
    flock 9
    if [[ ! -e $root.made || $(<"$root.made") != "$wanted" ]]; then
      echo "Making the root $1 ..."
      logged "$root.log" "making the root $1" make_root "$1" "$from" "$architecture" "$dependencies"
      printf '%s\n' "$wanted" >"$root.made"
    fi
  } 9>"$root.lock"
}

# at_once FUNCTION TARGET...: runs it for all targets side by side, then shows what each
# one said; fails when one of them failed.
at_once() {
  local function=$1 target status=0
  local -A children
  shift
  mkdir -p "$ROOTS"
  trap 'kill "${children[@]}"; wait; exit 130' INT TERM
  for target in "$@"; do
    (set -e; "$function" "$target") >"$ROOTS/$function-$target.log" 2>&1 &
    children[$target]=$!
  done
  for target in "$@"; do
    wait "${children[$target]}" || status=1
    cat "$ROOTS/$function-$target.log"
  done
  trap - INT TERM
  return "$status"
}
