"""Builds the compiled module with the project's own CMake build, so that an installed package holds the same
module as build/python. Install from the repository: `pip install --no-build-isolation ./python` (the build
needs the repository around this folder, and CMake, a C++ compiler, pybind11-dev and python3-dev)."""

from __future__ import annotations

import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent.parent


class CMakeBuild(build_ext):
    def build_extension(self, ext: Extension) -> None:
        build = Path(self.build_temp).resolve() / "cmake"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                        "-DKOVRA_BUILD_TESTS=OFF", "-DKOVRA_BUILD_BENCHMARKS=OFF", "-DKOVRA_BUILD_TOOLS=OFF",
                        "-DKOVRA_BUILD_PYTHON=ON", f"-DPython_EXECUTABLE={sys.executable}"], check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "_kovra", "-j2"], check=True)
        built = next((build / "python" / "kovra").glob("_kovra.*"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)


setup(ext_modules=[Extension("kovra._kovra", sources=[])], cmdclass={"build_ext": CMakeBuild})
