"""What goes onto a device is built as hardened as the compiler can."""
import json
import os
import re
import subprocess
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parent.parent.parent
BUILD = Path(os.environ.get("TESSARD_BUILD", TREE / "build/release"))
PROGRAMS = ["tessard", "packaging/boot/tessard-boot", "host/cmd/vtrcfg", "host/sysdb/sysdb"]


def readelf(option, program):
    return subprocess.run(["readelf", "-W", option, BUILD / program], capture_output=True, text=True, check=True).stdout


@pytest.fixture(params=PROGRAMS)
def program(request):
    return request.param


def test_it_is_loaded_at_an_address_of_its_own_each_time(program):
    assert re.search(r"Type: +DYN ", readelf("-h", program))
    assert re.search(r"FLAGS_1.* PIE\b", readelf("-d", program))


def test_its_tables_of_addresses_are_read_only_once_it_runs(program):
    assert "GNU_RELRO" in readelf("-l", program)
    assert re.search(r"FLAGS_1.* NOW\b", readelf("-d", program))


def test_its_stack_holds_no_code(program):
    assert re.search(r"GNU_STACK .* RW +0", readelf("-l", program))


def test_its_stack_is_guarded(program):
    assert "__stack_chk_fail" in readelf("--dyn-syms", program)


def test_the_agent_calls_the_checked_functions_of_the_c_library():
    called = set(re.findall(r" UND (\w+)@", readelf("--dyn-syms", "tessard")))
    assert "__syslog_chk" in called and "syslog" not in called


@pytest.mark.parametrize("option", ["-D_FORTIFY_SOURCE=3", "-fstack-protector-strong", "-fstack-clash-protection",
                                    "-fPIE", "-O3"])
def test_every_source_is_compiled_with(option):
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    product = [one for one in commands if "/tests/" not in one["file"]]
    assert len(product) > 50
    assert [one["file"] for one in product if option not in one["command"].split()] == []
