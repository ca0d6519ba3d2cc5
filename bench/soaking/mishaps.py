"""What happens to the router in a soak while an errand is under way. Each is over when its function returns."""

SHORT, LONG = 5, 120    # of the router's seconds


def nothing(soak):
    pass


def kill(soak):
    soak.end_agent()


def power_cut(soak):
    soak.router.power_cut()


def wire(soak):
    soak.router.net(False)
    soak.let_pass(soak.random.uniform(SHORT, LONG))
    soak.router.net(True)


def broker(soak):
    soak.router.broker(False)
    soak.let_pass(soak.random.uniform(SHORT, LONG))
    soak.router.broker(True)


def full_disk(soak):
    soak.router.run("dd if=/dev/zero of=/var/data/ballast bs=4k 2>/dev/null", check=False)
    soak.let_pass(soak.random.uniform(SHORT, LONG))
    soak.router.run("rm -f /var/data/ballast", check=False)


def clock(soak):
    soak.router.clock(step=soak.random.uniform(-600, 600))


def uploads(soak):
    soak.uploads.fault = soak.random.choice([500, "cut", 404])
    soak.let_pass(LONG)
    soak.uploads.fault = None


MISHAPS = {nothing: 300, kill: 8, power_cut: 6, wire: 20, broker: 12, full_disk: 10, clock: 12, uploads: 8}
# After these the agent is another process.
RESTARTS = (kill, power_cut)
