"""Builds brix._core with the project's CMake (the C++ library is in the folder above) and puts it
into the package. Needs CMake, a C++17 compiler, zlib, libdeflate and pybind11; offline, install
with pip install --no-build-isolation ./python"""
import os
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)


class cmake_build(build_ext):
    def build_extension(self, ext):
        target = os.path.abspath(self.get_ext_fullpath(ext.name))
        work = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        subprocess.run(["cmake", "-S", ROOT, "-B", work, "-DCMAKE_BUILD_TYPE=Release",
                        "-DBUILD_TESTING=OFF", f"-DPYTHON_EXECUTABLE={sys.executable}"], check=True)
        subprocess.run(["cmake", "--build", work, "--target", "_core", "-j", "2"], check=True)
        built = os.path.join(work, "python", "brix")
        os.makedirs(os.path.dirname(target), exist_ok=True)
        for f in os.listdir(built):
            if f.startswith("_core") and f.endswith(".so"):
                self.copy_file(os.path.join(built, f), target)


setup(packages=["brix"], ext_modules=[Extension("brix._core", sources=[])],
      cmdclass={"build_ext": cmake_build})
