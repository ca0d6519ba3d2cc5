"""What the cloud's side makes of messages that no agent should send."""
import json
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parent.parent.parent))

from cloud.service import Message, Report, parse  # noqa: E402

ACK = "v1/device/job/77/ack"


def test_a_report_is_one():
    payload = {"session": 5, "params": {"jobId": "77", "status": "failed", "msg": "why"}}
    report = parse(ACK, json.dumps(payload).encode())
    assert isinstance(report, Report)
    assert (report.job, report.status, report.session, report.msg) == ("77", "failed", 5, "why")


@pytest.mark.parametrize("payload", [
    pytest.param(b"[" * 100000, id="deep array"), pytest.param(b'{"a":' * 100000, id="deep object"),
    b"nonsense", b"", b"\xff\xfe", b"[]", b"7", b"{}", b'{"params": []}',
    b'{"session": 5, "params": {"jobId": "77"}}', b'{"params": {"jobId": "77", "status": "failed"}}'])
def test_anything_else_is_a_message(payload):
    message = parse(ACK, payload)
    assert isinstance(message, Message) and not isinstance(message, Report)


def test_what_this_side_sends_is_passed_over():
    assert parse("v1/device/job/77/pub_ack", b"{}") is None
