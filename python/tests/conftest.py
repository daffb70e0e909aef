import os
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "python"))


@pytest.fixture(scope="session")
def engine() -> str:
    """The binary under test: $CORVANTA_BIN (must exist), else build/corvanta (skip if absent)."""
    path = os.environ.get("CORVANTA_BIN")
    if path:
        assert Path(path).is_file(), f"CORVANTA_BIN={path} does not exist"
        return path
    path = ROOT / "build" / "corvanta"
    if not path.is_file():
        pytest.skip("no engine: build it first or set CORVANTA_BIN")
    return str(path)
