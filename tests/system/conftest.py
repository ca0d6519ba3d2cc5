"""The test bed: every test gets a virtual router of its own, in fast time.

    @pytest.mark.router(speed=1, broker=False, ...)    other options of Router.up
    @pytest.mark.router(boot=False)                    the test boots it itself
"""
import os
import shutil
import sys
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(TREE), str(Path(__file__).parent)]

from bed import TestRouter  # noqa: E402
from cloud.certificates import make_authority  # noqa: E402
from cloud.file_server import FileServer  # noqa: E402
from cloud.service import Service, socket_of  # noqa: E402
from cloud.upload_server import UploadServer  # noqa: E402
from router.virtual.client import NoNamespaces, check_namespaces  # noqa: E402
from router.virtual.events import told  # noqa: E402
from router.virtual.network import CLOUD_ADDRESS, CLOUD_NAME  # noqa: E402

BUILD = Path(os.environ.get("TESSARD_BUILD", TREE / "build/debug"))
STATES = BUILD / "system"
SKIP = 77
LINES = 40      # of each kind that a failed test shows


def pytest_configure(config):
    config.addinivalue_line("markers", "router(**options): how the test's router is booted")


def pytest_sessionfinish(session, exitstatus):
    """A session of nothing but skips must not look like success."""
    reporter = session.config.pluginmanager.get_plugin("terminalreporter")  # none in a process that runs a share
    if reporter and exitstatus == 0 and reporter.stats.get("skipped") and not reporter.stats.get("passed"):
        session.exitstatus = SKIP


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.failed:
        item.test_failed = True
        for router in getattr(item, "routers", []):
            report.sections += last_lines(router)


def last_lines(router):
    """What a failed test shows of its router: all of it stays in the state folder."""
    logs = router.state / "log"
    for name, lines in (("events", [told(event) for event in router.events()]), ("log", router.log().splitlines()),
                        ("console", router.console().splitlines())):
        where = logs.parent if name == "events" else logs
        yield f"the last {name} of {router.name}; all: {where}", "\n".join(lines[-LINES:])


@pytest.fixture
def make_router(request):
    """Makes further routers, which are taken away after the test."""
    try:
        check_namespaces()
    except NoNamespaces as error:
        pytest.skip(str(error))
    request.node.routers = []
    root = STATES / request.node.path.stem / request.node.name

    def make(name="router", boot=True, speed=10, **options):
        router = TestRouter(name, root)
        shutil.rmtree(router.state.folder, ignore_errors=True)
        router.build = BUILD
        router.options = {"speed": speed, **options}
        request.node.routers.append(router)
        if boot:
            router.boot()
        return router

    yield make
    for router in request.node.routers:
        router.down()
    if not getattr(request.node, "test_failed", False):
        shutil.rmtree(root, ignore_errors=True)


@pytest.fixture
def router(request, make_router):
    marker = request.node.get_closest_marker("router")
    return make_router(**(marker.kwargs if marker else {}))


@pytest.fixture
def cloud(router):
    """The cloud, connected: a test that boots its router itself makes its own."""
    with Service(socket_of(router)) as service:
        router.wait_until(service.link.is_connected, 10, "the cloud to reach the broker")
        router.wait_connected()     # before that the agent would miss what is sent
        yield service


@pytest.fixture
def files(router):
    """Firmware and other files on the cloud's side, for whoever has this router's token."""
    token = router.run("cat /var/data/factory/token").strip()
    with FileServer(router, token=token) as server:
        yield server


@pytest.fixture
def uploads(router):
    with UploadServer(router, 80) as server:
        yield server


@pytest.fixture
def secure_uploads(router, tmp_path):
    authority, certificate = make_authority(tmp_path, CLOUD_NAME, CLOUD_ADDRESS)
    router.trust(authority)
    with UploadServer(router, 443, certificate) as server:
        yield server
