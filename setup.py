"""The build step of `pip install .` (pyproject.toml): configures the tree with CMake,
builds the compiled module tessel3d._native for the interpreter that runs pip and puts
it into the package. Nothing is downloaded; the version is the CMake project's."""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(tessel3d VERSION ([0-9.]+)", text).group(1)


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(self.build_temp).resolve() / "cmake"
        configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                     f"-DPython3_EXECUTABLE={sys.executable}", "-DTESSEL3D_PYTHON=ON",
                     "-DTESSEL3D_BUILD_TESTS=OFF", "-DTESSEL3D_BENCH=OFF", "-DTESSEL3D_EXAMPLES=OFF",
                     "-DTESSEL3D_INSTALL=OFF"]
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.run(configure, check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "_native", "--parallel", jobs], check=True)
        built = next((build / "python" / "tessel3d").glob("_native*"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built, target)


setup(version=project_version(), ext_modules=[CMakeExtension("tessel3d._native")], cmdclass={"build_ext": CMakeBuild})
