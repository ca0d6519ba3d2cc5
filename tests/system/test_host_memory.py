"""What one job takes of the router's memory is not taken from the others."""
PATIENCE = 60


def test_a_script_that_floods_its_output_leaves_room_for_the_next_one(router, cloud):
    cloud.send_script("flood", "cat /dev/zero")
    cloud.wait_for_status("flood", "failed", PATIENCE)
    cloud.send_script("next", "echo ran > /var/volatile/ran")
    cloud.wait_for_status("next", "success", PATIENCE)
    assert router.text("/var/volatile/ran") == "ran\n", "a success that ran nothing"


def test_with_tmp_full_a_script_that_prints_fails_until_a_silent_one_has_made_room(router, cloud):
    cloud.send_script("flood", "cat /dev/zero")
    cloud.wait_for_status("flood", "failed", PATIENCE)
    cloud.send_script("prints", "echo hello")
    cloud.wait_for_status("prints", "failed", PATIENCE)
    cloud.send_script("makes-room", "rm /tmp/cli_output_flood.txt")
    cloud.wait_for_status("makes-room", "success", PATIENCE)
    cloud.send_script("prints-again", "echo hello")
    cloud.wait_for_status("prints-again", "success", PATIENCE)
