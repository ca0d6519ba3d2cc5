"""The agent in its router for simulated days: errands, mishaps, what must hold after each, and what must not grow."""
