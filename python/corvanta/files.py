"""Files the commands write: checked before the work starts, written under a
temporary name in the same folder and renamed, so a reader never sees half a file."""
from __future__ import annotations

import os
from pathlib import Path
from typing import Callable


class TargetError(ValueError):
    """A file that can't be written where it was asked for; the message names it."""


def check_target(path: str, option: str) -> None:
    """Raises TargetError unless `path` can be created or replaced: a long solve must not end unsaved."""
    target = Path(path)
    folder = target.parent
    if not folder.is_dir():
        raise TargetError(f"{option} {path}: the folder {str(folder)!r} does not exist")
    if target.is_dir():
        raise TargetError(f"{option} {path}: is a folder")
    if not os.access(folder, os.W_OK | os.X_OK):
        raise TargetError(f"{option} {path}: the folder {str(folder)!r} can't be written")


def replace(path: str, write: Callable[[Path], object]) -> None:
    """Writes through a temporary name in the target folder, then renames."""
    target = Path(path)
    tmp = target.with_name(f".{target.name}.{os.getpid()}.tmp")
    try:
        write(tmp)
        os.replace(tmp, target)
    finally:
        tmp.unlink(missing_ok=True)
