"""No test program touches a file that it did not make, wherever it is started and wherever the clone lies.

TESSARD_PROGRAMS names the programs, separated by semicolons: one of each level.
"""
import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

PROGRAMS = [Path(name) for name in os.environ["TESSARD_PROGRAMS"].split(";")]
ARGUMENTS = {"sweep": ["--every", "40", "acknowledgements"]}
# What a test program covers with file systems of its own.
COVERED = ["/tmp", "/run", "/var/tmp", "/dev/shm", "/usr/bin", "/usr/sbin"]
NO_NAMESPACES = 77


@pytest.fixture(params=COVERED)
def place(request):
    """A folder of this test's own below the covered one."""
    if not os.access(request.param, os.W_OK):
        pytest.skip(f"{request.param} is not this user's to write")
    folder = Path(tempfile.mkdtemp(prefix="canary-", dir=request.param))
    yield folder
    shutil.rmtree(folder)


def fill(folder):
    """Files as a clone has them, hidden and nested ones too."""
    for name in ("f", "sub/deeper/f", ".git/objects/00/f", "data/orv/f", "volatile/config/config.new"):
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        (folder / name).write_bytes(os.urandom(5000))
    (folder / "empty").mkdir()
    (folder / "link").symlink_to("sub/deeper/f")
    (folder / "sub").chmod(0o700)


def tree(folder):
    """{path: kind and mode, content, when it was written} of everything below."""
    found = {}
    for path in sorted(folder.rglob("*")):
        stat = path.lstat()
        content = path.read_bytes() if path.is_file() and not path.is_symlink() else b""
        found[str(path.relative_to(folder))] = (stat.st_mode, content, stat.st_mtime_ns)
    return found


def run(program, folder):
    arguments = ARGUMENTS.get(program.name, [])
    done = subprocess.run([program, *arguments], cwd=folder, capture_output=True, text=True, timeout=200, check=False)
    if done.returncode == NO_NAMESPACES:
        pytest.skip(done.stderr)
    return done


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.name)
def test_a_current_directory_below_a_covered_place_is_left_alone(program, place):
    fill(place)
    before = tree(place)
    done = run(program, place)
    assert tree(place) == before
    assert done.returncode == 0, done.stdout[-2000:] + done.stderr[-2000:]


@pytest.mark.parametrize("program", PROGRAMS, ids=lambda path: path.name)
def test_a_clone_below_a_covered_place_is_left_alone(program, place):
    clone, build = place / "folder/clone", place / "folder/clone/build/preset"
    build.mkdir(parents=True)
    fill(clone)
    (build / "CMakeCache.txt").write_text(f"CMAKE_HOME_DIRECTORY:INTERNAL={clone}\n")
    copied = build / program.name
    shutil.copy2(program, copied)
    before = tree(place)
    done = run(copied, clone / "sub")
    assert tree(place) == before
    assert done.returncode == 0, done.stdout[-2000:] + done.stderr[-2000:]
