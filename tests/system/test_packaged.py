"""What is packaged beside the agent, in a router whose shell and tools are BusyBox's."""

ORV = "/var/volatile/orv"


def test_housekeeping_removes_scripts_that_were_left_and_no_mark(router):
    router.run(f"cd {ORV}; echo 1 >CONFIG_JOB_EXECUTING; echo 4000000 >8.pid; echo 1 >9.pid;"
               " : >7_9:5:7_1-2-2020; : >8_9:5:7_1-2-2020; : >9_9:5:7_1-2-2020;"
               " touch -d '2020-01-02 09:05' *; : >10_9:5:7_1-2-2026; /etc/init.d/housekeeping once")
    left = router.run(f"ls {ORV}").split()
    assert left == sorted(["CONFIG_JOB_EXECUTING", "9.pid", "9_9:5:7_1-2-2020", "10_9:5:7_1-2-2026"])


def test_boot_empties_what_the_list_says_and_nothing_else(router):
    router.run("cd /var/data/.tmp; touch half .hidden; mkdir folder; : >/var/data/orv/kept")
    router.reboot()
    assert router.run("cd /var/data/.tmp; ls -d half .hidden folder 2>/dev/null; ls /var/data/orv/kept"
                      ).split() == ["/var/data/orv/kept"]
    assert "rm:" not in router.console() and "find:" not in router.console()
