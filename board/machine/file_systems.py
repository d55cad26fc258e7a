"""Builds the machine's root file system from the host's."""

import ctypes
import os
import shutil
import subprocess
from pathlib import Path

MS_NOSUID, MS_NOEXEC, MS_BIND, MS_REC, MS_PRIVATE = 2, 8, 4096, 16384, 1 << 18
MNT_DETACH = 2

# Files of a service installed on the host. The board has its own, or none.
HIDDEN_FROM_HOST = (
    "/etc/tavo", "/etc/scw_interval", "/etc/default/tavo-sdcard", "/opt/tavo",
    "/etc/dbus-1/system.d/tavo.SDCard1.conf", "/usr/share/dbus-1/system.d/tavo.SDCard1.conf",
)

CHARACTER_DEVICES = {
    "null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0),
}

_libc = ctypes.CDLL(None, use_errno=True)


def mount(source: str, target: str, kind: str = "", flags: int = 0, options: str = "") -> None:
    """mount(2); raises OSError."""
    if _libc.mount(source.encode(), target.encode(), kind.encode(), ctypes.c_ulong(flags), options.encode()):
        number = ctypes.get_errno()
        raise OSError(number, f"mount {kind or source} on {target}: {os.strerror(number)}")


def detach(target: str) -> None:
    """umount2(2) with MNT_DETACH; raises OSError."""
    if _libc.umount2(target.encode(), MNT_DETACH):
        raise OSError(ctypes.get_errno(), f"umount {target}")


def build_root(service: str, program: str | None, shared: str | None) -> None:
    """Makes an overlay of the host's root the machine's root.

    The host's file @p program appears as @p service, and the host's directory @p shared at its own path, where the
    machine's programs can write to it. Every mount made here belongs to this mount namespace and ends with it.
    """
    mount("none", "/", flags=MS_REC | MS_PRIVATE)
    # Opened now, because the mounts below may hide their names.
    program_descriptor = os.open(program, os.O_PATH | os.O_CLOEXEC) if program else None
    shared_descriptor = os.open(shared, os.O_PATH | os.O_CLOEXEC) if shared else None
    # Scratch space, in this namespace only.
    scratch = "/tmp"
    mount("sdcardd-board", scratch, "tmpfs", options="mode=0755")
    upper, work, root = (f"{scratch}/{name}" for name in ("upper", "work", "root"))
    for directory in (upper, work, root):
        os.mkdir(directory)
    mount("sdcardd-board", root, "overlay", options=f"lowerdir=/,upperdir={upper},workdir={work}")
    if program_descriptor is not None:
        Path(root + service).touch(mode=0o755)
        mount(f"/proc/self/fd/{program_descriptor}", root + service, flags=MS_BIND)
        os.close(program_descriptor)
    mount("proc", root + "/proc", "proc")
    mount("sysfs", root + "/sys", "sysfs")
    mount("tmpfs", root + "/dev", "tmpfs", MS_NOSUID, "mode=0755")
    for directory in ("run", "tmp", "media"):
        mount("tmpfs", f"{root}/{directory}", "tmpfs",
              options="mode=1777" if directory == "tmp" else "mode=0755")
    if shared_descriptor is not None:
        os.makedirs(root + shared, exist_ok=True)
        mount(f"/proc/self/fd/{shared_descriptor}", root + shared, flags=MS_BIND)
        os.close(shared_descriptor)
    os.mkdir(root + "/run/oldroot")
    subprocess.run(["pivot_root", root, root + "/run/oldroot"], check=True)
    os.chdir("/")
    detach("/run/oldroot")
    os.rmdir("/run/oldroot")
    _make_device_files()
    for path in HIDDEN_FROM_HOST:
        if os.path.isdir(path):
            shutil.rmtree(path)
        else:
            Path(path).unlink(missing_ok=True)
    for directory in ("/run/dbus", "/run/lock", "/run/board"):
        os.mkdir(directory)


def _make_device_files() -> None:
    for name, (major, minor) in CHARACTER_DEVICES.items():
        os.mknod("/dev/" + name, 0o20666, os.makedev(major, minor))
        os.chmod("/dev/" + name, 0o666)
    for name, target in (("fd", "/proc/self/fd"), ("stdin", "fd/0"), ("stdout", "fd/1"),
                         ("stderr", "fd/2"), ("ptmx", "pts/ptmx")):
        os.symlink(target, "/dev/" + name)
    os.mkdir("/dev/pts")
    mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=0620")
    os.mkdir("/dev/shm")
    mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID)


def install_files(files: dict[str, dict]) -> None:
    """Writes each file of @p files (path to text and mode, or to a link's target)."""
    for path, file in files.items():
        target = Path(path)
        target.parent.mkdir(parents=True, exist_ok=True)
        if target.is_symlink() or target.exists():
            target.unlink()
        if "link" in file:
            target.symlink_to(file["link"])
        else:
            target.write_text(file["text"])
            target.chmod(file["mode"])
