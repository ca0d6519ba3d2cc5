"""The launcher's own duties, one by one."""
import socket
import subprocess
from types import SimpleNamespace

from router.virtual.launcher import Launcher
from router.virtual.system_log import SystemLog


def test_what_comes_after_the_last_look_is_written_down_before_the_memory_goes(tmp_path, monkeypatch):
    """The end of a boot may be seen before what it logged last: both wait at once."""
    launcher = object.__new__(Launcher)
    launcher.state = tmp_path
    launcher.inside = SimpleNamespace(boot_ended=lambda: None)
    launcher.log = SystemLog(tmp_path / "log.sock", tmp_path / "messages", tmp_path / "inside")
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as program:
        program.connect(str(tmp_path / "log.sock"))
        program.send(b"<134>agent: the last words")
    written_before = []
    monkeypatch.setattr(subprocess, "run", lambda *_, **__: written_before.append((tmp_path / "messages").read_text()))
    launcher.lose_memory()
    assert written_before[0].endswith("router local0.info agent: the last words\n")
    launcher.log.socket.close()
    launcher.log.kept.close()
