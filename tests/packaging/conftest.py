"""Every test gets what `cmake --install` installs, in a folder of its own below the build tree."""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parent))

from machine import Machine, NoMachines, check_machines  # noqa: E402

TREE = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ.get("TESSARD_BUILD", TREE / "build/debug"))


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        item.test_failed = True
        machine = item.funcargs.get("machine")
        if machine:
            report.sections.append(("console of the machine", machine.console()))


@pytest.fixture
def build():
    return BUILD


@pytest.fixture
def scratch(request):
    folder = BUILD / "packaging-tests" / re.sub(r"[^A-Za-z0-9_-]+", "_", request.node.name).strip("_")
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    yield folder
    if not getattr(request.node, "test_failed", False):
        shutil.rmtree(folder, ignore_errors=True)


@pytest.fixture
def installed(scratch):
    """The root below which everything is installed."""
    root = scratch / "root"
    subprocess.run(["cmake", "--install", BUILD], env={**os.environ, "DESTDIR": str(root)}, check=True,
                   stdout=subprocess.DEVNULL)
    return root


@pytest.fixture
def prefix():
    """Where the build tree installs to, as a path below the root."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    return re.search(r"^CMAKE_INSTALL_PREFIX:PATH=/(.*)$", cache, re.MULTILINE).group(1)


@pytest.fixture
def machine(scratch, installed):
    """A machine with everything installed and enabled, and a stub for the agent. The test boots it."""
    try:
        check_machines()
    except NoMachines as error:
        pytest.skip(str(error))
    machine = Machine(scratch.name, installed, scratch / "out")
    yield machine
    machine.down()
