# SPDX-License-Identifier: GPL-2.0
"""What `cmake --install` puts there is all that the writer of an agent needs."""

import collections
import fnmatch
import os
import pathlib
import re
import subprocess
import tempfile

import pytest

from lib.host import BUILD
from lib.program import Program

pytestmark = pytest.mark.kelmd  # the host makes no difference: once is enough

SOURCES = os.path.join(os.path.dirname(__file__), "..", "..", "examples")
STRICT = ["-Wall", "-Wextra", "-Werror"]


def run(*command, **options):
    result = subprocess.run(command, capture_output=True, text=True, **options)
    assert result.returncode == 0, result.stdout + result.stderr
    return result.stdout


@pytest.fixture
def directory():
    with tempfile.TemporaryDirectory() as name:
        yield pathlib.Path(name)


@pytest.fixture(scope="module")
def prefix():
    """An installed tree that has been moved after its installation."""
    with tempfile.TemporaryDirectory() as name:
        first = pathlib.Path(name) / "prefix"
        run("cmake", "--install", BUILD, "--prefix", str(first))
        yield first.rename(first.with_name("moved"))


@pytest.fixture(scope="module")
def flags(prefix):
    def pkg_config(*arguments):
        (directory,) = prefix.glob("**/pkgconfig")
        environment = {**os.environ, "PKG_CONFIG_PATH": str(directory)}
        return run("pkg-config", *arguments, "kelm", env=environment).split()
    return pkg_config


@pytest.fixture(scope="module")
def library(prefix):
    (found,) = prefix.glob("**/libkelm.so.0")
    return found


def static_libraries(flags):
    return [flag.replace("-lkelm", "-l:libkelm.a") for flag in flags("--libs", "--static")]


def with_pkg_config(out, prefix, flags):
    strict = [*STRICT, *flags("--cflags")]
    run("cc", "-std=gnu11", *strict, f"{SOURCES}/agent.c", "-o", f"{out}/agent", *flags("--libs"))
    run("c++", "-std=c++20", *strict, f"{SOURCES}/watch.cpp", "-o", f"{out}/watch",
        *static_libraries(flags))


def with_find_package(out, prefix, flags):
    run("cmake", "-G", "Ninja", "-S", SOURCES, "-B", str(out), f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", str(out))


@pytest.mark.parametrize("build", [with_pkg_config, with_find_package])
def test_the_examples_build_and_run(build, directory, prefix, flags, library, namespaces):
    build(directory, prefix, flags)
    link = namespaces.link(namespaces.add(), namespaces.add())
    environment = {**os.environ, "LD_LIBRARY_PATH": str(library.parent)}

    def agent(namespace, *arguments):
        return Program("ip", "netns", "exec", namespace, directory / "agent", *arguments,
                       env=environment)

    with Program(directory / "watch", link.near_ns, env=environment) as watch, \
            agent(link.near_ns, link.near6, link.far6, 5, 300) as near, \
            agent(link.far_ns, link.far6, link.near6, 6, 300) as far:
        near.expect("up, diagnostic no-diagnostic")
        far.expect("up, diagnostic no-diagnostic")
        watch.expect(f"session 5: {link.far6} says up")
        near.stop()
        far.stop()


def test_every_header_stands_alone(prefix, flags):
    headers = sorted((prefix / "include").glob("**/*.h"))
    assert len(headers) > 10
    for header in headers:
        name = str(header.relative_to(prefix / "include"))
        languages = [["c++", "-std=c++20"]]
        if name in ("kelm.h", "Bfd.h", "libkelm/libkelm.h"):
            languages.append(["cc", "-std=c11", "-Wpedantic"])
        for compiler in languages:
            language = "c++" if compiler[0] == "c++" else "c"
            run(*compiler, *STRICT, *flags("--cflags"), "-fsyntax-only", "-x", language, "-",
                input=f"#include <{name}>\n")


def test_the_library_exports_the_functions_of_its_header_alone(prefix, library):
    assert "[libkelm.so.0]" in run("readelf", "-d", str(library))
    exported = {line.split()[2] for line in
                run("nm", "-D", "--defined-only", str(library)).splitlines()}
    header = (prefix / "include/libkelm/libkelm.h").read_text()
    functions = re.findall(r"^(?!typedef)[a-z][\w ]*[ *](kelm_\w+)\(", header, re.MULTILINE)
    assert len(functions) > 30
    assert exported == {f"{name}@@LIBKELM_0" for name in functions} | {"LIBKELM_0"}


def test_each_file_is_in_one_debian_package(prefix, directory):
    """What dh_missing finds in a build of the packages, without one."""
    run("cmake", "--install", BUILD, "--component", "dkms", "--prefix", str(directory))
    installed = [str("usr" / file.relative_to(root))
                 for root in (prefix, directory) for file in root.glob("**/*") if not file.is_dir()]
    claims = collections.defaultdict(list)
    for package in pathlib.Path(SOURCES, "../packaging/debian").glob("*.install"):
        for line in package.read_text().splitlines():
            pattern = line.split()[0].replace("usr/lib/*/", "usr/lib/*")  # with and without triplet
            if pattern.startswith("usr/"):
                found = [file for file in installed if fnmatch.fnmatch(file, pattern)
                         or fnmatch.fnmatch(file, f"{pattern}/*")]
                assert found, f"{package.name}: nothing is installed as {line}"
                for file in found:
                    claims[file].append(package.stem)
    assert {file: claims[file] for file in installed if len(claims[file]) != 1} == {}
