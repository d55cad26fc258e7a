"""Snapshots of booted boards: resuming is ten times as fast as booting."""

import fcntl
import hashlib
import os
import shutil
import subprocess
import tempfile
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Iterator

from ..installation import PLATFORM, file, product_files
from ..names import SERVICE_PROGRAM
from .emulator import Emulator, EmulatorError
from .link import Link

IMAGE_MAKER = Path(__file__).parent / "image" / "make.sh"
AGENT = Path(__file__).parent / "agent"
MACHINE = Path(__file__).resolve().parent.parent / "machine"
SHARED_WITH_VIRTUAL_BOARD = ("programs.py", "system_log.py", "file_systems.py", "file_writes.py")
BOARD_DIRECTORY = "usr/lib/board"
HOTPLUG_RULE = "/usr/lib/udev/rules.d/60-tavo-sdcard.rules"
HOTPLUG_HELPER = "/usr/lib/udev/tavo-sdcard-hotplug"

# Emulated instructions are slow, most of all when they are translated for the first time. So the kernel skips its
# hardening, and programs keep their addresses, which preserves the translations.
KERNEL_OPTIONS = ("console=ttyAMA0 rdinit=/init panic=-1 "
                  "norandmaps init_on_alloc=0 hardened_usercopy=off cgroup_disable=memory audit=0 apparmor=0")
BOOT_SECONDS = 240
SAVE_SECONDS = 120
KEPT_SNAPSHOTS = 3


def make_image() -> Path:
    """The directory with the board's boot files; made if needed. Raises CalledProcessError."""
    with _locked(_cache() / "image.lock"):
        result = subprocess.run([IMAGE_MAKER], check=True, stdout=subprocess.PIPE, text=True)
    return Path(result.stdout.strip())


def boot(program: Path | None, memory_mib: int) -> tuple[Emulator, Link]:
    """A board that has just booted, without a driver for its card slot. Raises EmulatorError."""
    image = make_image()
    with tempfile.TemporaryDirectory(prefix="sdcardd-board-") as directory:
        disk = Path(directory) / "disk.cpio"
        shutil.copyfile(image / "disk.cpio", disk)
        _append_product(Path(directory), disk, program)
        emulator = Emulator(image, ["-kernel", str(image / "kernel"), "-initrd", str(disk),
                                    "-append", KERNEL_OPTIONS], memory_mib)
        return emulator, _connect(emulator, BOOT_SECONDS)


def resume(program: Path | None, memory_mib: int) -> tuple[Emulator, Link]:
    """The same, resumed from a snapshot, which is made if needed. Raises EmulatorError."""
    image = make_image()
    snapshots = _cache() / "snapshots"
    snapshots.mkdir(parents=True, exist_ok=True)
    state = snapshots / state_name(image, program, memory_mib)
    with _locked(_cache() / "snapshots.lock"):
        if not state.exists():
            _save(program, memory_mib, state)
            for old in sorted(snapshots.iterdir(), key=lambda path: path.stat().st_mtime)[:-KEPT_SNAPSHOTS]:
                old.unlink()
        os.utime(state)
        saved = state.open("rb")
    with saved:
        emulator = Emulator(image, ["-incoming", f"fd:{saved.fileno()}"], memory_mib, [saved.fileno()])
    return emulator, _connect(emulator, None)


def state_name(image: Path, program: Path | None, memory_mib: int) -> str:
    """The name of the snapshot of such a board; boards with any difference have different names."""
    # A saved board knows the blocks of its files, which differ in every image, even in one made from the same files.
    digest = hashlib.sha256(f"{memory_mib} {(image / 'root.ext4').stat().st_mtime_ns}".encode())
    for path in sorted([*_sources(), *([program] if program else [])]):
        digest.update(path.name.encode() + path.read_bytes())
    return digest.hexdigest()[:16]


def _save(program: Path | None, memory_mib: int, state: Path) -> None:
    emulator, link = boot(program, memory_mib)
    unfinished = state.with_suffix(".new")
    try:
        emulator.execute("stop")
        emulator.execute("migrate", uri=f"exec:cat >'{unfinished}'")
        deadline = time.monotonic() + SAVE_SECONDS
        while (status := emulator.execute("query-migrate")["status"]) != "completed":
            if status == "failed" or time.monotonic() > deadline:
                raise EmulatorError(f"the board's state cannot be saved ({status})")
            time.sleep(0.1)
        emulator.switch_off()
        unfinished.rename(state)
    finally:
        emulator.switch_off()
        link.close()
        unfinished.unlink(missing_ok=True)


def _connect(emulator: Emulator, boot_seconds: float | None) -> Link:
    """Waits until the board has booted; a resumed board is ready as soon as its state is loaded."""
    link = Link(emulator.board_channel)
    try:
        if boot_seconds is not None and not link.ready.wait(boot_seconds):
            raise EmulatorError(f"the board does not boot:\n{emulator.console()}")
        while emulator.execute("query-status")["status"] == "inmigrate":
            time.sleep(0.02)
        emulator.execute("cont")
        link.ask("set_clock", seconds=time.time())
    except BaseException:
        emulator.switch_off()
        link.close()
        raise
    return link


def strip(program: Path, copy: Path) -> Path:
    """Copies a program of the target without its debug information, which would fill the board's memory."""
    subprocess.run(["arm-linux-gnueabihf-strip", "-o", copy, program], check=True)
    return copy


def _append_product(directory: Path, disk: Path, program: Path | None) -> None:
    product = directory / "product"
    agent = product / BOARD_DIRECTORY / "agent"
    agent.mkdir(parents=True)
    for source in _sources():
        if source.parent in (AGENT, MACHINE):
            shutil.copy(source, agent)
    (agent / "start").rename(agent.parent / "start")
    for path, entry in hotplug_and_product_files().items():
        target = product / path.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        if "link" in entry:
            target.symlink_to(entry["link"])
        else:
            target.write_text(entry["text"])
            target.chmod(entry["mode"])
    if program is not None:
        target = product / SERVICE_PROGRAM.lstrip("/")
        target.parent.mkdir(parents=True, exist_ok=True)
        strip(program, target).chmod(0o755)
    names = "\n".join(str(path.relative_to(directory)) for path in [product, *sorted(product.rglob("*"))])
    with disk.open("ab") as archive:
        subprocess.run(["cpio", "--quiet", "--create", "--format=newc", "--owner=0:0"], check=True, cwd=directory,
                       input=names.encode(), stdout=archive)


def hotplug_and_product_files() -> dict[str, dict]:
    """The product's own files on a saved board, path to file."""
    return product_files() | {
        HOTPLUG_RULE: file((PLATFORM / "60-tavo-sdcard.rules").read_text()),
        HOTPLUG_HELPER: file((PLATFORM / "tavo-sdcard-hotplug").read_text(), 0o755),
    }


def _sources() -> list[Path]:
    """All files that the state of a booted board depends on, except the service's program."""
    return [*(path for path in AGENT.iterdir() if path.is_file()), *(MACHINE / name for name in SHARED_WITH_VIRTUAL_BOARD),
            *(path for path in PLATFORM.iterdir() if path.is_file()), Path(__file__).parent / "emulator.py",
            *(MACHINE.parent / name for name in ("installation.py", "log_records.py", "names.py")), Path(__file__)]


def _cache() -> Path:
    base = os.environ.get("SDCARDD_ARMHF_DIR")
    if base:
        return Path(base)
    return Path(os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache") / "sdcardd"


@contextmanager
def _locked(path: Path) -> Iterator[None]:
    path.parent.mkdir(parents=True, exist_ok=True)
    with path.open("w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        yield
