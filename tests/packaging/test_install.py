"""`cmake --install`: every file where the units, boot and the agent look for it."""
import os
import re
import shutil
import subprocess
from pathlib import Path

from conftest import TREE

AGENT = {"bin/tessard", "sbin/tessard-boot", "sbin/tessard-reserve", "sbin/tessard-clean-scripts",
         "lib/tmpfiles.d/tessard.conf", "lib/systemd/system/tessard.service",
         "lib/systemd/system/tessard-boot.service", "lib/systemd/system/var-volatile.mount",
         "lib/systemd/system/tessard-housekeeping.service", "lib/systemd/system/tessard-housekeeping.timer"}
HOST = {"bin/sysdb", "bin/vtrcfg", "share/vantrel/default-config.json"}
UNITS = ["tessard.service", "tessard-boot.service", "var-volatile.mount", "tessard-housekeeping.service",
         "tessard-housekeeping.timer"]


def files_below(folder):
    return {str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file()}


def test_everything_that_is_packaged_is_installed(installed, prefix):
    meta = {f"share/vantrel/meta/{path.name}" for path in (TREE / "host/cmd/meta").iterdir()}
    assert files_below(installed / prefix) == AGENT | HOST | meta
    programs = {name for name in AGENT | HOST if os.access(installed / prefix / name, os.X_OK)}
    assert programs == {name for name in AGENT | HOST if "bin/" in name}


def test_a_device_gets_the_agent_and_nothing_of_the_host(scratch, build):
    tree, root = scratch / "device", scratch / "root"
    subprocess.run(["cmake", "-S", TREE, "-B", tree, "-G", "Ninja", "-DTESSARD_PLATFORM=device",
                    "-DTESSARD_TESTS=OFF"], check=True, capture_output=True)
    for program in ("tessard", "packaging/boot/tessard-boot"):
        shutil.copy(build / program, tree / program)  # neither can be linked here, without the maker's libraries
    subprocess.run(["cmake", "--install", tree], env={**os.environ, "DESTDIR": str(root)}, check=True,
                   capture_output=True)
    assert files_below(root / "usr") == AGENT, "below /usr, without having been told"


def test_a_prefix_that_the_units_do_not_know_is_refused_before_anything_is_installed(scratch, build):
    elsewhere = scratch / "elsewhere"
    refused = subprocess.run(["cmake", "--install", build, "--prefix", elsewhere], capture_output=True, text=True,
                             check=False)
    assert refused.returncode != 0
    assert "DCMAKE_INSTALL_PREFIX" in refused.stderr
    assert not elsewhere.exists()


def test_every_command_of_the_units_is_where_they_say(installed, prefix):
    named = set()
    for unit in UNITS:
        text = (installed / prefix / "lib/systemd/system" / unit).read_text()
        named |= set(re.findall(r"^Exec\w+=-?(/\S+)", text, re.MULTILINE))
    own = {path for path in named if "tessard" in path}
    assert {os.path.basename(path) for path in own} == {
        "tessard", "tessard-boot", "tessard-clean-scripts", "tessard-reserve"}
    for path in own:
        assert os.access(installed / path.lstrip("/"), os.X_OK), path
    assert named - own == {"/bin/sh"}


def test_systemd_finds_nothing_wrong_with_the_units(installed):
    """With the distribution's own units around them, and its shell."""
    units = installed / "usr/lib/systemd/system"
    units.mkdir(parents=True, exist_ok=True)
    for path in Path("/usr/lib/systemd/system").glob("*.target"):
        shutil.copy(path, units)
    for program in ("/bin/sh", "/usr/bin/systemd-tmpfiles"):
        copy = installed / program.lstrip("/")
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(program, copy)
    checked = subprocess.run(["systemd-analyze", "verify", "--man=no", f"--root={installed}", *UNITS],
                             capture_output=True, text=True, check=False)
    assert (checked.stderr, checked.returncode) == ("", 0)


def test_enabling_the_agent_enables_all_it_needs(installed):
    subprocess.run(["systemctl", f"--root={installed}", "enable", "tessard.service"], check=True,
                   capture_output=True)
    wanted = {str(path.relative_to(installed / "etc/systemd/system"))
              for path in (installed / "etc/systemd/system").glob("*.wants/*")}
    assert wanted == {"multi-user.target.wants/tessard.service", "local-fs.target.wants/var-volatile.mount",
                      "timers.target.wants/tessard-housekeeping.timer"}
