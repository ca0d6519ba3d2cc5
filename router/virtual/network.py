"""The wire between the router and the cloud's side.

The launcher's own network namespace is the cloud's side. Addresses are documentation ranges and
exist only in these two namespaces.
"""
import subprocess

CLOUD_ADDRESS = "198.51.100.1"
CLOUD_NAME = "cloud.example"
GATEWAY = "192.0.2.1"
ROUTER_ADDRESS = "192.0.2.2"
# All beyond the gateway: who reaches them has an address and a route.
FAR_ADDRESSES = (CLOUD_ADDRESS, "203.0.113.1")
CLOUD_END = "cloud0"


def ip_batch(*commands):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(commands) + "\n", text=True, check=True)


def make_cloud_side():
    ip_batch("link set lo up", *(f"addr add {address}/32 dev lo" for address in FAR_ADDRESSES))


def plug_in(init_pid):
    """Gives the router that runs under init_pid its wan0, the other end on the cloud's side."""
    subprocess.run(["ip", "link", "del", CLOUD_END], stderr=subprocess.DEVNULL, check=False)
    ip_batch(f"link add {CLOUD_END} type veth peer name wan0 netns {init_pid}",
             f"addr add {GATEWAY}/24 dev {CLOUD_END}")


def set_link(up):
    ip_batch(f"link set {CLOUD_END} {'up' if up else 'down'}")
