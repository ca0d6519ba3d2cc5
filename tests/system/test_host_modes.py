"""Who may read what lies in the router: jobs and what they hold are root's alone."""
from pathlib import Path

from bed import ACTIVE, ARCHIVE, PATIENCE

LIST = Path(__file__).resolve().parents[2] / "packaging/tessard.tmpfiles.conf"


def mode(router, path):
    return router.run(f"stat -c %a {path}").strip()


def test_a_job_its_script_and_the_token_are_for_root_alone(router, cloud):
    cloud.send_script("secret", "echo $$ > /tmp/runs; sleep 1000")
    router.wait_until(lambda: router.text("/tmp/runs"), PATIENCE, "the script")
    assert mode(router, f"{ACTIVE}/secret") == "600"
    assert mode(router, "/var/volatile/orv/secret_*") == "600"
    assert mode(router, "/var/data/factory/token") == "600"
    assert mode(router, "/var/volatile/orv/FW_JOBID") == "644", "a mark that other services read"
    assert mode(router, "/var/volatile/config/config.running") == "644"
    router.run("kill $(cat /tmp/runs)")
    cloud.wait_for_status("secret", "failed")
    router.wait_until(lambda: "secret" in router.archived_jobs(), PATIENCE, "the job in the archive")
    assert mode(router, f"{ARCHIVE}/secret") == "600"


def test_boot_gives_the_folders_the_modes_of_the_list(router):
    lines = [line.split() for line in LIST.read_text().splitlines() if line[:1] in ("d", "D")]
    assert lines
    for _, folder, wanted, *_ in lines:
        assert mode(router, folder).zfill(4) == wanted, folder
