# SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
# SPDX-License-Identifier: MIT

import os

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, cmake_layout
from conan.tools.files import copy


class ThreadUtilitiesConan(ConanFile):
    name = "threadutilities"
    version = "1.0.0"
    license = "MIT"
    description = "Thread identity, names, stack capture and sampling for large C++ applications"
    topics = ("threads", "stack-trace", "profiler")
    settings = "os", "compiler", "build_type", "arch"
    package_type = "library"
    options = {"shared": [True, False]}
    default_options = {"shared": True}
    generators = "CMakeToolchain"

    def export_sources(self):
        tree = os.path.join(self.recipe_folder, "..", "..")
        for pattern in ("CMakeLists.txt", "LICENSE", "cmake/*", "include/*", "src/*"):
            copy(self, pattern, tree, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def validate(self):
        check_min_cppstd(self, 20)
        if self.settings.arch != "x86_64" or self.settings.os not in ("Linux", "Windows"):
            raise ConanInvalidConfiguration("x86-64 Linux or Windows only")

    def build(self):
        cmake = CMake(self)
        cmake.configure(
            variables={
                f"THREAD_UTILITIES_{part}": "OFF" for part in ("TESTS", "EXAMPLES", "COMPANION")
            }
        )
        cmake.build()

    def package(self):
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))
        CMake(self).install()

    def package_info(self):
        # The library's own CMake package and pkg-config file serve every kind of it.
        self.cpp_info.set_property("cmake_find_mode", "none")
        self.cpp_info.builddirs = [os.path.join("lib", "cmake", "ThreadUtilities")]
        debug = self.settings.build_type == "Debug"
        self.cpp_info.libs = ["ThreadUtilitiesd" if debug else "ThreadUtilities"]
        if not self.options.shared:
            self.cpp_info.defines = ["THREAD_UTILITIES_STATIC"]
            if self.settings.os == "Linux":
                self.cpp_info.system_libs = ["dl", "rt"]
                self.cpp_info.exelinkflags = ["-Wl,--eh-frame-hdr"]
