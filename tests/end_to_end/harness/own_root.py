"""Runs a command in a mount namespace whose root is a mount point.

    own_root.py COMMAND [ARGUMENT...]

bwrap leaves its old root with pivot_root(2), which fails in a plain chroot: the
root directory is no mount point there. Here the directory is bound to one. Needs
root; nothing of it is seen outside of the namespace.
"""

from __future__ import annotations

import ctypes
import os
import sys
from typing import Optional

_CLONE_NEWNS = 0x00020000
_MS_BIND, _MS_REC, _MS_SLAVE = 0x1000, 0x4000, 0x80000

_libc = ctypes.CDLL(None, use_errno=True)


def _check(status: int, what: str) -> None:
    """Raises the error of a system call that failed."""
    if status != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def _mount(source: Optional[bytes], target: bytes, flags: int) -> None:
    _check(_libc.mount(source, target, None, ctypes.c_ulong(flags), None), f"mount on {target.decode()}")


def _keep_mounts_inside(root: int) -> None:
    """Cuts the namespace's mounts off from those of the machine.

    Changes are passed on by the mount that the chroot lies in, whose top is
    outside: it is reached by walking up from a directory that is left behind.
    """
    os.chroot("/usr")
    os.fchdir(root)
    while not os.path.samefile(".", ".."):
        os.chdir("..")
    _mount(None, b".", _MS_REC | _MS_SLAVE)
    os.fchdir(root)
    os.chroot(".")


def _enter_bound_root() -> None:
    """Makes the root directory, bound to a mount point, the root."""
    _mount(b"/", b"/tmp", _MS_BIND | _MS_REC)
    os.chroot("/tmp")
    os.chdir("/")


def main() -> None:
    """Prepares the namespace and becomes the command."""
    try:
        _check(_libc.unshare(_CLONE_NEWNS), "unshare")
        _keep_mounts_inside(os.open("/", os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC))
        _enter_bound_root()
        os.execvp(sys.argv[1], sys.argv[1:])
    except OSError as error:
        sys.exit(f"own_root: {error.strerror}")


if __name__ == "__main__":
    main()
