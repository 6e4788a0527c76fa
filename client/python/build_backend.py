# SPDX-License-Identifier: Apache-2.0
"""Builds the package for pip with nothing but the standard library, so that it installs offline.

The interface is that of PEP 517: pip calls `build_wheel`, "python3 -m build" also `build_sdist`. Both archives
have the same bytes wherever and whenever they are made: the time of their files is SOURCE_DATE_EPOCH, or the
first that a wheel can express.
"""
from __future__ import annotations

import base64
import gzip
import hashlib
import io
import os
import pathlib
import re
import tarfile
import time
import zipfile
from typing import Any, Dict, Iterator, Optional, Tuple

HERE = pathlib.Path(__file__).resolve().parent
WHEEL = "Wheel-Version: 1.0\nGenerator: runel\nRoot-Is-Purelib: true\nTag: py3-none-any\n"
EARLIEST = 315532800  # 1980-01-01, the first time of a wheel


def _source_time() -> int:
    return max(EARLIEST, int(os.environ.get("SOURCE_DATE_EPOCH", EARLIEST)))


def _project() -> Dict[str, str]:
    text = (HERE / "pyproject.toml").read_text(encoding="utf-8")
    return dict(re.findall(r'^([a-z-]+) = "(.*)"$', text, re.MULTILINE))


def _metadata(project: Dict[str, str]) -> str:
    readme = (HERE / project["readme"]).read_text(encoding="utf-8")
    return (
        f"Metadata-Version: 2.1\nName: {project['name']}\nVersion: {project['version']}\n"
        f"Summary: {project['description']}\nLicense: Apache-2.0\n"
        f"Requires-Python: {project['requires-python']}\n"
        f"Description-Content-Type: text/markdown\n\n{readme}"
    )


def _package() -> Iterator[Tuple[str, bytes]]:
    source = HERE / "src"
    for path in sorted(source.rglob("*")):
        if path.suffix == ".py" or path.name == "py.typed":
            yield path.relative_to(source).as_posix(), path.read_bytes()


def _record_line(name: str, content: bytes) -> str:
    digest = base64.urlsafe_b64encode(hashlib.sha256(content).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(content)}\n"


def build_wheel(
    wheel_directory: str,
    config_settings: Optional[Dict[str, Any]] = None,
    metadata_directory: Optional[str] = None,
) -> str:
    """Writes the wheel into `wheel_directory` and returns its name."""
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    files = dict(_package())
    files[f"{stem}.dist-info/METADATA"] = _metadata(project).encode()
    files[f"{stem}.dist-info/WHEEL"] = WHEEL.encode()
    record = f"{stem}.dist-info/RECORD"
    lines = "".join(_record_line(name, content) for name, content in files.items())
    files[record] = f"{lines}{record},,\n".encode()
    name = f"{stem}-py3-none-any.whl"
    with zipfile.ZipFile(pathlib.Path(wheel_directory) / name, "w", zipfile.ZIP_DEFLATED) as wheel:
        for place, content in files.items():
            info = zipfile.ZipInfo(place, time.gmtime(_source_time())[:6])
            info.compress_type = zipfile.ZIP_DEFLATED
            info.external_attr = 0o644 << 16
            wheel.writestr(info, content)
    return name


def build_sdist(sdist_directory: str, config_settings: Optional[Dict[str, Any]] = None) -> str:
    """Writes the source archive into `sdist_directory` and returns its name."""
    project = _project()
    stem = f"{project['name']}-{project['version']}"
    name = f"{stem}.tar.gz"
    plain = io.BytesIO()
    with tarfile.open(fileobj=plain, mode="w", format=tarfile.PAX_FORMAT) as archive:
        for place in ("pyproject.toml", "README.md", "build_backend.py", "make_sync.py", "src"):
            archive.add(HERE / place, f"{stem}/{place}", filter=_same_everywhere)
        info = tarfile.TarInfo(f"{stem}/PKG-INFO")
        content = _metadata(project).encode()
        info.size = len(content)
        info.mtime = _source_time()
        archive.addfile(info, io.BytesIO(content))
    packed = gzip.compress(plain.getvalue(), mtime=_source_time())
    (pathlib.Path(sdist_directory) / name).write_bytes(packed)
    return name


def _same_everywhere(info: tarfile.TarInfo) -> Optional[tarfile.TarInfo]:
    """`info` without what differs between copies of the sources, or None for what Python generated."""
    if "__pycache__" in info.name or info.name.endswith(".egg-info"):
        return None
    info.mode = 0o755 if info.isdir() or info.mode & 0o100 else 0o644
    info.uid = info.gid = 0
    info.uname = info.gname = ""
    info.mtime = _source_time()
    return info
