"""Builds the package with the library inside it.

The library comes from the build folder that MP4CORE_BUILD_DIR names (one
made with CMake from this checkout, holding libmp4core.so; a relative path
is taken from the checkout's top); without it the build compiles the
library with CMake into build-python/ of the checkout.
"""
import os
import shutil
import subprocess

from setuptools import Distribution, setup
from setuptools.command.build_py import build_py

CHECKOUT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def built_library() -> str:
    folder = os.environ.get("MP4CORE_BUILD_DIR")
    if folder:
        folder = os.path.join(CHECKOUT, folder)
    else:
        folder = os.path.join(CHECKOUT, "build-python")
        subprocess.check_call(["cmake", "-S", CHECKOUT, "-B", folder, "-G", "Ninja",
                               "-DCMAKE_BUILD_TYPE=Release",
                               "-DMP4CORE_TESTS=OFF"])
        # The library's file: under Ninja the target name "mp4core" is also
        # the tool's output.
        subprocess.check_call(["cmake", "--build", folder, "--target", "libmp4core.so"])
    library = os.path.join(folder, "libmp4core.so")
    if not os.path.exists(library):
        raise SystemExit(f"no libmp4core.so in {folder}: build the library there first")
    return os.path.realpath(library)


class BuildWithLibrary(build_py):
    def run(self) -> None:
        super().run()
        # Named by its soname: a ".so" file in a package reads as a module.
        target = os.path.join(self.build_lib, "mp4core", "libmp4core.so.1")
        shutil.copyfile(built_library(), target)


class BinaryDistribution(Distribution):
    """The wheel carries a compiled library, so it is tied to the platform."""

    def has_ext_modules(self) -> bool:
        return True


setup(packages=["mp4core"], cmdclass={"build_py": BuildWithLibrary}, distclass=BinaryDistribution)
