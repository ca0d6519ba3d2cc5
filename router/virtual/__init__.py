"""One virtual router on this machine: image, sandbox, network, clock and power."""
