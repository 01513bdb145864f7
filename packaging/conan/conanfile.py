# SPDX-License-Identifier: Apache-2.0
"""Recipe for Conan 2, to be run where the sources are:

conan create packaging/conan
"""

import os

from conan import ConanFile
from conan.errors import ConanInvalidConfiguration
from conan.tools.build import check_min_cppstd
from conan.tools.cmake import CMake, CMakeToolchain, cmake_layout
from conan.tools.files import copy


class OvelConan(ConanFile):
    name = "ovel"
    version = "1.0.0"
    license = "Apache-2.0"
    description = "Locks, memory, threads and Petri nets for C++"
    topics = ("concurrency", "allocator", "petri-net")
    package_type = "shared-library"
    settings = "os", "arch", "compiler", "build_type"

    def export_sources(self):
        root = os.path.join(self.recipe_folder, "..", "..")
        for pattern in (
            "CMakeLists.txt",
            "LICENSE",
            "*.md",
            "cmake/*",
            "includes/*",
            "sources/*",
            "platform/*",
            "docs/*",
            "examples/*",
            "tools/gdb/*",
            "packaging/debian/*",
        ):
            copy(self, pattern, root, self.export_sources_folder)

    def layout(self):
        cmake_layout(self)

    def validate(self):
        check_min_cppstd(self, 20)
        supported = {"Linux": ("x86_64", "x86"), "Windows": ("x86",)}
        if self.settings.arch not in supported.get(str(self.settings.os), ()):
            raise ConanInvalidConfiguration("Linux on x86_64 and x86, or Windows on x86")

    def generate(self):
        toolchain = CMakeToolchain(self)
        for part in ("TESTS", "TOOLS", "EXAMPLES", "WERROR"):
            toolchain.cache_variables[f"OVEL_{part}"] = False
        toolchain.generate()

    def build(self):
        cmake = CMake(self)
        cmake.configure()
        cmake.build()

    def package(self):
        CMake(self).install()
        copy(self, "LICENSE", self.source_folder, os.path.join(self.package_folder, "licenses"))

    def package_info(self):
        self.cpp_info.libs = ["ovel"]
        self.cpp_info.includedirs = ["include/ovel"]
        self.cpp_info.set_property("cmake_file_name", "ovel")
        self.cpp_info.set_property("cmake_target_name", "ovel::ovel")
        self.cpp_info.set_property("pkg_config_name", "ovel")
