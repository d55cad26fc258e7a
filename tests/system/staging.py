"""cmake --install into a staging directory."""

import os
import subprocess
from pathlib import Path


def stage(program: Path, directory: Path, prefix: str) -> dict[str, Path]:
    """Installs a build, and returns the files by their paths on the device."""
    subprocess.run(["cmake", "--install", str(program.parents[1]), "--prefix", prefix], check=True,
                   capture_output=True, env=os.environ | {"DESTDIR": str(directory)})
    return {f"/{path.relative_to(directory)}": path for path in directory.rglob("*") if not path.is_dir()}
