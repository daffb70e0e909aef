"""matplotlib where Debian puts it, for the few commands that draw.

python3-matplotlib lives in /usr/lib/python3/dist-packages, which only the
system's own python has on its path: another python of the same version (a
pyenv or a hand-built one first on PATH) finds it only through the folder
added here. Its compiled parts must fit this python, so the folder is added
only when they carry this python's extension suffix.
"""
from __future__ import annotations

import sys
import sysconfig
from pathlib import Path

DEBIAN_PACKAGES = Path("/usr/lib/python3/dist-packages")
MISSING = "matplotlib is missing (apt-get install python3-matplotlib)"


def _debian_fits(folder: Path) -> bool:
    suffix = sysconfig.get_config_var("EXT_SUFFIX") or ""
    return bool(suffix) and (folder / "matplotlib" / f"_path{suffix}").is_file()


def pyplot(folder: Path = DEBIAN_PACKAGES):
    """matplotlib.pyplot on the Agg back end, or None when this python can't import it."""
    try:
        import matplotlib
    except ImportError:
        if not _debian_fits(folder) or str(folder) in sys.path:
            return None
        sys.path.append(str(folder))  # last: nothing of this python's own is shadowed
        try:
            import matplotlib
        except ImportError:
            sys.path.remove(str(folder))
            return None
    matplotlib.use("Agg")
    from matplotlib import pyplot as plt
    return plt
