"""Which lines of the log `vrouter log` shows."""
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent.parent.parent))

from router.virtual.log_filter import LogFilter, stamp_time, time_of  # noqa: E402

NOW = 1795356309    # 2026-11-22 14:05:09 UTC
LINE = "Nov 22 14:05:00 router local0.notice iot: processing job: 77"


@pytest.mark.parametrize("level, shown", [("debug", True), ("notice", True), ("err", False), ("alert", False)])
def test_a_level_shows_what_is_as_urgent(level, shown):
    assert LogFilter(level=level).wants(LINE, NOW) is shown


@pytest.mark.parametrize("text, shown", [
    ("processing job: 77", True), ("deleted active job /active/77, forced fail", True), ("job 77.", True),
    ("cli script file: /var/volatile/orv/77_14:05:09_11-22-2026", False), ("processing job: 177", False),
    ("processing job: 77-b", False), ("processing job: 77.b", False), ("no job", False)])
def test_a_job_shows_the_lines_that_name_it(text, shown):
    assert LogFilter(job="77").wants(f"Nov 22 14:05:00 router local0.notice iot: {text}", NOW) is shown


@pytest.mark.parametrize("since, shown", [
    ("9s", True), ("8s", False), ("1m", True), ("1h", True), ("14:05", True), ("14:05:01", False),
    ("2026-11-22 14:04:59", True), ("2026-11-23 00:00:00", False)])
def test_a_time_shows_what_came_later(since, shown):
    assert LogFilter(since=time_of(since, NOW)).wants(LINE, NOW) is shown


def test_a_line_of_last_december_is_of_last_year():
    assert NOW - stamp_time("Dec 31 23:59:59", NOW) > 300 * 86400


def test_what_is_no_time_says_what_is():
    with pytest.raises(ValueError, match="90s, 5m, 2h"):
        time_of("yesterday", NOW)


def test_everything_is_shown_unless_asked_otherwise():
    assert LogFilter().wants("no line of a log", NOW)
    assert not LogFilter(level="debug").wants("no line of a log", NOW)
