"""Outputs that appear whole or not at all: written under a temporary name beside the target, then renamed."""


import os
from pathlib import Path


def partial_path(target: Path) -> Path:
    """The temporary name of a target: hidden, in the same folder, with the same extension (the tools check it)."""
    return target.with_name(f".{target.stem}.partial{target.suffix}")


def sync_directory(directory: Path) -> None:
    descriptor = os.open(directory, os.O_RDONLY)
    try:
        os.fsync(descriptor)
    finally:
        os.close(descriptor)


def publish(partial: Path, target: Path) -> None:
    """Flushes a finished temporary file and renames it over its target."""
    with open(partial, "rb+") as stream:
        os.fsync(stream.fileno())
    os.replace(partial, target)
    sync_directory(target.parent)


def write_bytes(target: Path, content: bytes) -> None:
    partial = partial_path(target)
    partial.write_bytes(content)
    publish(partial, target)


def write_text(target: Path, content: str) -> None:
    write_bytes(target, content.encode("utf-8"))


def remove_if_present(path: Path) -> None:
    try:
        path.unlink()
    except FileNotFoundError:
        pass
